#pragma once

#include "analytics/hit_queue.h"
#include "analytics/tracker.h"
#include "core/device.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace velmora::test {

inline constexpr std::chrono::seconds kWait{10};

// "VelmoraConfig.json" with an analytics section that sends to `server` over plain HTTP.
inline std::string AnalyticsConfig(const std::string& server, bool offline, int batchLimit) {
    return R"({"analytics":{"rsids":"rs1,rs2","server":")" + server + R"(","charset":"UTF-8","offlineEnabled":)" +
           (offline ? "true" : "false") + R"(,"batchLimit":)" + std::to_string(batchLimit) +
           R"(,"privacyDefault":"optedin","ssl":false}})";
}

}  // namespace velmora::test

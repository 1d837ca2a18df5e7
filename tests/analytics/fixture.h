#pragma once

#include "analytics/hit_queue.h"
#include "analytics/tracker.h"
#include "collector.h"
#include "core/device.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace velmora::test {

// Counts the sleeps that start on a manual clock, so a test can advance time exactly once per
// sleep of the sender.
class CountingClock final : public Clock {
public:
    explicit CountingClock(std::shared_ptr<ManualClock> manual) : manual_(std::move(manual)) {}
    std::int64_t NowMillis() const override { return manual_->NowMillis(); }
    bool SleepFor(std::chrono::milliseconds duration, Waker& waker) override {
        sleeps.fetch_add(1);
        return manual_->SleepFor(duration, waker);
    }
    std::shared_ptr<Timer> Every(std::chrono::milliseconds period, std::function<void()> tick) override {
        return manual_->Every(period, std::move(tick));
    }
    std::atomic<int> sleeps{0};

private:
    std::shared_ptr<ManualClock> manual_;
};

inline constexpr const char* kHitPath = "/b/ss/rs1,rs2/0/WINU-4.0.0/";
inline constexpr const char* kAid = "0123456789ABCDEF-0123456789ABCDEF";
// The device context of every hit in these tests, cleaned and in key order.
inline const std::string kDevicePart =
    "&aAppID=Demo%201.2.4%20%283%29&aDeviceName=Acme%20Phone1&aOSVersion=Windows%20Phone%208.1"
    "&aResolution=480x800";
inline const std::string kZone = "&t=00%2F00%2F0000%2000%3A00%3A00%200%20300";
inline const std::string kManifest =
    R"(<?xml version="1.0" encoding="utf-8"?>
<Package><Identity Name="demo" Version="1.2.3.4"/><Properties><DisplayName>Demo</DisplayName></Properties></Package>)";

// A runtime on temporary directories with a loopback collector, a counting manual clock, a stored
// AID and a switchable connection.
class AnalyticsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite();

    void Start(const std::string& config);
    void Restart();  // a new runtime on the same directories, as the next process

    Runtime& runtime() { return *env_->runtime; }
    AnalyticsTracker& tracker() { return runtime().Get<AnalyticsTracker>(); }
    HitQueue& hits() { return runtime().Get<HitQueue>(); }
    std::shared_ptr<ManualClock> manual() { return env_->clock; }
    LogCapture& log() { return env_->log; }

    // The hits the queue file holds now.
    std::vector<QueuedHit> FileHits();
    std::string FileText();
    // Counts what reached the queue after everything posted so far.
    std::size_t QueueSize() { return tracker().QueueSize(); }
    // As the public setter does it: on the general queue, after the calls posted before.
    void SetPrivacy(std::int32_t status) {
        runtime().GeneralQueue().Submit([this, status] { runtime().SetPrivacyStatus(status); }).get();
    }

    Collector collector_;
    std::atomic<bool> online_{true};
    std::shared_ptr<CountingClock> clock_;
    std::unique_ptr<TestRuntime> env_;
    HostOptions options_;
};

// The value of a query variable in a hit string; empty when it is absent.
std::string Variable(const std::string& hit, const std::string& name);

}  // namespace velmora::test

#pragma once

// One application on one local folder with a manual clock, for the modules that lifecycle drives:
// timed actions, lifetime value, sessions and audience signals.
#include "cohorta/cohorta.h"
#include "core/device.h"
#include "lifecycle/lifecycle.h"
#include "support/fake_transport.h"
#include "support/test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velmora::test {

// The analytics side; as a strict mock, a hit no test expects fails it.
struct MockTracker : ActionTracker {
    MOCK_METHOD(void, TrackAction, (const std::string& name, const StringMap& data), (override));
    MOCK_METHOD(void, TrackInternalAction, (const std::string& name, const StringMap& data, std::int32_t), (override));
};

// One application on one local folder, each launch a new runtime as a new process would be, with
// debug lines on and the audience service (on `audienceHost`, or `cohorta`) behind a fake transport.
struct Application : ::testing::Test {
    static constexpr const char* kAudienceHost = "audience.test";
    static constexpr const char* kRefusedHost = "refused.test";  // its requests fail to connect

    void Launch(const std::string& version = "1.0.0.0", std::int32_t timeout = 300, std::string cohorta = "") {
        lifecycle.reset();
        timed.reset();
        audienceClient.reset();
        env.package.Write("VelmoraConfig.json", R"({"analytics":{"rsids":"r","server":"s","lifecycleTimeout":)" +
                                                    std::to_string(timeout) + R"(},"cohorta":{"server":")" +
                                                    (cohorta.empty() ? kAudienceHost : cohorta) + "\"}}");
        env.package.Write("AppxManifest.xml", R"(<Package><Identity Version=")" + version + R"("/><Properties>)"
                                              R"(<DisplayName>Demo</DisplayName></Properties></Package>)");
        HostOptions host;
        host.osVersion = "Debian GNU/Linux 12";  // the launch hit carries the host's text
        env.runtime = env.Restart(host);
        auto& r = *env.runtime;
        r.GetConfigSettings();  // read before debug lines are on
        r.Log().SetDebugEnabled(true);
        env.log.Clear();
        timed = std::make_unique<TimedActionStore>(r.GetFileStore(), tracker, r.GetClock(), r.Log());
        audienceClient = std::make_unique<CohortaClient>(r.GetConfigSettings(), r.GetModuleGates(), r.GetSettingsStore(), audience, r.Log(), r.GetExecutor());
        lifecycle = std::make_unique<Lifecycle>(r.GetConfigSettings(), r.GetModuleGates(), r.GetSettingsStore(), r.GetClock(),
                                                r.GetDeviceContext(), tracker, *timed, Cohorta(), r.Log());
    }
    // The answer to audience signals ("HOLD": none in time); destinations get a 200, and every
    // request to the refused host fails to connect.
    void Answer(const std::string& body) {
        audience.OnSend([body](const HttpRequest& request) {
            if (request.url.find(kRefusedHost) != std::string::npos) {
                return HttpOutcome::Failed(0x80072EFD, DescribeHResult(0x80072EFD));
            }
            if (request.url.find("/event?") == std::string::npos) return HttpOutcome::Answered(200);
            return body == "HOLD" ? HttpOutcome::TimedOut() : HttpOutcome::Answered(200, body);
        });
    }
    void At(std::int64_t seconds) {  // once the signals posted ran at the old time
        EXPECT_TRUE(!lifecycle || Cohorta().Flush(std::chrono::seconds(10)));
        env.clock->SetMillis(seconds * 1000);
    }
    CohortaClient& Cohorta() { return *audienceClient; }
    SettingsStore& Settings() { return env.runtime->GetSettingsStore(); }
    std::string File() const { return env.local.Read(TimedActionStore::kFileName); }

    FakeTransport audience;
    TestRuntime env;
    ::testing::StrictMock<MockTracker> tracker;
    std::unique_ptr<TimedActionStore> timed;
    std::unique_ptr<CohortaClient> audienceClient;
    std::unique_ptr<Lifecycle> lifecycle;
};

}  // namespace velmora::test

#include "support/test_support.h"

#include <velmora/Velmora.h>

#include <gtest/gtest.h>

namespace {

using velmora::test::LogCapture;
using velmora::test::TempDir;

// Each test runs in its own process, so the process-wide runtime starts fresh in each.
class ConfigApi : public ::testing::Test {
protected:
    void Start(const std::string& config) {
        if (!config.empty()) package.Write("VelmoraConfig.json", config);
        Velmora::HostOptions options;
        options.packageDirectory = package.path();
        options.localDirectory = local.path();
        options.logSink = log.Sink();
        ASSERT_TRUE(Velmora::Host::Configure(options));
    }
    TempDir package, local;
    LogCapture log;
};

TEST_F(ConfigApi, VersionNeedsNoConfiguration) {
    EXPECT_EQ(Velmora::Config::GetVersion(), "4.0.0");
    EXPECT_TRUE(Velmora::Host::Configure({})) << "asking for the version must not start the library";
}

TEST_F(ConfigApi, DebugSwitchTakesEffectInPostingOrder) {
    Start(R"({"version":"1"})");
    Velmora::Config::SetDebugLogging(true);
    auto status = Velmora::Config::GetPrivacyStatusAsync();  // loads the configuration after the switch
    EXPECT_EQ(static_cast<int>(status.get()), 0) << "no analytics section: no status";
    EXPECT_TRUE(Velmora::Config::GetDebugLogging());
    EXPECT_TRUE(log.Contains("Velmora Debug:Config - Analytics not configured"));
    EXPECT_TRUE(log.Contains("Velmora Debug:Config - Cohorta not configured"));
}

TEST_F(ConfigApi, OptOutThenReadGivesOptOutAndIsStored) {
    Start(R"({"analytics":{"privacyDefault":"optedin"}})");
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::OptOut);
    EXPECT_EQ(Velmora::Config::GetPrivacyStatusAsync().get(), Velmora::VelmoraPrivacyStatus::OptOut);
    EXPECT_TRUE(Velmora::Host::Flush(std::chrono::seconds(10)));

    // A later process (here: a runtime on the same directory) starts opted out.
    velmora::Runtime next(
        [&] {
            Velmora::HostOptions options;
            options.packageDirectory = package.path();
            options.localDirectory = local.path();
            options.logSink = log.Sink();
            return options;
        }());
    EXPECT_EQ(next.Config().Privacy(), velmora::kPrivacyOptOut);
}

TEST_F(ConfigApi, ConfigureIsRefusedOnceStarted) {
    Start(R"({"version":"1"})");
    Velmora::Config::SetDebugLogging(true);
    ASSERT_TRUE(Velmora::Host::Flush(std::chrono::seconds(10)));
    EXPECT_FALSE(Velmora::Host::Configure({}));
    EXPECT_TRUE(
        log.Contains("Velmora Warning:Config - Host options were ignored because the library has already started"));
}

TEST_F(ConfigApi, InvalidStatusIsKeptInMemoryButNotStored) {
    Start(R"({"analytics":{"privacyDefault":"optunknown","offlineEnabled":true}})");
    Velmora::Config::SetDebugLogging(true);
    Velmora::Config::SetPrivacyStatus(static_cast<Velmora::VelmoraPrivacyStatus>(7));
    EXPECT_EQ(static_cast<int>(Velmora::Config::GetPrivacyStatusAsync().get()), 7);
    EXPECT_TRUE(log.Contains("Velmora Warning:Analytics - Invalid privacy status was ignored (7)"));
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::OptIn);
    EXPECT_EQ(Velmora::Config::GetPrivacyStatusAsync().get(), Velmora::VelmoraPrivacyStatus::OptIn);
}

TEST(RuntimeLifetime, DestroyingARuntimeRunsPostedWorkAndJoins) {
    velmora::test::TestRuntime t(R"({"version":"1"})");
    std::atomic<int> ran{0};
    for (int i = 0; i < 100; ++i) t.runtime->GeneralQueue().Post([&] { ++ran; });
    t.runtime.reset();
    EXPECT_EQ(ran.load(), 100);
}

}  // namespace

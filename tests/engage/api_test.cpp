// The public classes on the process-wide runtime: each case runs in a process of its own.
#include "core/runtime.h"
#include "engage_support.h"
#include "lifecycle/lifecycle.h"
#include "support/test_support.h"

#include <velmora/Velmora.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velmora {
namespace {

using namespace Velmora;

struct PublicApi : ::testing::Test {
    // Starts the library on temporary folders, with a collector for hits and the audience.
    void Start(const std::string& sections) {
        collector.otherStatus = 200;
        package.Write("VelmoraConfig.json", "{" + sections + "}");
        package.Write("AppxManifest.xml", R"(<?xml version="1.0"?><Package><Identity Version="2.0.0.0"/>)"
                                          R"(<Properties><DisplayName>Demo</DisplayName></Properties></Package>)");
        HostOptions options;
        options.packageDirectory = package.path();
        options.localDirectory = local.path();
        options.logSink = log.Sink();
        ASSERT_TRUE(Host::Configure(options));
        Config::SetDebugLogging(true);
    }
    std::string AnalyticsSection() const { return R"("analytics":{"rsids":"rs","server":")" + collector.Host() + "\"}"; }
    std::string Hit(std::size_t count) {
        EXPECT_TRUE(Host::Flush(std::chrono::seconds(20)));
        EXPECT_TRUE(test::WaitUntil([&] { return collector.Targets("/b/ss/rs/").size() == count; }));
        auto hits = collector.Targets("/b/ss/rs/");
        return hits.empty() ? "" : hits.back();
    }
    void TearDown() override { Host::Flush(std::chrono::seconds(20)); }

    test::AudienceServer collector;
    test::TempDir package, local;
    test::LogCapture log;
};

MATCHER_P(Has, part, "") { return arg.find(part) != std::string::npos; }

TEST_F(PublicApi, LifecycleTimedActionsAndLifetimeValueReachTheCollector) {
    Start(AnalyticsSection());
    Config::CollectLifecycleData();
    EXPECT_THAT(Hit(1), ::testing::AllOf(Has("pev2=VLMINTERNAL%3ALifecycle"), Has("InstallEvent=InstallEvent")));
    EXPECT_EQ(Runtime::Process().Get<Lifecycle>().GetLifecycleContextData().at("a.AppID"), "Demo 2.0.0 (0)");
    Config::PauseCollectingLifecycleData();
    Config::CollectLifecycleData();  // back within the timeout: the session resumes, nothing is sent

    Analytics::TrackTimedActionStart("checkout", {{"step", std::int32_t{2}}});
    EXPECT_TRUE(Analytics::TrackingTimedActionExistsAsync("checkout").get());
    Analytics::TrackTimedActionUpdate("checkout", {{"total", 9.5}});
    Analytics::TrackTimedActionEnd("checkout");
    EXPECT_FALSE(Analytics::TrackingTimedActionExistsAsync("checkout").get());
    EXPECT_THAT(Hit(2), ::testing::AllOf(Has("pev2=AMACTION%3Acheckout"), Has("step=2"), Has("total=9.5"),
                                         Has("timetotal="), Has("timeinapp=")));

    Analytics::TrackLifetimeValueIncrease(12.5f, {{"shop", std::string("main")}});
    EXPECT_THAT(Hit(3), ::testing::AllOf(Has("LifetimeValueIncrease"), Has("amount=12.50"), Has("shop=main")));
    EXPECT_EQ(Config::GetLifetimeValue(), 12.5);
}

TEST_F(PublicApi, TrackingCallsPassTheAnalyticsGate) {
    Start(R"("cohorta":{"server":"127.0.0.1:1"})");
    Analytics::TrackTimedActionStart("a");
    Analytics::TrackTimedActionUpdate("a", {{"k", std::string("v")}});
    Analytics::TrackTimedActionEnd("a");
    Analytics::TrackLifetimeValueIncrease(3.0f);
    EXPECT_FALSE(Analytics::TrackingTimedActionExistsAsync("a").get());
    EXPECT_EQ(log.Count("Velmora Warning:Analytics - Your config file is not set up to use Analytics"), 4u);
    EXPECT_EQ(Config::GetLifetimeValue(), 0.0);
}

TEST_F(PublicApi, OptedOutCallsAreDroppedWithADebugLine) {
    Start(AnalyticsSection());
    Config::SetPrivacyStatus(VelmoraPrivacyStatus::OptOut);
    Analytics::TrackLifetimeValueIncrease(3.0f);
    Analytics::TrackTimedActionStart("a");
    EXPECT_FALSE(Analytics::TrackingTimedActionExistsAsync("a").get());
    EXPECT_EQ(log.Count("Velmora Debug:Analytics - Ignoring hit due to privacy status being opted out"), 2u);
    EXPECT_EQ(Config::GetLifetimeValue(), 0.0);
}

TEST_F(PublicApi, CohortaSignalsTranslateTheTraitsAndKeepTheProfile) {
    collector.Answer("/event", R"({"uuid":"U9","stuff":[{"cn":"seg","cv":"gold"}]})");
    Start(R"("cohorta":{"server":")" + collector.Host() + "\"}");
    EXPECT_EQ(Cohorta::GetVisitorProfile(), std::nullopt);
    Cohorta::SetDpidAndDpuuid("P", "Q");
    const ObjectMap traits{{"a.b", std::int32_t{1}}, {"flag", true}, {"none", nullptr}};
    EXPECT_EQ(Cohorta::SubmitSignal(traits).get(), (StringMap{{"seg", "gold"}}));
    EXPECT_EQ(Cohorta::GetDpid() + Cohorta::GetDpuuid(), "PQ");
    EXPECT_EQ(collector.Targets("/event").at(0),
              "/event?c_a_b=1&c_flag=true&d_dpid=P&d_dpuuid=Q&d_ptfm=win8&d_dst=1&d_rtbd=json");
    EXPECT_EQ(Cohorta::GetVisitorProfile(), (StringMap{{"seg", "gold"}}));
}

}  // namespace
}  // namespace velmora

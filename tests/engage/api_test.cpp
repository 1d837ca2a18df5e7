// The public classes on the process-wide runtime: each case runs in a process of its own.
#include "core/runtime.h"
#include "core/settings_store.h"
#include "engage_support.h"
#include "lifecycle/lifecycle.h"
#include "support/test_support.h"

#include <velmora/Velmora.h>

#include <gtest/gtest.h>

namespace velmora {
namespace {

using test::AudienceServer;
using test::LogCapture;
using test::TempDir;
using test::WaitUntil;

class PublicApi : public ::testing::Test {
protected:
    void Start(const std::string& config) {
        package.Write("VelmoraConfig.json", config);
        package.Write("AppxManifest.xml",
                      R"(<?xml version="1.0"?><Package><Identity Name="Demo" Version="2.0.0.0"/>)"
                      R"(<Properties><DisplayName>Demo</DisplayName></Properties></Package>)");
        Velmora::HostOptions options;
        options.packageDirectory = package.path();
        options.localDirectory = local.path();
        options.logSink = log.Sink();
        options.deviceManufacturer = "Acme";
        options.deviceModel = "Phone 1";
        ASSERT_TRUE(Velmora::Host::Configure(options));
        Velmora::Config::SetDebugLogging(true);
    }
    std::string AnalyticsConfig(const std::string& extra = "") const {
        return R"({"analytics":{"rsids":"rs","server":")" + collector.Host() + R"(")" + extra + "}}";
    }
    void Flush() { ASSERT_TRUE(Velmora::Host::Flush(std::chrono::seconds(20))); }
    // The hits that reached the collector.
    std::vector<std::string> Hits() const {
        std::vector<std::string> hits;
        for (const auto& target : collector.Targets()) {
            if (target.rfind("/b/ss/rs/0/WINU-4.0.0/", 0) == 0) hits.push_back(target);
        }
        return hits;
    }
    void TearDown() override { Velmora::Host::Flush(std::chrono::seconds(20)); }

    AudienceServer collector;
    TempDir package;
    TempDir local;
    LogCapture log;
};

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST_F(PublicApi, TimedActionEndsInAnActionHit) {
    collector.AnswerOthers(200);
    Start(AnalyticsConfig());
    Velmora::Analytics::TrackTimedActionStart("checkout", {{"step", std::int32_t{2}}});
    Flush();
    EXPECT_TRUE(Velmora::Analytics::TrackingTimedActionExistsAsync("checkout").get());
    EXPECT_TRUE(Has(local.Read("VelmoraTimedActions.json"), R"("name":"checkout")"));
    Velmora::Analytics::TrackTimedActionUpdate("checkout", {{"total", 9.5}});
    Velmora::Analytics::TrackTimedActionEnd("checkout");
    Flush();
    EXPECT_FALSE(Velmora::Analytics::TrackingTimedActionExistsAsync("checkout").get());
    ASSERT_TRUE(WaitUntil([&] { return Hits().size() == 1; }));
    const std::string hit = Hits()[0];
    EXPECT_TRUE(Has(hit, "pev2=AMACTION%3Acheckout")) << hit;
    EXPECT_TRUE(Has(hit, "step=2")) << hit;
    EXPECT_TRUE(Has(hit, "total=9.5")) << hit;
    EXPECT_TRUE(Has(hit, "timetotal=")) << hit;
    EXPECT_TRUE(Has(hit, "timeinapp=")) << hit;
}

TEST_F(PublicApi, LifecycleStartSendsTheLifecycleHitAndPauseIsStored) {
    collector.AnswerOthers(200);
    Start(AnalyticsConfig());
    Velmora::Config::CollectLifecycleData();
    Flush();
    ASSERT_TRUE(WaitUntil([&] { return Hits().size() == 1; }));
    const std::string hit = Hits()[0];
    EXPECT_TRUE(Has(hit, "pev2=VLMINTERNAL%3ALifecycle")) << hit;
    EXPECT_TRUE(Has(hit, "InstallEvent=InstallEvent")) << hit;
    EXPECT_TRUE(Has(hit, "Launches=1")) << hit;
    EXPECT_EQ(Runtime::Process().Get<Lifecycle>().GetLifecycleContextData().at("a.AppID"), "Demo 2.0.0 (0)");

    Velmora::Config::PauseCollectingLifecycleData();
    Flush();
    auto& settings = Runtime::Process().Settings();
    EXPECT_EQ(LookupBool(settings, kSuccessfulCloseKey), true);
    EXPECT_TRUE(settings.HasKey(kPauseDateKey));
    Velmora::Config::CollectLifecycleData();  // back within the timeout: the session resumes
    Flush();
    EXPECT_EQ(LookupBool(settings, kSuccessfulCloseKey), false);
    EXPECT_FALSE(settings.HasKey(kPauseDateKey));
    EXPECT_EQ(Hits().size(), 1u);
}

TEST_F(PublicApi, LifetimeValueAccumulatesAndIsSent) {
    collector.AnswerOthers(200);
    Start(AnalyticsConfig());
    EXPECT_EQ(Velmora::Config::GetLifetimeValue(), 0.0);
    Velmora::Analytics::TrackLifetimeValueIncrease(12.5f, {{"shop", std::string("main")}});
    Velmora::Analytics::TrackLifetimeValueIncrease(-1.0f);
    Flush();
    EXPECT_EQ(Velmora::Config::GetLifetimeValue(), 12.5);
    EXPECT_TRUE(log.Contains("Velmora Warning:Analytics - TrackLifetimeValueIncrease failed.  Amount must be "
                             "positive, invalid amount specified '-1.00'"));
    ASSERT_TRUE(WaitUntil([&] { return Hits().size() == 1; }));
    EXPECT_TRUE(Has(Hits()[0], "pev2=VLMINTERNAL%3ALifetimeValueIncrease")) << Hits()[0];
    EXPECT_TRUE(Has(Hits()[0], "amount=12.50")) << Hits()[0];
    EXPECT_TRUE(Has(Hits()[0], "shop=main")) << Hits()[0];
}

TEST_F(PublicApi, WithoutAnalyticsEveryTrackingCallIsRefusedButTheLookupAnswers) {
    Start(R"({"cohorta":{"server":"127.0.0.1:1"}})");
    Velmora::Analytics::TrackTimedActionStart("a");
    Velmora::Analytics::TrackTimedActionUpdate("a", {{"k", std::string("v")}});
    Velmora::Analytics::TrackTimedActionEnd("a");
    Velmora::Analytics::TrackLifetimeValueIncrease(3.0f);
    Flush();
    EXPECT_FALSE(Velmora::Analytics::TrackingTimedActionExistsAsync("a").get());
    EXPECT_EQ(log.Count("Velmora Warning:Analytics - Your config file is not set up to use Analytics"), 4u);
    EXPECT_EQ(Velmora::Config::GetLifetimeValue(), 0.0);
}

TEST_F(PublicApi, OptedOutCallsAreDroppedWithADebugLine) {
    Start(AnalyticsConfig());
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::OptOut);
    Velmora::Analytics::TrackLifetimeValueIncrease(3.0f);
    Velmora::Analytics::TrackTimedActionStart("a");
    Flush();
    EXPECT_EQ(log.Count("Velmora Debug:Analytics - Ignoring hit due to privacy status being opted out"), 2u);
    EXPECT_EQ(Velmora::Config::GetLifetimeValue(), 0.0);
    EXPECT_FALSE(Velmora::Analytics::TrackingTimedActionExistsAsync("a").get());
}

TEST_F(PublicApi, CohortaSignalsTranslateTheTraitsAndKeepTheProfile) {
    AudienceServer audience;
    audience.Answer("/event", R"({"uuid":"U9","stuff":[{"cn":"seg","cv":"gold"}]})");
    Start(R"({"cohorta":{"server":")" + audience.Host() + R"("}})");
    EXPECT_EQ(Velmora::Cohorta::GetVisitorProfile(), std::nullopt);
    Velmora::Cohorta::SetDpidAndDpuuid("P", "Q");
    const Velmora::ObjectMap traits{{"a.b", std::int32_t{1}}, {"flag", true}, {"none", nullptr}};
    EXPECT_EQ(Velmora::Cohorta::SubmitSignal(traits).get(), (Velmora::StringMap{{"seg", "gold"}}));
    EXPECT_EQ(Velmora::Cohorta::GetDpid(), "P");
    EXPECT_EQ(Velmora::Cohorta::GetDpuuid(), "Q");
    ASSERT_EQ(audience.Targets().size(), 1u);
    EXPECT_EQ(audience.Targets()[0], "/event?c_a_b=1&c_flag=true&d_dpid=P&d_dpuuid=Q&d_ptfm=win8&d_dst=1&d_rtbd=json");
    EXPECT_EQ(Velmora::Cohorta::GetVisitorProfile(), (Velmora::StringMap{{"seg", "gold"}}));
}

}  // namespace
}  // namespace velmora

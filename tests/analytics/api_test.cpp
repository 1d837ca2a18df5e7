// The public operations, through the process-wide runtime: each case runs in a process of its own.
#include "fixture.h"

#include <velmora/Velmora.h>

#include <cstdlib>

namespace velmora::test {
namespace {

class PublicAnalytics : public ::testing::Test {
protected:
    void Configure(const std::string& config) {
        ::setenv("TZ", "EST5", 1);
        tzset();
        package_.Write("VelmoraConfig.json", config);
        package_.Write("AppxManifest.xml", kManifest);
        Velmora::HostOptions options;
        options.packageDirectory = package_.path();
        options.localDirectory = local_.path();
        options.deviceManufacturer = "Acme";
        options.deviceModel = "Phone1";
        options.windowSize = [] { return std::optional<std::pair<double, double>>({480.0, 800.0}); };
        options.logSink = log_.Sink();
        ASSERT_TRUE(Velmora::Host::Configure(options));
        Runtime::Process().Settings().Insert(kAidKey, std::string(kAid));
        Velmora::Config::SetDebugLogging(true);
    }

    Collector collector_;
    TempDir package_, local_;
    LogCapture log_;
};

TEST_F(PublicAnalytics, StatesAndActionsReachTheServerWithTranslatedValues) {
    Configure(AnalyticsConfig(collector_.Server(), false, 0));
    Velmora::Analytics::TrackState("Home", {{"count", std::int32_t{3}},
                                            {"ratio", 1.5},
                                            {"flag", true},
                                            {"name", std::string("x y")},
                                            {"big", std::uint64_t{18446744073709551615ull}},
                                            {"when", Velmora::DateTime{}},
                                            {"none", nullptr}});
    Velmora::Analytics::TrackAction("Buy");
    ASSERT_TRUE(collector_.WaitForCount(2));
    EXPECT_TRUE(Velmora::Host::Flush(std::chrono::seconds(10)));
    const std::string head = std::string(kHitPath);
    EXPECT_EQ(collector_.Targets(),
              (std::vector<std::string>{
                  head + "s1949254?AQB=1&ndh=1&aid=" + kAid + "&ce=UTF-8&pageName=Home" + kZone + "&c." + kDevicePart +
                      "&big=18446744073709551615&count=3&flag=true&name=x%20y&ratio=1.5&.c&AQE=1",
                  head + "s3442559?AQB=1&ndh=1&aid=" + kAid +
                      "&ce=UTF-8&pageName=Demo%201.2.4%20%283%29&pe=lnk_o&pev2=AMACTION%3ABuy" + kZone + "&c." +
                      kDevicePart + "&aaction=Buy&.c&AQE=1"}));
}

TEST_F(PublicAnalytics, QueueSizeCountsEveryEarlierCallAndClearQueueEmptiesTheFile) {
    Configure(AnalyticsConfig(collector_.Server(), true, 10));
    for (int i = 0; i < 3; ++i) Velmora::Analytics::TrackState("S" + std::to_string(i));
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 3u);
    EXPECT_EQ(collector_.Count(), 0u);
    Velmora::Analytics::ClearQueue();
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 0u);
    EXPECT_EQ(local_.Read(HitQueue::kFileName), R"({"Hits":[]})");
}

TEST_F(PublicAnalytics, QueueSizeCanBeAskedFromTheLibrarysOwnQueues) {
    Configure(AnalyticsConfig(collector_.Server(), true, 10));
    Velmora::Analytics::TrackState("S");
    auto& runtime = Runtime::Process();
    auto fromGeneral = runtime.GeneralQueue().Submit([] { return Velmora::Analytics::GetQueueSize(); });
    ASSERT_EQ(fromGeneral.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    auto fromAnalytics =
        runtime.Get<AnalyticsTracker>().Queue().Submit([] { return Velmora::Analytics::GetQueueSize(); });
    ASSERT_EQ(fromAnalytics.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(fromAnalytics.get(), 1u);
}

TEST_F(PublicAnalytics, WithoutAnalyticsSetUpNothingIsQueuedButTheIdentifierAnswers) {
    Configure(R"({"analytics":{"rsids":"rs1","server":""}})");
    Velmora::Analytics::TrackState("S");
    Velmora::Analytics::TrackAction("A");
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 0u);
    EXPECT_EQ(log_.Count("Velmora Warning:Analytics - Your config file is not set up to use Analytics"), 2u);
    auto identifier = Velmora::Analytics::GetTrackingIdentifierAsync();
    ASSERT_EQ(identifier.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(identifier.get(), kAid);
}

TEST_F(PublicAnalytics, OptingOutDropsCallsAndEmptiesHitsOfAnEarlierRun) {
    local_.Write(HitQueue::kFileName, R"({"Hits":[{"T":1400000000,"H":"s1?AQB=1&ndh=1&pageName=Old&AQE=1"}]})");
    Configure(AnalyticsConfig(collector_.Server(), true, 10));
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::OptOut);
    EXPECT_EQ(Velmora::Config::GetPrivacyStatusAsync().get(), Velmora::VelmoraPrivacyStatus::OptOut);
    EXPECT_TRUE(Velmora::Host::Flush(std::chrono::seconds(10)));  // before any analytics call
    EXPECT_EQ(local_.Read(HitQueue::kFileName), R"({"Hits":[]})");
    Velmora::Analytics::TrackAction("A");
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 0u);
    EXPECT_TRUE(log_.Contains("Velmora Debug:Analytics - Ignoring hit due to privacy status being opted out"));
    EXPECT_EQ(local_.Read(HitQueue::kFileName), R"({"Hits":[]})");
    EXPECT_EQ(collector_.Count(), 0u);
}

}  // namespace
}  // namespace velmora::test

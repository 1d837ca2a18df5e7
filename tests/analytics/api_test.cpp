// The public operations, through the process-wide runtime: each case runs in a process of its own.
#include "analytics_test.h"

#include <velmora/Velmora.h>

#include <gmock/gmock.h>

#include <cstdlib>

namespace velmora::test {
namespace {

constexpr const char* kAid = "0123456789ABCDEF-0123456789ABCDEF";

class PublicAnalytics : public ::testing::Test {
protected:
    void Configure(const std::string& config) {
        ::setenv("TZ", "EST5EDT", 1);  // the hits carry the standard offset all year
        package_.Write("VelmoraConfig.json", config);
        package_.Write("AppxManifest.xml", R"(<Package><Identity Version="1.2.3.4"/><Properties>
            <DisplayName>Demo</DisplayName></Properties></Package>)");
        Velmora::HostOptions options;
        options.packageDirectory = package_.path();
        options.localDirectory = local_.path();
        options.deviceManufacturer = "Acme";
        options.deviceModel = "Phone1";
        options.logSink = log_.Sink();
        options.internetAvailable = [] { return true; };  // the server is on this machine
        ASSERT_TRUE(Velmora::Host::Configure(options));
        Runtime::Process().Settings().Insert(kAidKey, std::string(kAid));
    }

    LoopbackServer server_;
    TempDir package_, local_;
    LogCapture log_;
};

TEST_F(PublicAnalytics, StatesAndActionsBecomeExactHitsInCallOrder) {
    Configure(AnalyticsConfig(server_.Address(), false, 0));
    Velmora::Analytics::TrackState(
        "Home Page", {{"my key!", std::string("v 1")}, {"a.b", std::string("x")}, {"ab", std::string("loses")},
                      {"..caf\xC3\xA9-b/r?c=d&e..", std::string("y")}, {"&&pe", std::string("m_s")},
                      {"&&pageName", std::string("Moved")}, {"&&", std::string("gone")}, {"empty", std::string()},
                      {"count", std::int32_t{3}}, {"ratio", 1.5}, {"flag", true}, {"when", Velmora::DateTime{}},
                      {"none", nullptr}});
    Velmora::Analytics::TrackAction("Buy/Now\xC3", {{"a.OSVersion", std::string("mine")}, {"a.action", std::string("me")}});
    Velmora::Analytics::TrackAction("Go", {});
    ASSERT_TRUE(server_.WaitForRequests(3));
    EXPECT_TRUE(Velmora::Host::Flush(kWait));
    const std::string aid = std::string("?AQB=1&ndh=1&aid=") + kAid + "&ce=UTF-8&pageName=";
    const std::string app = "Demo%201.2.4%20%283%29", zone = "&t=00%2F00%2F0000%2000%3A00%3A00%200%20300";
    const std::string device = "&c.&aAppID=" + app + "&aDeviceName=Acme%20Phone1&aOSVersion=";
    const std::vector<std::string> targets = server_.Targets();
    ASSERT_EQ(targets.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(targets.begin(), targets.begin() + 2),
              (std::vector<std::string>{
                  kHitPath + ("s1949254" + aid) + "Moved&pe=m_s" + zone + device + "Windows%20Phone%208.1" +
                      "&aResolution=Unknown&ab=x&cafbrcde=y&count=3&flag=true&mykey=v%201&ratio=1.5&.c&AQE=1",
                  kHitPath + ("s3442559" + aid) + app + "&pe=lnk_o&pev2=AMACTION%3ABuy%2FNow%EF%BF%BD" + zone + device +
                      "mine&aResolution=Unknown&aaction=me&.c&AQE=1"}));
    EXPECT_THAT(targets[2], ::testing::EndsWith("&pe=lnk_o&pev2=AMACTION%3AGo" + zone + device +
                                                "Windows%20Phone%208.1&aResolution=Unknown&aaction=Go&.c&AQE=1"));
}

TEST_F(PublicAnalytics, OptOutEmptiesAnEarlierRunsQueueAndQueueSizeCountsEveryEarlierCall) {
    local_.Write(HitQueue::kFileName, R"({"Hits":[{"T":1400000000,"H":"s1?AQB=1&ndh=1&pageName=Old&AQE=1"}]})");
    Configure(AnalyticsConfig(server_.Address(), true, 10));
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::OptOut);  // before any analytics call
    EXPECT_TRUE(Velmora::Host::Flush(kWait));
    EXPECT_EQ(local_.Read(HitQueue::kFileName), R"({"Hits":[]})");
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::Unknown);
    for (int i = 0; i < 3; ++i) Velmora::Analytics::TrackState("S" + std::to_string(i));
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 3u);
    // Asked on the library's own queues, it must not wait for itself.
    auto& runtime = Runtime::Process();
    auto general = runtime.GeneralQueue().Submit([] { return Velmora::Analytics::GetQueueSize(); });
    ASSERT_EQ(general.wait_for(kWait), std::future_status::ready);
    auto analytics = runtime.Tracker().Queue().Submit([] { return Velmora::Analytics::GetQueueSize(); });
    ASSERT_EQ(analytics.wait_for(kWait), std::future_status::ready);
    EXPECT_EQ(analytics.get(), 3u);
    EXPECT_EQ(Velmora::Analytics::GetTrackingIdentifierAsync().get(), kAid);
    Velmora::Analytics::ClearQueue();
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 0u);
    EXPECT_EQ(local_.Read(HitQueue::kFileName), R"({"Hits":[]})");
    EXPECT_EQ(server_.Count(), 0u);
}

}  // namespace
}  // namespace velmora::test

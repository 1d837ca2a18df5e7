#include "fixture.h"

#include <map>
#include <thread>

namespace velmora::test {
namespace {

using TrackerTest = AnalyticsTest;

std::string Hit(const std::string& rest) { return std::string(kHitPath) + rest; }

TEST_F(TrackerTest, StatesAndActionsBecomeExactHitsInCallOrder) {
    Start(AnalyticsConfig(collector_.Server(), false, 0));
    tracker().GatedTrackState("Home Page", {{"my key!", "v 1"}, {"a.b", "x"}, {"ab", "loses"}, {"&&pe", "m_s"}});
    tracker().GatedTrackAction("Buy", {{"price", "9.99"}, {"a.OSVersion", "mine"}});
    QueueSize();  // the gated calls take a detour through the general queue
    tracker().TrackInternalAction("", {}, 0);
    tracker().GatedTrackState("", {{"&&pageName", "Moved"}, {"&&", "kept"}});
    QueueSize();
    tracker().TrackAction("Tap/Hold", {{"a.action", "caller"}});
    ASSERT_TRUE(collector_.WaitForCount(5));

    const std::string appId = "Demo%201.2.4%20%283%29";
    const std::string device = kDevicePart;
    const std::string deviceWithMine =
        "&aAppID=" + appId + "&aDeviceName=Acme%20Phone1&aOSVersion=mine&aResolution=480x800";
    const std::vector<std::string> expected = {
        Hit("s1949254?AQB=1&ndh=1&aid=" + std::string(kAid) + "&ce=UTF-8&pageName=Home%20Page&pe=m_s" + kZone +
            "&c." + device + "&ab=x&mykey=v%201&.c&AQE=1"),
        Hit("s3442559?AQB=1&ndh=1&aid=" + std::string(kAid) + "&ce=UTF-8&pageName=" + appId +
            "&pe=lnk_o&pev2=AMACTION%3ABuy" + kZone + "&c." + deviceWithMine + "&aaction=Buy&price=9.99&.c&AQE=1"),
        Hit("s734801?AQB=1&ndh=1&aid=" + std::string(kAid) + "&ce=UTF-8&pageName=" + appId +
            "&pe=lnk_o&pev2=VLMINTERNAL%3ANone" + kZone + "&c." + device + "&ainternalaction=None&.c&AQE=1"),
        Hit("s9968179?AQB=1&ndh=1&aid=" + std::string(kAid) + "&ce=UTF-8&pageName=Moved" + kZone + "&c." + device +
            "&.c&AQE=1"),
        Hit("s2969565?AQB=1&ndh=1&aid=" + std::string(kAid) + "&ce=UTF-8&pageName=" + appId +
            "&pe=lnk_o&pev2=AMACTION%3ATap%2FHold" + kZone + "&c." + device + "&aaction=caller&.c&AQE=1"),
    };
    EXPECT_EQ(collector_.Targets(), expected);
}

TEST_F(TrackerTest, OfflineHitsCarryTheirTimestampAndAVisitorId) {
    Start(AnalyticsConfig(collector_.Server(), true, 0));
    runtime().Get<DeviceContext>().SetVisitorId("visitor 7");
    tracker().GatedTrackState("S", {});
    QueueSize();
    tracker().TrackInternalAction("Launch", {}, 1234);
    ASSERT_TRUE(collector_.WaitForCount(2));
    const auto targets = collector_.Targets();
    EXPECT_EQ(Variable(targets[0], "ts"), "1400000000");
    EXPECT_EQ(Variable(targets[0], "vid"), "visitor%207");
    // An internal action keeps the moment it names; the sender moves it after the one before.
    EXPECT_EQ(Variable(targets[1], "ts"), "1400000001");
    EXPECT_EQ(Variable(targets[1], "pev2"), "VLMINTERNAL%3ALaunch");
}

TEST_F(TrackerTest, GatesDropCallsWithTheirLogLines) {
    struct Case {
        const char* name;
        std::string config;
        std::string line;
    };
    const std::vector<Case> cases = {
        {"no report suites", R"({"analytics":{"rsids":"","server":"127.0.0.1:1"}})",
         "Velmora Warning:Analytics - Your config file is not set up to use Analytics"},
        {"no server", R"({"analytics":{"rsids":"rs1"}})",
         "Velmora Warning:Analytics - Your config file is not set up to use Analytics"},
        {"opted out", AnalyticsConfig(collector_.Server(), true, 0, "optedout"),
         "Velmora Debug:Analytics - Ignoring hit due to privacy status being opted out"},
    };
    for (const auto& c : cases) {
        Start(c.config);
        tracker().GatedTrackState("S", {});
        tracker().GatedTrackAction("A", {});
        EXPECT_EQ(QueueSize(), 0u) << c.name;
        EXPECT_EQ(log().Count(c.line), 2u) << c.name;
        env_.reset();
    }
    EXPECT_EQ(collector_.Count(), 0u);
}

TEST_F(TrackerTest, OptingBackInLetsLaterCallsThrough) {
    Start(AnalyticsConfig(collector_.Server(), true, 0, "optedout"));
    tracker().GatedTrackState("dropped", {});
    SetPrivacy(kPrivacyOptIn);
    tracker().GatedTrackState("sent", {});
    ASSERT_TRUE(collector_.WaitForCount(1));
    EXPECT_TRUE(hits().Flush(std::chrono::seconds(10)));
    ASSERT_EQ(collector_.Count(), 1u);
    EXPECT_EQ(Variable(collector_.Targets()[0], "pageName"), "sent");
}

TEST_F(TrackerTest, CallsFromSeveralThreadsKeepEachThreadsOrder) {
    Start(AnalyticsConfig(collector_.Server(), true, 0, "optunknown"));
    constexpr int kThreads = 4, kPerThread = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < kPerThread; ++i) {
                const std::string name = std::to_string(t) + "-" + std::to_string(i);
                if (i % 2 == 0) {
                    tracker().GatedTrackState(name, {});
                } else {
                    tracker().GatedTrackAction(name, {});
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_EQ(QueueSize(), static_cast<std::size_t>(kThreads * kPerThread));  // held by the unknown status
    ASSERT_EQ(FileHits().size(), static_cast<std::size_t>(kThreads * kPerThread));
    std::map<int, int> next;
    for (const auto& hit : FileHits()) {
        std::string name = Variable(hit.hit, "pev2");
        name = name.empty() ? Variable(hit.hit, "pageName") : name.substr(std::string("AMACTION%3A").size());
        const int thread = std::stoi(name.substr(0, name.find('-')));
        const int index = std::stoi(name.substr(name.find('-') + 1));
        EXPECT_EQ(index, next[thread]++) << name;
    }
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kPerThread);
}

}  // namespace
}  // namespace velmora::test

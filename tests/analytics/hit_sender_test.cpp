#include "analytics/hit_sender.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <deque>
#include <mutex>

namespace velmora::test {
namespace {

constexpr int kTransportFailure = -1, kRefusedUrl = -2;
constexpr std::int32_t kNow = 1'400'000'000;  // the manual clock's start
const std::string kBase = "http://collect.test/b/ss/rs/0/WINU-4.0.0/";

// Answers with the statuses or failures given in turn, then 200; records every URL.
class FakeTransport : public Transport {
public:
    std::int32_t Get(const std::string& url, const Headers&, std::int32_t) override {
        std::lock_guard lock(mutex_);
        urls_.push_back(url);
        const int answer = answers.empty() ? 200 : answers.front();
        if (!answers.empty()) answers.pop_front();
        if (answer == kTransportFailure) throw TransportError(0x80072EFF, "connection reset");
        if (answer == kRefusedUrl) throw TransportError(0x80072EE5, "malformed URL", true);
        return answer;
    }
    std::vector<std::string> Urls() const {
        std::lock_guard lock(mutex_);
        return urls_;
    }
    std::deque<int> answers;  // set while the sender is idle
private:
    mutable std::mutex mutex_;
    std::vector<std::string> urls_;
};

class HitSenderTest : public ::testing::Test {
protected:
    HitSenderTest() : log(capture.Sink()) {
        log.SetDebugEnabled(true);
        config.rsids = "rs";
        config.server = "collect.test";
        config.privacyStatus = kPrivacyOptIn;
        host.languageTag = "en-US";
        host.internetAvailable = [this] { return online.load(); };
    }
    std::unique_ptr<HitSender> MakeSender(Transport& transport) {
        return std::make_unique<HitSender>(log, clock, config, host, store, transport, [] { return "Agent/1"; },
                                           [this] { ++restarts; });
    }
    // Queues the hits and lets one run send what it can.
    void SendAll(const std::vector<std::pair<std::string, std::int32_t>>& hits) {
        for (const auto& [hit, timestamp] : hits) store.Append(hit, timestamp);
        sender->Start();
        ASSERT_TRUE(sender->WaitUntilResting(std::chrono::steady_clock::now() + std::chrono::seconds(10)));
    }

    TempDir dir;
    LogCapture capture;
    Logger log;
    ManualClock clock;
    ConfigSettings config;
    HostOptions host;
    std::atomic<bool> online{true};
    std::atomic<int> restarts{0};
    FileStore files{dir.path()};
    HitStore store{log, files};
    FakeTransport transport;
    std::unique_ptr<HitSender> sender = MakeSender(transport);
};

TEST_F(HitSenderTest, EachAnswerIsDeliveredRetriedOrDroppedByTheRules) {
    using Outcome = HitSender::Outcome;
    const std::string line = "Velmora Debug:Analytics - ", sending = line + "Sending hit (" + kBase + "s1?ts=1)";
    const std::string recover = line + "Unable to send hit, attempting to recover";
    const std::string invalid = line + "Invalid hit (removed)";
    auto cooldown = [&line](int status) {
        return line + "Recoverable network error (" + std::to_string(status) +
               "), imposing internal cooldown (30 seconds)";
    };
    struct Case {
        int answer;
        bool offline;
        Outcome outcome;
        std::string lastLine;
        std::string hit = "s1?ts=1";
    };
    for (const Case& c : std::vector<Case>{
             {200, true, Outcome::kDelivered, sending},
             {307, false, Outcome::kDelivered, sending},
             {500, true, Outcome::kRetryLater, cooldown(500)},
             {408, true, Outcome::kRetryLater, cooldown(408)},
             {404, false, Outcome::kDrop, sending},
             {kTransportFailure, false, Outcome::kRetryLater, recover},
             {kTransportFailure, true, Outcome::kRetryLater, recover},
             {kRefusedUrl, true, Outcome::kDrop, invalid},
             {200, true, Outcome::kDrop, invalid, std::string(HitSender::kMaxUrlBytes, 'x')},  // never sent
         }) {
        config.offlineEnabled = c.offline;
        transport.answers = {c.answer};
        EXPECT_EQ(sender->Attempt(QueuedHit{c.hit, 1, nullptr, 0}), c.outcome) << c.answer << " " << c.offline;
        EXPECT_EQ(capture.Lines().back(), c.lastLine) << c.answer << " " << c.offline;
    }
}

TEST_F(HitSenderTest, WithOfflineTrackingATimestampBehindTheLastSentOneIsMovedJustAfterIt) {
    config.offlineEnabled = true;
    SendAll({{"s1?a=1&ts=100", 100}, {"s2?a=1&ts=100", 100}, {"s3?a=1&ts=99&b=&ts=99", 99}});
    EXPECT_EQ(transport.Urls(), (std::vector<std::string>{kBase + "s1?a=1&ts=100", kBase + "s2?a=1&ts=100",
                                                          kBase + "s3?a=1&ts=101&b=&ts=99"}));
    EXPECT_EQ(capture.Count("Velmora Debug:Analytics - Adjusting out of order hit timestamp(99->101)"), 1u);
}

TEST_F(HitSenderTest, WithoutOfflineTrackingAHitMoreThanFiveSecondsOldIsDroppedUnsent) {
    SendAll({{"old", kNow - 6}, {"recent", kNow - 5}});
    EXPECT_EQ(transport.Urls(), std::vector<std::string>{kBase + "recent"});
    EXPECT_EQ(dir.Read(HitStore::kFileName), R"({"Hits":[]})");
}

TEST_F(HitSenderTest, ARetriedHitWaitsInTheFileThroughTheCooldownAndIsSentAgainAfterIt) {
    config.offlineEnabled = true;
    transport.answers = {500};
    store.Append("s1", kNow);
    sender->Start();
    ASSERT_TRUE(clock.AwaitSleepers(1));
    EXPECT_EQ(dir.Read(HitStore::kFileName), R"({"Hits":[{"T":1400000000,"H":"s1"}]})");
    clock.Advance(std::chrono::seconds(29));
    EXPECT_EQ(transport.Urls().size(), 1u);  // 29 seconds in, still cooling down
    ASSERT_TRUE(WaitUntil([&] {
        clock.Advance(std::chrono::seconds(1));
        return transport.Urls().size() == 2;
    }));
}

TEST_F(HitSenderTest, ShutdownCutsACooldownShortAndKeepsTheHit) {
    transport.answers = {kTransportFailure};
    store.Append("s1", kNow);
    sender->Start();
    ASSERT_TRUE(clock.AwaitSleepers(1));
    sender->BeginShutdown();
    EXPECT_TRUE(sender->WaitUntilIdle(std::chrono::steady_clock::now() + std::chrono::seconds(10)));
    EXPECT_EQ(store.Size(), 1u);
}

TEST_F(HitSenderTest, WithoutAConnectionNothingIsSentUntilTheWatchSeesItBack) {
    online = false;
    SendAll({{"s1", kNow}});
    EXPECT_TRUE(transport.Urls().empty());
    online = true;
    clock.Advance(HitSender::kConnectionCheckInterval);
    EXPECT_TRUE(WaitUntil([&] { return restarts.load() == 1; }));
}

TEST_F(HitSenderTest, OverRealHttpAHitArrivesWithItsHeaders) {
    LoopbackServer server;
    HttpClient http(log, {});
    config.server = server.Address();
    sender = MakeSender(http);
    SendAll({{"s1?AQB=1&ndh=1&pageName=P&AQE=1", kNow}});
    ASSERT_TRUE(server.WaitForRequests(1));
    EXPECT_EQ(server.Requests()[0].target, "/b/ss/rs/0/WINU-4.0.0/s1?AQB=1&ndh=1&pageName=P&AQE=1");
    EXPECT_EQ(server.Requests()[0].Header("User-Agent"), "Agent/1");
    EXPECT_EQ(server.Requests()[0].Header("Accept-Language"), "en-US");
}

}  // namespace
}  // namespace velmora::test

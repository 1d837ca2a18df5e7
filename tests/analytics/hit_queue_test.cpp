#include "fixture.h"

#include <algorithm>
#include <future>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velmora::test {
namespace {

using HitQueueTest = AnalyticsTest;

std::vector<std::string> PageNames(const std::vector<std::string>& hits) {
    std::vector<std::string> names;
    for (const auto& hit : hits) names.push_back(Variable(hit, "pageName"));
    return names;
}

std::vector<std::string> Names(int count) {
    std::vector<std::string> names;
    for (int i = 1; i <= count; ++i) names.push_back("S" + std::to_string(i));
    return names;
}

TEST_F(HitQueueTest, FiveHitsWaitAndTheSixthSendsAllSixInOrder) {
    Start(AnalyticsConfig(collector_.Server(), true, 5));
    for (const auto& name : Names(5)) tracker().GatedTrackState(name, {});
    EXPECT_EQ(QueueSize(), 5u);
    EXPECT_FALSE(hits().Flush(std::chrono::seconds(10)));  // idle, with hits left
    EXPECT_EQ(collector_.Count(), 0u);
    EXPECT_EQ(FileHits().size(), 5u);

    tracker().GatedTrackState("S6", {});
    ASSERT_TRUE(collector_.WaitForCount(6));
    EXPECT_TRUE(hits().Flush(std::chrono::seconds(10)));
    EXPECT_EQ(PageNames(collector_.Targets()), Names(6));
    EXPECT_EQ(FileText(), R"({"Hits":[]})");
}

TEST_F(HitQueueTest, OutOfOrderTimestampsAreMovedAfterTheLastSentOne) {
    Start(AnalyticsConfig(collector_.Server(), true, 2));
    for (std::int32_t timestamp : {100, 100, 99}) tracker().TrackInternalAction("T", {}, timestamp);
    ASSERT_TRUE(collector_.WaitForCount(3));
    std::vector<std::string> stamps;
    for (const auto& hit : collector_.Targets()) stamps.push_back(Variable(hit, "ts"));
    EXPECT_EQ(stamps, (std::vector<std::string>{"100", "100", "101"}));
    EXPECT_EQ(log().Count("Velmora Debug:Analytics - Adjusting out of order hit timestamp(99->101)"), 1u);
    EXPECT_EQ(log().Count("Velmora Debug:Analytics - Sending hit (http://" + collector_.Server() +
                          collector_.Targets()[2] + ")"),
              1u);
}

TEST_F(HitQueueTest, AServerErrorPutsTheHitBackForThirtyOneSecondWaits) {
    Start(AnalyticsConfig(collector_.Server(), true, 0));
    collector_.Script({500});
    tracker().GatedTrackState("First", {});
    ASSERT_TRUE(collector_.WaitForCount(1));
    ASSERT_TRUE(manual()->AwaitSleepers(1));
    EXPECT_TRUE(log().Contains(
        "Velmora Debug:Analytics - Recoverable network error (500), imposing internal cooldown (30 seconds)"));
    tracker().GatedTrackState("Second", {});  // queues behind the one that waits
    EXPECT_EQ(QueueSize(), 2u);
    EXPECT_EQ(PageNames({FileHits()[0].hit, FileHits()[1].hit}), (std::vector<std::string>{"First", "Second"}));

    for (int second = 1; second <= HitQueue::kCooldownSeconds; ++second) {
        // The sender sleeps again after each second until the thirtieth: nothing is resent early.
        ASSERT_TRUE(WaitUntil([&] { return clock_->sleeps.load() == second; })) << second;
        ASSERT_TRUE(manual()->AwaitSleepers(1)) << second;
        EXPECT_EQ(collector_.Count(), 1u) << second;
        manual()->Advance(std::chrono::seconds(1));
    }
    ASSERT_TRUE(collector_.WaitForCount(3));
    EXPECT_TRUE(hits().Flush(std::chrono::seconds(10)));
    const auto targets = collector_.Targets();
    EXPECT_EQ(targets[1], targets[0]);
    EXPECT_EQ(PageNames(targets), (std::vector<std::string>{"First", "First", "Second"}));
    EXPECT_EQ(clock_->sleeps.load(), HitQueue::kCooldownSeconds);
}

TEST_F(HitQueueTest, WithoutOfflineTrackingFailedAndStaleHitsAreDropped) {
    struct Case {
        const char* name;
        std::vector<int> script;
        int secondsOffline;  // the first hit waits this long without a connection
        std::vector<std::string> received;
    };
    const std::vector<Case> cases = {
        {"404 drops the hit, the next goes at once", {404}, 0, {"S1", "S2"}},
        {"a hit six seconds old is dropped unsent", {}, 6, {"S2"}},
        {"a hit five seconds old is still sent", {}, 5, {"S1", "S2"}},
    };
    for (const auto& c : cases) {
        Collector collector;
        collector.Script(c.script);
        online_ = c.secondsOffline == 0;
        Start(AnalyticsConfig(collector.Server(), false, 0));
        tracker().GatedTrackState("S1", {});
        if (c.secondsOffline > 0) {
            EXPECT_EQ(QueueSize(), 1u) << c.name;
        }
        manual()->Advance(std::chrono::seconds(c.secondsOffline));
        online_ = true;
        tracker().GatedTrackState("S2", {});
        ASSERT_TRUE(collector.WaitForCount(c.received.size())) << c.name;
        EXPECT_TRUE(hits().Flush(std::chrono::seconds(10))) << c.name;
        EXPECT_EQ(PageNames(collector.Targets()), c.received) << c.name;
        EXPECT_EQ(manual()->Sleepers(), 0u) << c.name;
        EXPECT_FALSE(log().Contains(
            "Velmora Debug:Analytics - Recoverable network error (404), imposing internal cooldown (30 seconds)"));
        env_.reset();
    }
}

// A loopback port that is bound but not listening: connections are refused.
class RefusingPort {
public:
    RefusingPort() {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        socklen_t length = sizeof address;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~RefusingPort() { ::close(fd_); }
    std::string Server() const { return "127.0.0.1:" + std::to_string(port_); }

private:
    int fd_ = -1;
    int port_ = 0;
};

TEST_F(HitQueueTest, ATransportFailureKeepsTheHitEvenWithoutOfflineTrackingAndFlushEndsTheWait) {
    RefusingPort refusing;
    Start(AnalyticsConfig(refusing.Server(), false, 0));
    tracker().GatedTrackState("S1", {});
    ASSERT_TRUE(manual()->AwaitSleepers(1));
    EXPECT_TRUE(log().Contains("Velmora Debug:Analytics - Unable to send hit, attempting to recover"));
    EXPECT_EQ(QueueSize(), 1u);
    // Flush does not wait out the cooldown: the run ends and the hit stays queued and saved.
    EXPECT_FALSE(hits().Flush(std::chrono::seconds(20)));
    EXPECT_EQ(manual()->Sleepers(), 0u);
    ASSERT_EQ(FileHits().size(), 1u);
    EXPECT_EQ(Variable(FileHits()[0].hit, "pageName"), "S1");
}

TEST_F(HitQueueTest, UnknownHoldsOptInSendsOptOutEmptiesQueueAndFile) {
    Start(AnalyticsConfig(collector_.Server(), true, 0, "optunknown"));
    tracker().GatedTrackState("S1", {});
    tracker().GatedTrackState("S2", {});
    EXPECT_EQ(QueueSize(), 2u);
    EXPECT_FALSE(hits().Flush(std::chrono::seconds(10)));
    EXPECT_EQ(collector_.Count(), 0u);
    ASSERT_EQ(FileHits().size(), 2u);
    EXPECT_EQ(Variable(FileHits()[0].hit, "pageName"), "S1");

    SetPrivacy(kPrivacyOptIn);
    ASSERT_TRUE(collector_.WaitForCount(2));
    EXPECT_TRUE(hits().Flush(std::chrono::seconds(10)));
    EXPECT_EQ(PageNames(collector_.Targets()), Names(2));
    for (const auto& hit : collector_.Targets()) EXPECT_NE(hit.find("&aprivacymode=unknown&"), std::string::npos);

    SetPrivacy(kPrivacyUnknown);
    tracker().GatedTrackState("S3", {});
    EXPECT_EQ(QueueSize(), 1u);
    SetPrivacy(kPrivacyOptOut);
    EXPECT_EQ(QueueSize(), 0u);
    EXPECT_EQ(FileText(), R"({"Hits":[]})");
    SetPrivacy(kPrivacyOptIn);
    EXPECT_TRUE(hits().Flush(std::chrono::seconds(10)));
    EXPECT_EQ(collector_.Count(), 2u);
}

TEST_F(HitQueueTest, TheQueueSurvivesANewRuntimeOnTheSameDirectory) {
    online_ = false;
    Start(AnalyticsConfig(collector_.Server(), true, 0));
    for (const auto& name : Names(3)) tracker().GatedTrackState(name, {});
    EXPECT_EQ(QueueSize(), 3u);
    EXPECT_FALSE(hits().Flush(std::chrono::seconds(10)));  // no connection: the sender stops at once
    EXPECT_EQ(collector_.Count(), 0u);
    std::vector<std::string> before;
    for (const auto& hit : FileHits()) before.push_back(kHitPath + hit.hit);

    Restart();
    EXPECT_EQ(QueueSize(), 3u);
    online_ = true;
    tracker().GatedTrackState("S4", {});
    ASSERT_TRUE(collector_.WaitForCount(4));
    EXPECT_TRUE(hits().Flush(std::chrono::seconds(10)));
    const auto targets = collector_.Targets();
    EXPECT_EQ(std::vector<std::string>(targets.begin(), targets.begin() + 3), before);
    EXPECT_EQ(PageNames(targets), Names(4));
}

TEST_F(HitQueueTest, AnUnreadableFileIsLoggedAndWhatCameBeforeTheDamageIsKept) {
    struct Case {
        const char* name;
        std::string text;
        std::size_t kept;
    };
    const std::vector<Case> cases = {
        {"truncated", R"({"Hits":[{"T":1,"H":"s1?AQB=1)", 0},
        {"not json", "Hits: none", 0},
        {"a bad second entry", R"({"Hits":[{"T":1400000000,"H":"s1?AQB=1&ndh=1&pageName=Old&AQE=1"},{"T":"x"}]})", 1},
    };
    for (const auto& c : cases) {
        online_ = false;
        Start(AnalyticsConfig(collector_.Server(), true, 0));
        env_->local.Write(HitQueue::kFileName, c.text);
        EXPECT_EQ(QueueSize(), c.kept) << c.name;
        const auto lines = log().Lines();
        const std::string prefix = "Velmora Error:Analytics - Unable to load queued hits (";
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [&](const std::string& line) {
                                    return line.rfind(prefix, 0) == 0 && line.back() == ')' &&
                                           line.size() > prefix.size() + 1;
                                }),
                  1)
            << c.name;
        tracker().GatedTrackState("New", {});
        EXPECT_EQ(QueueSize(), c.kept + 1) << c.name;
        ASSERT_EQ(FileHits().size(), c.kept + 1) << c.name;  // the next save writes a whole document
        EXPECT_EQ(Variable(FileHits().back().hit, "pageName"), "New");
        env_.reset();
    }
}

// Counts the saves; the first one can be held to let changes pile up, and saves can fail.
class ObservedFiles : public FileStore {
public:
    using FileStore::FileStore;
    void WriteAtomic(const std::string& name, std::string_view text) override {
        const int write = ++writes;
        if (write == 1 && holdFirst.valid()) holdFirst.wait();
        if (write == 2 && holdSecond.valid()) holdSecond.wait();
        if (fail) throw std::runtime_error("No space left on device");
        FileStore::WriteAtomic(name, text);
    }
    std::atomic<int> writes{0};
    std::atomic<bool> fail{false};
    std::shared_future<void> holdFirst, holdSecond;
};

TEST_F(HitQueueTest, EveryHitIsInTheFileBeforeTheServerSeesIt) {
    Start(AnalyticsConfig(collector_.Server(), false, 0));
    ObservedFiles files(env_->local.path());
    // The burst piles up behind the first save; the second save, which would cover the rest of
    // it, is held until the sender has had a chance to get ahead of the file.
    std::promise<void> release, releaseSecond;
    files.holdFirst = release.get_future().share();
    files.holdSecond = releaseSecond.get_future().share();
    std::atomic<int> missing{0};
    collector_.OnRequest([&](const std::string& target) {
        const std::string hit = target.substr(std::string(kHitPath).size());
        if (FileText().find(hit) == std::string::npos) ++missing;
    });
    constexpr int kHits = 60;
    std::vector<std::string> names;
    {
        HitQueue queue(runtime().Log(), runtime().GetClock(), runtime().Config(), files, runtime().Host(),
                       runtime().Get<HttpClient>(), runtime().Get<DeviceContext>());
        for (int i = 0; i < kHits; ++i) {
            names.push_back("P" + std::to_string(i));
            queue.QueueHit("s" + std::to_string(i) + "?AQB=1&ndh=1&pageName=" + names.back() + "&AQE=1",
                           manual()->NowSeconds());
        }
        ASSERT_TRUE(WaitUntil([&] { return files.writes.load() == 1; }));
        release.set_value();
        EXPECT_TRUE(collector_.WaitForCount(1));
        releaseSecond.set_value();
        ASSERT_TRUE(collector_.WaitForCount(kHits));
        EXPECT_TRUE(queue.Flush(std::chrono::seconds(10)));
    }
    EXPECT_EQ(missing.load(), 0);
    EXPECT_EQ(PageNames(collector_.Targets()), names);
    EXPECT_LT(files.writes.load(), kHits);
}

TEST_F(HitQueueTest, ABurstOfChangesSharesSaves) {
    Start(AnalyticsConfig(collector_.Server(), true, 0, "optunknown"));
    ObservedFiles files(env_->local.path());
    std::promise<void> release;
    files.holdFirst = release.get_future().share();
    constexpr int kHits = 500;
    {
        HitQueue queue(runtime().Log(), runtime().GetClock(), runtime().Config(), files, runtime().Host(),
                       runtime().Get<HttpClient>(), runtime().Get<DeviceContext>());
        for (int i = 0; i < kHits; ++i) queue.QueueHit("s" + std::to_string(i) + "?AQB=1&AQE=1", 1400000000 + i);
        ASSERT_TRUE(WaitUntil([&] { return files.writes.load() == 1; }));
        release.set_value();
        EXPECT_EQ(queue.SizeAfterPendingWork().get(), static_cast<std::size_t>(kHits));
    }
    EXPECT_LE(files.writes.load(), 5);
    const auto saved = FileHits();
    ASSERT_EQ(saved.size(), static_cast<std::size_t>(kHits));
    for (int i = 0; i < kHits; ++i) {
        EXPECT_EQ(saved[i].hit, "s" + std::to_string(i) + "?AQB=1&AQE=1");
        EXPECT_EQ(saved[i].timestamp, 1400000000 + i);
    }
}

TEST_F(HitQueueTest, AFailedSaveIsLoggedAndTheHitIsStillSent) {
    Start(AnalyticsConfig(collector_.Server(), false, 0));
    ObservedFiles files(env_->local.path());
    files.fail = true;
    HitQueue queue(runtime().Log(), runtime().GetClock(), runtime().Config(), files, runtime().Host(),
                   runtime().Get<HttpClient>(), runtime().Get<DeviceContext>());
    queue.QueueHit("s1?AQB=1&ndh=1&pageName=Kept&AQE=1", manual()->NowSeconds());
    ASSERT_TRUE(collector_.WaitForCount(1));
    EXPECT_TRUE(queue.Flush(std::chrono::seconds(10)));
    EXPECT_EQ(collector_.Targets()[0], std::string(kHitPath) + "s1?AQB=1&ndh=1&pageName=Kept&AQE=1");
    EXPECT_GE(log().Count("Velmora Error:Analytics - Unable to save hit queue (No space left on device)"), 1u);
}

}  // namespace
}  // namespace velmora::test

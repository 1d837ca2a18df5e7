// Delivery through the hit queue: the counters through a backlog, a retry, deliveries, a refusal and
// a clear, and hits that wait for the connection.
#include "analytics/hit_builder.h"
#include "analytics/hit_queue.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora::test {
namespace {

std::tuple<std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t, std::int32_t> Counts(HitQueue& hits) {
    const auto s = hits.Stats();
    return {s.queued, s.delivered, s.retried, s.dropped, s.waiting, s.lastStatus};
}

TEST(DeliveryStats, EachHitIsCountedWhereItEndsAndTheFilesBacklogIsWaitingOnceLoaded) {
    LoopbackServer server;
    server.Script({500});
    TestRuntime env(R"({"analytics":{"rsids":"rs","server":")" + server.Address() + R"(","offlineEnabled":true,"privacyDefault":"optedin"}})");
    env.local.Write(QueueFile::kFileName, R"({"Hits":[{"T":1,"H":"s1?a=1"},{"T":2,"H":"s2?a=2"}]})");
    HitQueue& hits = env.runtime->GetHitQueue();
    const auto started = std::chrono::system_clock::now();
    EXPECT_FALSE(hits.Flush(std::chrono::seconds(10)));  // the first answer asks for a retry
    EXPECT_EQ(Counts(hits), std::make_tuple(0, 0, 1, 0, 2, 500));
    EXPECT_EQ(hits.Stats().lastError, "Analytics - Recoverable network error (500), imposing internal cooldown (30 seconds)");
    hits.QueueHit("s3?a=3", 3);
    ASSERT_TRUE(WaitUntil([&] { env.clock->Advance(std::chrono::seconds(1)); return hits.Stats().delivered == 3; }));
    EXPECT_EQ(Counts(hits), std::make_tuple(1, 3, 1, 0, 0, 200));
    EXPECT_GE(hits.Stats().lastDelivered, started);
    EXPECT_EQ(server.Count(), 4u);
    env.runtime->SetPrivacyStatus(kPrivacyUnknown);  // nothing leaves while these are counted
    hits.QueueHit("s4?k=" + std::string(HitSender::kMaxUrlBytes, 'x'), 4);
    hits.QueueHit("s5" + std::string(HitSender::kMaxUrlBytes - BaseUrl(env.runtime->GetConfigSettings()).size() - 2, 'x'), 5);
    hits.QueueHit("s6", 6);
    EXPECT_FALSE(hits.Flush(std::chrono::seconds(10)));
    EXPECT_EQ(Counts(hits), std::make_tuple(3, 3, 1, 1, 2, 200));
    EXPECT_EQ(hits.Stats().lastError.rfind("Analytics - Unable to queue hit (the request URL would be ", 0), 0u);
    hits.ClearQueue();
    EXPECT_TRUE(hits.Flush(std::chrono::seconds(10)));
    EXPECT_EQ(Counts(hits), std::make_tuple(3, 3, 1, 3, 0, 200));
}

// Hits queued while the connection is down go out once the watch sees it back, every time, without another call.
TEST(DeliveryStats, HitsQueuedWithoutAConnectionGoOutOnceTheWatchSeesItBack) {
    LoopbackServer server;
    std::atomic<bool> up{false};
    HostOptions options;
    options.internetAvailable = [&up] { return up.load(); };
    TestRuntime env(R"({"analytics":{"rsids":"rs","server":")" + server.Address() + R"(","offlineEnabled":true,"privacyDefault":"optedin"}})", options);
    HitQueue& hits = env.runtime->GetHitQueue();
    for (std::size_t round = 1; round <= 2; ++round) {
        up = false;
        hits.QueueHit("s1?a=1", 1);
        EXPECT_FALSE(hits.Flush(std::chrono::seconds(10)));  // the sender found the connection down
        up = true;
        EXPECT_TRUE(WaitUntil([&] { env.clock->Advance(HitSender::kConnectionCheckInterval); return server.Count() == round; }));
    }
}

}  // namespace
}  // namespace velmora::test

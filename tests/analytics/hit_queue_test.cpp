#include "analytics_test.h"

#include <algorithm>
#include <cstdio>
#include <future>
#include <thread>

namespace velmora::test {
namespace {

using Strings = std::vector<std::string>;

Strings Pages(std::vector<ReceivedHit> hits) {
    Strings pages;
    for (auto& hit : hits) pages.push_back(hit.variables["pageName"]);
    return pages;
}

Strings Names(int count) {  // S1 ... Sn
    Strings names;
    for (int i = 1; i <= count; ++i) names.push_back("S" + std::to_string(i));
    return names;
}

// A runtime on temporary directories with a switchable connection and debug lines on.
class AnalyticsTest : public ::testing::Test {
protected:
    void Start(const std::string& config) {
        options_.internetAvailable = [this] { return online.load(); };
        env = std::make_unique<TestRuntime>(config, options_);
        Restart();
        env->runtime->Settings().Insert(kAidKey, std::string("AID"));  // no identifier request
    }
    void Restart() {  // a new runtime on the same directories, as the next process
        env->runtime.reset();
        env->runtime = std::make_unique<Runtime>(env->Options(options_), env->clock);
        env->runtime->Log().SetDebugEnabled(true);
    }
    AnalyticsTracker& tracker() { return env->runtime->Tracker(); }
    HitQueue& queue() { return env->runtime->Hits(); }
    std::size_t QueueSize() { return tracker().QueueSize(); }  // after every call posted before
    void Track(const Strings& states) {
        for (const auto& state : states) tracker().GatedTrackState(state, {});
    }
    void SetPrivacy(std::int32_t status) {  // as the public setter: after the calls posted before
        env->runtime->GeneralQueue().Submit([this, status] { env->runtime->SetPrivacyStatus(status); }).get();
    }
    std::string File() const { return env->local.Read(HitQueue::kFileName); }
    std::vector<ReceivedHit> FileHits() const {
        std::vector<QueuedHit> saved;
        ParseQueueFile(File(), saved);
        std::vector<ReceivedHit> hits;
        for (const auto& hit : saved) hits.push_back(DecodeHit(kHitPath + hit.hit));
        return hits;
    }

    LoopbackServer server;
    std::atomic<bool> online{true};
    std::unique_ptr<TestRuntime> env;

private:
    HostOptions options_;
};

TEST_F(AnalyticsTest, WithoutReportSuitesOrServerCallsAreDroppedWithAWarning) {
    for (const char* config :
         {R"({"analytics":{"rsids":"","server":"127.0.0.1:1"}})", R"({"analytics":{"rsids":"x"}})"}) {
        Start(config);
        tracker().GatedTrackState("S", {});
        tracker().GatedTrackAction("A", {});
        EXPECT_EQ(QueueSize(), 0u) << config;
        EXPECT_EQ(env->log.Count("Velmora Warning:Analytics - Your config file is not set up to use Analytics"), 2u);
    }
}

TEST_F(AnalyticsTest, CallsFromSeveralThreadsKeepEachThreadsOrder) {
    Start(AnalyticsConfig(server.Address(), true, 0, "optunknown"));  // unknown keeps every hit queued
    constexpr int kThreads = 4, kEach = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < kEach; ++i) tracker().GatedTrackState(std::to_string(t) + "-" + std::to_string(i), {});
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(QueueSize(), std::size_t{kThreads * kEach});
    std::vector<int> next(kThreads, 0);
    for (const auto& page : Pages(FileHits())) EXPECT_EQ(std::stoi(page.substr(2)), next.at(std::stoi(page))++) << page;
    EXPECT_EQ(next, std::vector<int>(kThreads, kEach));
}

// A host callback may ask for the queue size on any library thread; two of them asking at once from
// the general and the analytics queue must not wait for each other.
TEST_F(AnalyticsTest, QueueSizeAskedFromTwoQueueThreadsAtOnceAnswers) {
    Start(AnalyticsConfig(server.Address(), true, 0, "optunknown"));
    Track(Names(2));
    ASSERT_EQ(QueueSize(), 2u);  // there, the count as it stands is the whole count
    std::promise<void> bothIn;
    std::shared_future<void> both = bothIn.get_future().share();
    std::atomic<int> arrived{0};
    auto ask = [&] {
        if (++arrived == 2) bothIn.set_value();
        both.wait_for(kWait);
        return QueueSize();
    };
    auto fromGeneral = env->runtime->GeneralQueue().Submit(ask);
    auto fromAnalytics = tracker().Queue().Submit(ask);
    if (fromGeneral.wait_for(kWait) != std::future_status::ready ||
        fromAnalytics.wait_for(kWait) != std::future_status::ready) {
        std::fputs("the two queue threads wait for each other\n", stderr);
        std::abort();  // their threads can never be joined
    }
    EXPECT_EQ(fromGeneral.get(), 2u);
    EXPECT_EQ(fromAnalytics.get(), 2u);
}

TEST_F(AnalyticsTest, FiveHitsWaitEvenForTheNextRuntimeAndTheSixthSendsAllSixInOrder) {
    Start(AnalyticsConfig(server.Address(), true, 5));
    Track(Names(5));
    EXPECT_EQ(QueueSize(), 5u);
    EXPECT_FALSE(queue().Flush(kWait));  // idle, with hits left
    const auto saved = FileHits();
    EXPECT_EQ(Pages(saved), Names(5));
    // The next process finds a damaged entry after them: it keeps what came before and says so.
    const std::string text = File();
    env->runtime.reset();
    env->local.Write(HitQueue::kFileName, text.substr(0, text.size() - 2) + R"(,{"T":"x"}]})");
    Restart();
    EXPECT_EQ(QueueSize(), 5u);
    EXPECT_TRUE(env->log.Contains(
        "Velmora Error:Analytics - Unable to load queued hits (a queued hit's \"T\" is not a number)"));
    Track({"S6"});
    ASSERT_TRUE(server.WaitForRequests(6));
    EXPECT_TRUE(queue().Flush(kWait));
    for (std::size_t i = 0; i < saved.size(); ++i) EXPECT_EQ(server.Targets().at(i), saved[i].target);
    EXPECT_EQ(Pages(server.Hits()), Names(6));
    EXPECT_EQ(File(), R"({"Hits":[]})");
}

TEST_F(AnalyticsTest, OutOfOrderTimestampsAreMovedAfterTheLastSentOne) {
    Start(AnalyticsConfig(server.Address(), true, 2));
    for (std::int32_t timestamp : {100, 100, 99}) tracker().TrackInternalAction("", {}, timestamp);
    ASSERT_TRUE(server.WaitForRequests(3));
    auto hits = server.Hits();
    EXPECT_EQ((Strings{hits[0].variables["ts"], hits[1].variables["ts"], hits[2].variables["ts"]}),
              (Strings{"100", "100", "101"}));
    EXPECT_EQ(hits[0].variables["pev2"], "VLMINTERNAL:None");  // an unnamed internal action
    EXPECT_EQ(env->log.Count("Velmora Debug:Analytics - Adjusting out of order hit timestamp(99->101)"), 1u);
    EXPECT_TRUE(env->log.Contains("Velmora Debug:Analytics - Sending hit (" + server.Url(hits[2].target) + ")"));
}

TEST_F(AnalyticsTest, WithoutOfflineTrackingFailedAndStaleHitsAreDropped) {
    // The first hit's answer, how long it waits for a connection, and what the server gets.
    for (const auto& [status, offline, received] : std::vector<std::tuple<int, int, Strings>>{
             {404, 0, {"S1", "S2"}}, {200, 6, {"S2"}}, {200, 5, {"S1", "S2"}}}) {
        LoopbackServer collector;
        collector.Script({status});
        online = offline == 0;
        Start(AnalyticsConfig(collector.Address(), false, 0));
        Track({"S1"});
        QueueSize();  // S1 is queued before the clock moves
        env->clock->Advance(std::chrono::seconds(offline));
        online = true;
        Track({"S2"});
        ASSERT_TRUE(collector.WaitForRequests(received.size())) << status << " " << offline;
        EXPECT_TRUE(queue().Flush(kWait)) << status << " " << offline;  // nothing waits for a retry
        EXPECT_EQ(Pages(collector.Hits()), received) << status << " " << offline;
        env.reset();
    }
}

TEST_F(AnalyticsTest, ATransportFailureKeepsTheHitEvenWithoutOfflineTracking) {
    ClosedPort refused;
    FaultServer reset({FaultServer::Kind::kReset}), closed({FaultServer::Kind::kClose});
    for (int port : {refused.Port(), reset.Port(), closed.Port()}) {
        Start(AnalyticsConfig("127.0.0.1:" + std::to_string(port), false, 0));
        Track({"S1"});
        ASSERT_TRUE(env->clock->AwaitSleepers(1)) << port;
        EXPECT_TRUE(env->log.Contains("Velmora Debug:Analytics - Unable to send hit, attempting to recover"));
        // Flush does not wait out the cooldown, and does not cancel it: the hit stays queued and
        // saved, and the run goes on when the cooldown is over (where, without offline tracking,
        // the hit is now too old and dropped).
        EXPECT_FALSE(queue().Flush(kWait));
        EXPECT_EQ(QueueSize(), 1u);
        EXPECT_EQ(Pages(FileHits()), Strings{"S1"});
        EXPECT_TRUE(WaitUntil([this] {  // time goes by until the cooldown is over
            env->clock->Advance(std::chrono::seconds(1));
            return File() == R"({"Hits":[]})";
        })) << port;
    }
}

TEST_F(AnalyticsTest, QueuedHitsGoOutWhenTheConnectionComesBackWithoutANewHit) {
    online = false;
    Start(AnalyticsConfig(server.Address(), true, 0));
    Track({"S1"});
    EXPECT_EQ(QueueSize(), 1u);
    EXPECT_FALSE(queue().Flush(kWait));
    online = true;
    env->clock->Advance(HitQueue::kConnectionCheckInterval);
    ASSERT_TRUE(server.WaitForRequests(1));
    EXPECT_EQ(Pages(server.Hits()), Strings{"S1"});
}

TEST_F(AnalyticsTest, HitsThatCanNeverBeSentDoNotHoldUpTheOthers) {
    Start(AnalyticsConfig(server.Address(), true, 0));
    // An earlier run left a hit the transport refuses; this one makes a hit too long to queue.
    env->runtime.reset();
    env->local.Write(HitQueue::kFileName, "{\"Hits\":[{\"T\":1,\"H\":\"s1?AQB=1&ndh=1&pageName=a\\u0001b&AQE=1\"}]}");
    Restart();
    tracker().GatedTrackState("Long", {{"k", std::string(HitQueue::kMaxUrlBytes, 'x')}});
    Track({"S1"});
    ASSERT_TRUE(server.WaitForRequests(1));
    EXPECT_TRUE(queue().Flush(kWait));
    EXPECT_EQ(Pages(server.Hits()), Strings{"S1"});
    EXPECT_EQ(env->log.Count("Velmora Debug:Analytics - Invalid hit (removed)"), 1u);
    const auto lines = env->log.Lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
                  return line.rfind("Velmora Error:Analytics - Unable to queue hit (the request URL would be ", 0) == 0;
              }),
              1);
}

TEST_F(AnalyticsTest, UnknownHoldsOptInSendsOptOutEmptiesQueueAndFile) {
    Start(AnalyticsConfig(server.Address(), true, 0, "optunknown"));
    Track(Names(2));
    EXPECT_EQ(QueueSize(), 2u);
    EXPECT_FALSE(queue().Flush(kWait));
    EXPECT_EQ(Pages(FileHits()), Names(2));
    SetPrivacy(kPrivacyOptIn);
    ASSERT_TRUE(server.WaitForRequests(2));
    EXPECT_EQ(Pages(server.Hits()), Names(2));
    for (auto& hit : server.Hits()) EXPECT_EQ(hit.context["aprivacymode"], "unknown");
    SetPrivacy(kPrivacyUnknown);
    Track({"S3"});
    EXPECT_EQ(QueueSize(), 1u);
    SetPrivacy(kPrivacyOptOut);
    Track({"dropped"});
    EXPECT_EQ(QueueSize(), 0u);
    EXPECT_EQ(File(), R"({"Hits":[]})");
    EXPECT_TRUE(env->log.Contains("Velmora Debug:Analytics - Ignoring hit due to privacy status being opted out"));
}

TEST_F(AnalyticsTest, AFailedSaveIsLoggedAndTheHitIsStillSent) {
    Start(AnalyticsConfig(server.Address(), false, 0));
    EXPECT_EQ(QueueSize(), 0u);
    std::filesystem::remove(env->local / HitQueue::kFileName);
    std::filesystem::create_directory(env->local / HitQueue::kFileName);  // nothing can replace it
    Track({"Kept"});
    ASSERT_TRUE(server.WaitForRequests(1));
    EXPECT_TRUE(queue().Flush(kWait));
    EXPECT_EQ(Pages(server.Hits()), Strings{"Kept"});
    const auto lines = env->log.Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.rfind("Velmora Error:Analytics - Unable to save hit queue (", 0) == 0;
    }));
}

}  // namespace
}  // namespace velmora::test

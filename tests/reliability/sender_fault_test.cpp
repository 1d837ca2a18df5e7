// The hit sender against a collection server that fails in a different way for each hit. Every
// outcome is checked against the sender's rules: which hits are tried again after the cooldown
// (driven by the manual clock), which are dropped, which line is logged, and that every hit the
// rules do not drop arrives.
#include "child_process.h"
#include "runtime/runtime.h"
#include "support/fault_server.h"

#include <gtest/gtest.h>

namespace velmora::test {
namespace {

using Kind = FaultServer::Kind;

// What the rules make of one fault, with offline tracking on or off.
struct Outcome {
    int attempts;                    // requests the hit gets; a second one is answered with success
    bool cooldown;                   // the sender waits 30 seconds before it goes on
    std::vector<std::string> lines;  // logged once each while the hit is handled
};

struct Fault {
    const char* name;
    FaultServer::Answer answer;
    Outcome offline, online;
};

const std::string kRecoverable = "Velmora Debug:Analytics - Recoverable network error (";
std::string Recoverable(int status) {
    return kRecoverable + std::to_string(status) + "), imposing internal cooldown (30 seconds)";
}
const std::string kRecover = "Velmora Debug:Analytics - Unable to send hit, attempting to recover";
std::string Failed(const char* what) {
    return std::string("Velmora Debug:Request Handler - Error processing request (The connection with the server ") + what + ")";
}
const std::string kTimedOut = "Velmora Debug:Request Handler - Request timed out";

// The faults in the order the server switches between them, one per hit. A transport failure keeps
// the hit either way; without offline tracking it is too old to send once the cooldown is over,
// so it is dropped then, unsent.
const Fault kFaults[] = {
    {"500", {Kind::kStatus, 500}, {2, true, {Recoverable(500)}}, {1, false, {}}},
    {"404", {Kind::kStatus, 404}, {2, true, {Recoverable(404)}}, {1, false, {}}},
    {"307", {Kind::kStatus, 307}, {1, false, {}}, {1, false, {}}},
    {"reset", {Kind::kReset}, {2, true, {Failed("was reset."), kRecover}}, {1, true, {Failed("was reset."), kRecover}}},
    {"closed", {Kind::kClose}, {2, true, {Failed("was terminated abnormally."), kRecover}},
     {1, true, {Failed("was terminated abnormally."), kRecover}}},
    {"no answer", {Kind::kSilence}, {2, true, {kTimedOut, Recoverable(408)}}, {1, false, {kTimedOut}}},
    {"slow answer", {Kind::kSlow, 200, std::chrono::milliseconds(1500)}, {1, false, {}}, {1, false, {}}},
};

// A manual clock that counts the sleeps begun on it, so that the test ends each one exactly once.
class CountingClock final : public Clock {
public:
    std::int64_t NowMillis() const override { return manual.NowMillis(); }
    bool SleepFor(std::chrono::milliseconds duration, Waker& waker) override {
        sleeps.fetch_add(1);
        return manual.SleepFor(duration, waker);
    }
    std::shared_ptr<Timer> Every(std::chrono::milliseconds period, std::function<void()> tick) override {
        return manual.Every(period, std::move(tick));
    }
    ManualClock manual;
    std::atomic<int> sleeps{0};
};

class SenderUnderFaults : public ::testing::TestWithParam<bool> {
protected:
    SenderUnderFaults() {
        package.Write("VelmoraConfig.json", R"({"analytics":{"rsids":"rs","server":")" + server.Address() +
                                                    R"(","offlineEnabled":)" + (GetParam() ? "true" : "false") + "}}");
        HostOptions host;
        host.packageDirectory = package.path();
        host.localDirectory = local.path();
        host.logSink = capture.Sink();
        host.internetAvailable = [] { return true; };  // the server is on this machine
        host.languageTag = "en-US";
        runtime = std::make_unique<Runtime>(host, clock);
        runtime->Config();  // read before debug lines are on
        runtime->Log().SetDebugEnabled(true);
    }

    // Thirty one-second sleeps, each ended by the test; nothing is sent before the last.
    void PassCooldown(std::size_t requestsSoFar) {
        const int before = clock->sleeps.load() - 1;  // the first sleep has begun
        for (int second = 1; second <= HitQueue::kCooldownSeconds; ++second) {
            ASSERT_TRUE(WaitUntil([&] { return clock->sleeps.load() == before + second; })) << "second " << second;
            ASSERT_TRUE(clock->manual.AwaitSleepers(1)) << "second " << second;
            ASSERT_EQ(server.Exchanges().size(), requestsSoFar) << "second " << second;
            clock->manual.Advance(std::chrono::seconds(1));
        }
    }

    FaultServer server;
    TempDir package, local;
    LogCapture capture;
    std::shared_ptr<CountingClock> clock = std::make_shared<CountingClock>();
    std::unique_ptr<Runtime> runtime;
};

TEST_P(SenderUnderFaults, EachFaultIsRetriedOrDroppedByTheRules) {
    HitQueue& queue = runtime->Hits();
    for (std::size_t k = 0; k < std::size(kFaults); ++k) {
        const Fault& fault = kFaults[k];
        const Outcome& expected = GetParam() ? fault.offline : fault.online;
        SCOPED_TRACE(fault.name);
        const std::string hit = "s" + std::to_string(k) + "?AQB=1&ndh=1&pageName=" + std::to_string(k) + "&AQE=1";
        const std::size_t before = server.Exchanges().size();
        capture.Clear();
        server.Script({fault.answer});
        queue.QueueHit(hit, clock->NowSeconds());
        if (expected.cooldown) {
            ASSERT_TRUE(server.WaitForCount(before + 1));
            ASSERT_TRUE(clock->manual.AwaitSleepers(1));
            EXPECT_EQ(QueuedNames(local), std::vector<std::string>{std::to_string(k)}) << "the hit waits in the file";
            PassCooldown(before + 1);
            ASSERT_TRUE(WaitUntil([&] { return server.Exchanges().size() == before + expected.attempts && queue.Size() == 0; }));
        }
        ASSERT_TRUE(queue.Flush(std::chrono::seconds(20)));
        EXPECT_EQ(clock->manual.Sleepers(), 0u);

        const auto exchanges = server.Exchanges();
        ASSERT_EQ(exchanges.size(), before + expected.attempts);
        for (std::size_t i = before; i < exchanges.size(); ++i) {
            EXPECT_EQ(exchanges[i].target, "/b/ss/rs/0/WINU-4.0.0/" + hit) << "attempt " << i - before;
        }
        for (const auto& line : expected.lines) EXPECT_EQ(capture.Count(line), 1u) << line;
        for (const auto& line : expected.cooldown ? std::vector<std::string>{} : capture.Lines()) {
            EXPECT_NE(line.rfind(kRecoverable, 0), 0u) << line;
            EXPECT_NE(line, kRecover);
        }
    }
    EXPECT_EQ(local.Read(HitQueue::kFileName), R"({"Hits":[]})");
}

INSTANTIATE_TEST_SUITE_P(Reliability, SenderUnderFaults, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "OfflineTracking" : "NoOfflineTracking"; });

}  // namespace
}  // namespace velmora::test

// The hit sender against a collection server that fails in a different way for each hit. Every
// outcome is checked against the sender's rules: which hits are tried again after the cooldown
// (driven by the manual clock), which are dropped, which line is logged, and that every hit the
// rules do not drop arrives.
#include "analytics/hit_queue.h"
#include "core/device.h"
#include "core/http.h"
#include "support/fault_server.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora::test {
namespace {

using Kind = FaultServer::Kind;

// What the rules make of one fault, with offline tracking on or off.
struct Outcome {
    int attempts;       // requests the hit gets
    bool delivered;     // the last one is answered with success
    bool cooldown;      // the sender waits 30 seconds before it goes on
    std::vector<std::string> lines;  // logged once each while the hit is handled
};

struct Fault {
    const char* name;
    FaultServer::Answer answer;
    Outcome offline;
    Outcome online;
};

const std::string kRecoverable = "Velmora Debug:Analytics - Recoverable network error (";
std::string Recoverable(int status) {
    return kRecoverable + std::to_string(status) + "), imposing internal cooldown (30 seconds)";
}
const std::string kRecover = "Velmora Debug:Analytics - Unable to send hit, attempting to recover";
const std::string kReset = "Velmora Debug:Request Handler - Error processing request (The connection with the server "
                           "was reset.)";
const std::string kTimedOut = "Velmora Debug:Request Handler - Request timed out";

// The faults in the order the server switches between them, one per hit.
const std::vector<Fault>& Faults() {
    static const std::vector<Fault> faults = {
        {"500", {Kind::kStatus, 500}, {2, true, true, {Recoverable(500)}}, {1, false, false, {}}},
        {"404", {Kind::kStatus, 404}, {2, true, true, {Recoverable(404)}}, {1, false, false, {}}},
        {"307", {Kind::kStatus, 307}, {1, true, false, {}}, {1, true, false, {}}},
        // A transport failure keeps the hit either way; without offline tracking it is too old to
        // send once the cooldown is over, so it is dropped then, unsent.
        {"reset", {Kind::kReset}, {2, true, true, {kReset, kRecover}}, {1, false, true, {kReset, kRecover}}},
        {"no answer", {Kind::kSilence}, {2, true, true, {kTimedOut, Recoverable(408)}}, {1, false, false, {kTimedOut}}},
        {"slow answer", {Kind::kSlow, 200, std::chrono::milliseconds(1500)}, {1, true, false, {}}, {1, true, false, {}}},
    };
    return faults;
}

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
    SenderUnderFaults() : log(capture.Sink()) {
        log.SetDebugEnabled(true);
        config.rsids = "rs";
        config.server = server.Address();
        config.offlineEnabled = GetParam();
        config.privacyStatus = kPrivacyOptIn;
        host.languageTag = "en-US";
        queue = std::make_unique<HitQueue>(log, *clock, config, files, host, http, device, executor);
    }
    ~SenderUnderFaults() override { queue.reset(); }

    std::vector<std::string> FileHits() {
        std::vector<QueuedHit> hits;
        ParseQueueFile(local.Read(HitQueue::kFileName), hits);
        std::vector<std::string> texts;
        for (const auto& hit : hits) texts.push_back(hit.hit);
        return texts;
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
    TempDir local;
    LogCapture capture;
    Logger log;
    std::unique_ptr<CountingClock> clock = std::make_unique<CountingClock>();
    Executor executor;
    ConfigSettings config;
    HostOptions host = [] {
        HostOptions options;
        options.internetAvailable = [] { return true; };  // the server is on this machine
        return options;
    }();
    FileStore files{local.path()};
    HttpClient http{log, {}};
    SettingsStore settings{local.path(), log};
    DeviceContext device{host, config, settings, http, log};
    std::unique_ptr<HitQueue> queue;
};

TEST_P(SenderUnderFaults, EachFaultIsRetriedOrDroppedByTheRules) {
    const bool offline = GetParam();
    std::vector<std::string> expectedDelivered;
    for (std::size_t k = 0; k < Faults().size(); ++k) {
        const Fault& fault = Faults()[k];
        const Outcome& expected = offline ? fault.offline : fault.online;
        SCOPED_TRACE(fault.name);
        const std::string hit = "s" + std::to_string(k) + "?AQB=1&ndh=1&pageName=" + std::to_string(k) + "&AQE=1";
        const std::size_t before = server.Exchanges().size();
        std::vector<std::size_t> linesBefore;
        for (const auto& line : expected.lines) linesBefore.push_back(capture.Count(line));
        const auto linesSeen = capture.Lines().size();

        server.Script({fault.answer});
        queue->QueueHit(hit, clock->NowSeconds());
        if (expected.cooldown) {
            ASSERT_TRUE(server.WaitForCount(before + 1));
            ASSERT_TRUE(clock->manual.AwaitSleepers(1));
            EXPECT_EQ(FileHits(), std::vector<std::string>{hit}) << "the hit waits in the file";
            PassCooldown(before + 1);
            ASSERT_TRUE(WaitUntil([&] {
                return server.Exchanges().size() == before + expected.attempts && queue->Size() == 0;
            }));
        }
        ASSERT_TRUE(queue->Flush(std::chrono::seconds(20)));
        EXPECT_EQ(clock->manual.Sleepers(), 0u);

        const auto exchanges = server.Exchanges();
        ASSERT_EQ(exchanges.size(), before + expected.attempts);
        for (std::size_t i = before; i < exchanges.size(); ++i) {
            EXPECT_EQ(exchanges[i].target, "/b/ss/rs/0/WINU-4.0.0/" + hit) << "attempt " << i - before;
        }
        if (expected.delivered) expectedDelivered.push_back(exchanges.back().target);
        for (std::size_t i = 0; i < expected.lines.size(); ++i) {
            EXPECT_EQ(capture.Count(expected.lines[i]), linesBefore[i] + 1) << expected.lines[i];
        }
        if (!expected.cooldown) {
            const auto lines = capture.Lines();
            for (std::size_t i = linesSeen; i < lines.size(); ++i) {
                EXPECT_NE(lines[i].rfind(kRecoverable, 0), 0u) << lines[i];
                EXPECT_NE(lines[i], kRecover);
            }
        }
    }

    // What the server accepted is exactly what the rules keep, in order; nothing is left behind.
    std::vector<std::string> delivered;
    for (const auto& exchange : server.Exchanges()) {
        const auto& answer = exchange.answer;
        const bool success = (answer.kind == Kind::kStatus && (answer.status == 200 || answer.status == 307)) ||
                             answer.kind == Kind::kSlow;
        if (success) delivered.push_back(exchange.target);
    }
    EXPECT_EQ(delivered, expectedDelivered);
    EXPECT_EQ(local.Read(HitQueue::kFileName), R"({"Hits":[]})");
}

INSTANTIATE_TEST_SUITE_P(Reliability, SenderUnderFaults, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "OfflineTracking" : "NoOfflineTracking"; });

}  // namespace
}  // namespace velmora::test

// The local directory stops taking writes: the data files' owners log their save failure, keep
// everything in memory, leave the previous document whole, and write it all once the disk takes
// writes again.
#include "analytics/hit_queue.h"
#include "core/device.h"
#include "core/http.h"
#include "timed_actions/timed_actions.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <optional>

namespace velmora::test {
namespace {

// The real files, with a write that fails while `failing` is set.
class SwitchableFiles : public FileStore {
public:
    using FileStore::FileStore;
    void WriteAtomic(const std::string& name, std::string_view text) override {
        if (failing) throw std::runtime_error("No space left on device");
        FileStore::WriteAtomic(name, text);
    }
    std::atomic<bool> failing{false};
};

// How the directory fails: the injected writer, or the kernel refusing to let the process grow a
// file past the current document, so that the next, larger one fails part way through, as on a
// full disk (root included); and the reason its failure names.
struct DiskFailure {
    const char* name;
    bool injected;
    const char* reason;
};
void PrintTo(const DiskFailure& failure, std::ostream* out) { *out << failure.name; }

const DiskFailure kFailures[] = {{"InjectedWriter", true, "No space left on device"},
                                 {"FileSizeLimit", false, "File too large"}};

struct RecordingTracker : ActionTracker {
    void TrackAction(const std::string& name, const StringMap& data) override {
        std::lock_guard lock(mutex);
        actions.emplace_back(name, data);
    }
    void TrackInternalAction(const std::string&, const StringMap&, std::int32_t) override {}
    std::mutex mutex;
    std::vector<std::pair<std::string, StringMap>> actions;
};

class DiskFaults : public ::testing::TestWithParam<DiskFailure> {
protected:
    DiskFaults() : log(capture.Sink()) {}

    // Error lines that open with `start` and name the failure's reason.
    std::size_t Failures(const std::string& start) const {
        std::size_t n = 0;
        for (const auto& line : capture.Lines()) {
            n += line.rfind(start, 0) == 0 && line.find(GetParam().reason) != std::string::npos;
        }
        return n;
    }

    void Fail(const std::filesystem::path& file) {
        if (GetParam().injected) files.failing = true;
        else limit.emplace(std::filesystem::file_size(file));
    }
    void Heal() {
        files.failing = false;
        limit.reset();
    }

    TempDir local;
    LogCapture capture;
    Logger log;
    SwitchableFiles files{local.path()};
    std::optional<FileSizeLimit> limit;
};

TEST_P(DiskFaults, TheHitQueueKeepsItsHitsAndTheOldFile) {
    ConfigSettings config;
    config.rsids = "rs";
    config.server = "127.0.0.1:9";
    config.offlineEnabled = true;
    config.privacyStatus = kPrivacyUnknown;  // hits stay queued
    HostOptions host;
    ManualClock clock;
    HttpClient http(log, {});
    SettingsStore settings(local.path(), log);
    DeviceContext device(host, config, settings, http, log);
    Executor executor;
    HitQueue queue(log, clock, config, files, host, http, device, executor);
    auto hit = [](char name) { return std::string("s1?AQB=1&ndh=1&pageName=") + name + "&AQE=1"; };
    auto fileHits = [&] {
        std::vector<QueuedHit> hits;
        ParseQueueFile(local.Read(HitQueue::kFileName), hits);
        std::string names;
        for (const auto& h : hits) names += h.hit[h.hit.size() - 7];  // the page name's letter
        return names;
    };

    queue.QueueHit(hit('A'), 1);
    queue.QueueHit(hit('B'), 2);
    ASSERT_EQ(queue.SizeAfterPendingWork().get(), 2u);
    const std::string before = local.Read(HitQueue::kFileName);
    ASSERT_EQ(fileHits(), "AB");

    Fail(local / HitQueue::kFileName);
    queue.QueueHit(hit('C'), 3);
    const auto size = queue.SizeAfterPendingWork().get();
    Heal();
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(local.Read(HitQueue::kFileName), before);
    EXPECT_EQ(Failures("Velmora Error:Analytics - Unable to save hit queue ("), 1u);

    queue.QueueHit(hit('D'), 4);
    EXPECT_EQ(queue.SizeAfterPendingWork().get(), 4u);
    EXPECT_EQ(fileHits(), "ABCD");
    for (const auto& entry : std::filesystem::directory_iterator(local.path())) {
        EXPECT_EQ(entry.path().filename().string().find(".tmp"), std::string::npos) << entry.path();
    }
}

TEST_P(DiskFaults, TimedActionsKeepTheirMapAndTheOldFile) {
    RecordingTracker tracker;
    ManualClock clock;
    Executor executor;
    TimedActionStore store(files, tracker, clock, log, executor);
    store.Start("a", {{"k", "1"}});
    store.Start("b", {});
    ASSERT_TRUE(store.Exists("b").get());
    const std::string before = local.Read(TimedActionStore::kFileName);

    Fail(local / TimedActionStore::kFileName);
    store.Start("c", {{"k", "3"}});
    store.Update("a", {{"k", "2"}});
    const bool started = store.Exists("c").get();
    Heal();
    EXPECT_TRUE(started);
    EXPECT_EQ(local.Read(TimedActionStore::kFileName), before);
    EXPECT_EQ(Failures("Velmora Error:Analytics - Unable to save timed actions file ("), 2u);

    clock.Advance(std::chrono::seconds(5));
    store.End("c");  // what was changed only in memory still counts
    ASSERT_FALSE(store.Exists("c").get());
    ASSERT_EQ(tracker.actions.size(), 1u);
    EXPECT_EQ(tracker.actions[0].first, "c");
    EXPECT_EQ(tracker.actions[0].second.at("a.action.time.total"), "5");
    TimedActionMap saved;
    ParseTimedActionsFile(local.Read(TimedActionStore::kFileName), saved,
                          [](const std::string& name, const std::string&) { ADD_FAILURE() << name; });
    ASSERT_EQ(saved.size(), 2u);
    EXPECT_EQ(saved.at("a").data, (StringMap{{"k", "2"}}));
    EXPECT_TRUE(saved.count("b"));
}

INSTANTIATE_TEST_SUITE_P(Reliability, DiskFaults, ::testing::ValuesIn(kFailures),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velmora::test

// The local directory stops taking writes part way through a save: the kernel refuses to let the
// process grow a file past the current documents, as on a full disk (root included). The data
// files' owners log the failure, keep everything in memory, leave the previous document whole and
// no temporary file, and write it all once the disk takes writes again: the hit queue at its next
// change, by its retry timer, or at the end of the process.
#include "child_process.h"
#include "analytics/tracker.h"
#include "runtime/runtime.h"
#include "timed_actions/timed_actions.h"

#include <gtest/gtest.h>

namespace velmora::test {
namespace {

// Error lines that open with `start` and name the kernel's refusal.
std::size_t Failures(const LogCapture& log, const std::string& start) {
    std::size_t n = 0;
    for (const auto& line : log.Lines()) n += line.rfind(start, 0) == 0 && line.find("File too large") != std::string::npos;
    return n;
}

TEST(DiskFaults, TheQueueAndTheTimedActionsKeepTheirChangesAndTheOldFilesAndSaveThemOnceTheDiskTakesWrites) {
    HostOptions offline;
    offline.internetAvailable = [] { return false; };  // hits stay queued
    TestRuntime env(R"({"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true}})", offline);
    auto& hits = env.runtime->GetHitQueue();
    auto& timed = env.runtime->GetTimedActionStore();
    auto hit = [](const char* name) { return std::string("s1?AQB=1&ndh=1&pageName=") + name + "&AQE=1"; };
    hits.QueueHit(hit("A"), 1);
    hits.QueueHit(hit("B"), 2);
    timed.Start("a", {{"k", "1"}});
    timed.Start("b", {});
    ASSERT_EQ(hits.SizeAfterPendingWork().get(), 2u);
    ASSERT_TRUE(timed.Exists("b"));
    const std::string queue = env.local.Read(QueueFile::kFileName), actions = env.local.Read(TimedActionStore::kFileName);
    {
        FileSizeLimit limit(std::min(queue.size(), actions.size()));
        hits.QueueHit(hit("C"), 3);
        timed.Start("c", {{"k", "3"}});
        timed.Update("a", {{"k", "2"}});
        EXPECT_EQ(hits.SizeAfterPendingWork().get(), 3u);
        EXPECT_TRUE(timed.Exists("c"));
    }
    EXPECT_EQ(env.local.Read(QueueFile::kFileName), queue);
    EXPECT_EQ(env.local.Read(TimedActionStore::kFileName), actions);
    EXPECT_EQ(TemporaryFiles(env.local), 0u);
    EXPECT_EQ(Failures(env.log, "Velmora Error:Analytics - Unable to save timed actions file ("), 2u);

    env.clock->Advance(HitQueue::kRetryInterval);  // no change came: the timer writes C
    EXPECT_EQ(hits.SizeAfterPendingWork().get(), 3u);
    EXPECT_EQ(QueuedNames(env.local), (std::vector<std::string>{"A", "B", "C"}));
    timed.End("b");  // its hit is written at once
    ASSERT_TRUE(env.runtime->GetAnalyticsTracker().Flush(std::chrono::seconds(10)));
    ASSERT_FALSE(timed.Exists("b"));
    EXPECT_EQ(hits.SizeAfterPendingWork().get(), 4u);
    for (const char* name : {"D", "E"}) {  // failing again: a timer of its own writes D, the end writes E
        env.clock->Advance(HitQueue::kRetryInterval), hits.SizeAfterPendingWork().get();
        EXPECT_EQ(QueuedNames(env.local).size(), name[0] == 'D' ? 4u : 5u);
        FileSizeLimit limit(std::filesystem::file_size(env.local / QueueFile::kFileName));
        hits.QueueHit(hit(name), 4);
        EXPECT_EQ(hits.SizeAfterPendingWork().get(), name[0] == 'D' ? 5u : 6u);
    }
    EXPECT_EQ(QueuedNames(env.local).size(), 5u);
    EXPECT_EQ(Failures(env.log, "Velmora Error:Analytics - Unable to save hit queue ("), 3u) << "once per failure, recoveries between";
    env.runtime->Shutdown(std::chrono::seconds(10), false);
    auto names = QueuedNames(env.local);
    ASSERT_EQ(names.size(), 6u);
    names.erase(names.begin() + 3);  // the action's
    EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "C", "D", "E"}));
    TimedActionMap saved;
    ParseTimedActionsFile(env.local.Read(TimedActionStore::kFileName), saved,
                          [](const std::string& name, const std::string&) { ADD_FAILURE() << name; });
    ASSERT_EQ(saved.size(), 2u);
    EXPECT_EQ(saved.at("a").data, (StringMap{{"k", "2"}}));
    EXPECT_EQ(saved.at("c").data, (StringMap{{"k", "3"}}));
}

}  // namespace
}  // namespace velmora::test

// The local directory stops taking writes part way through a save: the kernel refuses to let the
// process grow a file past the current document, as on a full disk (root included). The data
// files' owners log the failure, keep everything in memory, leave the previous document whole and
// no temporary file, and write it all once the disk takes writes again.
#include "child_process.h"
#include "runtime/runtime.h"
#include "timed_actions/timed_actions.h"

#include <gtest/gtest.h>

namespace velmora::test {
namespace {

class DiskFaults : public ::testing::Test {
protected:
    static HostOptions Offline() {  // hits stay queued
        HostOptions options;
        options.internetAvailable = [] { return false; };
        return options;
    }

    // Error lines that open with `start` and name the kernel's refusal.
    std::size_t Failures(const std::string& start) const {
        std::size_t n = 0;
        for (const auto& line : env.log.Lines()) n += line.rfind(start, 0) == 0 && line.find("File too large") != std::string::npos;
        return n;
    }

    // Runs `change` while `file` cannot grow, then checks that the file was left as it was.
    void WhileFull(const std::string& file, const std::function<void()>& change) {
        const std::string before = env.local.Read(file);
        {
            FileSizeLimit limit(std::filesystem::file_size(env.local / file));
            change();
        }
        EXPECT_EQ(env.local.Read(file), before);
        EXPECT_EQ(TemporaryFiles(env.local), 0u);
    }

    TestRuntime env{R"({"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true}})", Offline()};
};

TEST_F(DiskFaults, TheHitQueueKeepsItsHitsAndTheOldFileAndSavesThemOnceTheDiskTakesWrites) {
    auto& hits = env.runtime->Hits();
    auto hit = [](const char* name) { return std::string("s1?AQB=1&ndh=1&pageName=") + name + "&AQE=1"; };
    hits.QueueHit(hit("A"), 1);
    hits.QueueHit(hit("B"), 2);
    ASSERT_EQ(hits.SizeAfterPendingWork().get(), 2u);
    WhileFull(HitQueue::kFileName, [&] {
        hits.QueueHit(hit("C"), 3);
        EXPECT_EQ(hits.SizeAfterPendingWork().get(), 3u);
    });
    EXPECT_EQ(Failures("Velmora Error:Analytics - Unable to save hit queue ("), 1u);

    hits.QueueHit(hit("D"), 4);
    EXPECT_EQ(hits.SizeAfterPendingWork().get(), 4u);
    EXPECT_EQ(QueuedNames(env.local), (std::vector<std::string>{"A", "B", "C", "D"}));
}

TEST_F(DiskFaults, TimedActionsKeepTheirChangesAndTheOldFileAndSaveThemOnceTheDiskTakesWrites) {
    auto& timed = env.runtime->TimedActions();
    timed.Start("a", {{"k", "1"}});
    timed.Start("b", {});
    ASSERT_TRUE(timed.Exists("b").get());
    WhileFull(TimedActionStore::kFileName, [&] {
        timed.Start("c", {{"k", "3"}});
        timed.Update("a", {{"k", "2"}});
        EXPECT_TRUE(timed.Exists("c").get());
    });
    EXPECT_EQ(Failures("Velmora Error:Analytics - Unable to save timed actions file ("), 2u);

    timed.End("b");
    ASSERT_FALSE(timed.Exists("b").get());
    TimedActionMap saved;
    ParseTimedActionsFile(env.local.Read(TimedActionStore::kFileName), saved,
                          [](const std::string& name, const std::string&) { ADD_FAILURE() << name; });
    ASSERT_EQ(saved.size(), 2u);
    EXPECT_EQ(saved.at("a").data, (StringMap{{"k", "2"}}));
    EXPECT_EQ(saved.at("c").data, (StringMap{{"k", "3"}}));
}

}  // namespace
}  // namespace velmora::test

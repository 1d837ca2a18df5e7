// A child process tracks states offline without pause and is killed with SIGKILL at a different
// moment in each round. After every kill the queue file must read back whole: every hit the child
// made forms one gap-free sequence per round, everything seen in the file before the kill is still
// there in the same order, and a new runtime loads it without an error.
#include "child_process.h"
#include "runtime/runtime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <random>

namespace velmora::test {
namespace {

constexpr int kKills = 30;
constexpr auto kLatestKill = std::chrono::microseconds(120'000);

// One name per entry, as the child makes them: "r<round>n<index>", in the order they were made.
bool ParseName(const std::string& name, int& round, int& index) {
    char tail = 0;
    return std::sscanf(name.c_str(), "r%3dn%6d%c", &round, &index, &tail) == 2;
}

// A new start on the directory loads the queue without an error line and holds every hit.
void ExpectReloads(const TempDir& package, const TempDir& local, std::size_t hits) {
    LogCapture log;
    HostOptions options;
    options.packageDirectory = package.path();
    options.localDirectory = local.path();
    options.logSink = log.Sink();
    options.internetAvailable = [] { return false; };
    Runtime runtime(options, std::make_shared<ManualClock>());
    EXPECT_EQ(runtime.Hits().SizeAfterPendingWork().get(), hits);
    runtime.Shutdown(std::chrono::seconds(10), false);
    for (const auto& line : log.Lines()) EXPECT_NE(line.rfind("Velmora Error:", 0), 0u) << line;
}

// Entries of every round follow each other without a gap, rounds in order; a round may have none.
::testing::AssertionResult GapFree(const std::vector<std::string>& names) {
    int lastRound = -1, lastIndex = -1;
    for (const auto& name : names) {
        int round = 0, index = 0;
        if (!ParseName(name, round, index)) return ::testing::AssertionFailure() << "an entry is " << name;
        if (!(round == lastRound && index == lastIndex + 1) && !(round > lastRound && index == 0)) {
            return ::testing::AssertionFailure() << name << " follows r" << lastRound << "n" << lastIndex;
        }
        lastRound = round, lastIndex = index;
    }
    return ::testing::AssertionSuccess();
}

bool StartsWith(const std::vector<std::string>& names, const std::vector<std::string>& prefix) {
    return names.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), names.begin());
}

TEST(KillTest, EveryKillLeavesTheQueuedHitsWholeAndInOrder) {
    TempDir package, local;
    package.Write("VelmoraConfig.json",
                  R"({"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true,"batchLimit":0}})");
    // Kill moments spread over the first 120 ms after the child's first entry, no two alike, in
    // shuffled order.
    std::mt19937 random(20240611);
    std::vector<std::chrono::microseconds> delays;
    const auto slot = kLatestKill / kKills;
    for (int i = 0; i < kKills; ++i) delays.push_back(slot * i + std::chrono::microseconds(random() % slot.count()));
    std::shuffle(delays.begin(), delays.end(), random);

    std::vector<std::string> committed;  // what the previous kill left
    int killsDuringSave = 0;
    for (int round = 0; round < kKills; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ChildProcess child(VELMORA_EXIT_PROGRAM, {"endless", std::to_string(round), "down", package.path().string(),
                                                  local.path().string()}, package / "child.err");
        std::string line;
        ASSERT_TRUE(child.ReadLine(line, std::chrono::seconds(30)) && line == "ready") << child.ErrorOutput();
        std::this_thread::sleep_for(delays[round]);  // picks the kill moment, not a wait for the library
        const auto snapshot = QueuedNames(local);    // while the child is writing
        ASSERT_TRUE(child.Kill()) << "the child ended by itself:\n" << child.ErrorOutput();

        const auto after = QueuedNames(local);
        ASSERT_TRUE(GapFree(after));
        ASSERT_TRUE(StartsWith(snapshot, committed)) << snapshot.size() << " entries, " << committed.size() << " before";
        ASSERT_TRUE(StartsWith(after, snapshot)) << after.size() << " entries, " << snapshot.size() << " before";
        // Every child wrote its first entry before it said it was ready; none of them is lost.
        ASSERT_GT(after.size(), committed.size());
        // A kill in the middle of a save leaves the save's temporary file; the next start clears it.
        killsDuringSave += TemporaryFiles(local) > 0;
        ExpectReloads(package, local, after.size());
        EXPECT_EQ(TemporaryFiles(local), 0u);
        committed = after;
    }
    std::cout << "[ figures  ] hits: " << kKills << " kills survived, " << committed.size()
              << " entries kept, " << killsDuringSave << " kills left a save's temporary file\n";
}

}  // namespace
}  // namespace velmora::test

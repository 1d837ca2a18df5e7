// Children work on a queue file of 100,000 hits, as a long offline spell leaves it, and are killed
// with SIGKILL at a different moment in each round: one tracks states offline without pause, one
// delivers the backlog to a loopback server. After every kill the queue reads back whole: nothing
// that was in it before the kill is gone, nothing delivered is lost, at most the hit in flight is
// sent again, and a new runtime loads it without an error.
#include "child_process.h"
#include "runtime/runtime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <random>

namespace velmora::test {
namespace {

constexpr int kKills = 30;
constexpr int kBacklog = 100'000;
constexpr auto kLatestKill = std::chrono::microseconds(120'000);

std::string BacklogName(int i) {
    char name[16];
    std::snprintf(name, sizeof name, "b%07d", i);
    return name;
}

// The queue file with hits "b0000000", "b0000001", ..., written directly.
std::string Backlog() {
    std::string text = "{\"Hits\":[";
    for (int i = 0; i < kBacklog; ++i) {
        text += (i > 0 ? "," : "") + QueueFileMember("s1?AQB=1&ndh=1&pageName=" + BacklogName(i) + "&AQE=1", 1'400'000'000 + i);
    }
    return text + "]}";
}

// Kill moments spread over the first 120 ms of a child's work, no two alike, in shuffled order.
std::vector<std::chrono::microseconds> KillMoments() {
    std::mt19937 random(20240611);
    std::vector<std::chrono::microseconds> delays;
    const auto slot = kLatestKill / kKills;
    for (int i = 0; i < kKills; ++i) delays.push_back(slot * i + std::chrono::microseconds(random() % slot.count()));
    std::shuffle(delays.begin(), delays.end(), random);
    return delays;
}

// The names of the entries after the backlog, read from the file's bytes: each entry holds one
// "&pageName=r<round>n<index>&". The document ends at the first '"}]': an append is in it once its
// ',' has replaced that ']', so one written beyond the ']' and not yet joined is not.
std::vector<std::string> NamesAfter(const std::string& backlog, const TempDir& local) {
    std::ifstream file(local / QueueFile::kFileName, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(backlog.size() - 4));  // the backlog's last '"}'
    const std::string tail{std::istreambuf_iterator<char>(file), {}};
    const std::size_t end = tail.find("\"}]");
    std::vector<std::string> names;
    for (std::size_t at = 0; (at = tail.find("&pageName=", at)) != std::string::npos && at < end;) {
        at += 10;
        names.push_back(tail.substr(at, tail.find('&', at) - at));
    }
    return names;
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
    EXPECT_EQ(runtime.GetHitQueue().SizeAfterPendingWork().get(), hits);
    runtime.Shutdown(std::chrono::seconds(10), false);
    for (const auto& line : log.Lines()) EXPECT_NE(line.rfind("Velmora Error:", 0), 0u) << line;
}

// Entries of every round follow each other without a gap, rounds in order; a round may have none.
::testing::AssertionResult GapFree(const std::vector<std::string>& names) {
    int lastRound = -1, lastIndex = -1;
    for (const auto& name : names) {
        int round = 0, index = 0;
        char tail = 0;
        if (std::sscanf(name.c_str(), "r%3dn%6d%c", &round, &index, &tail) != 2) {
            return ::testing::AssertionFailure() << "an entry is " << name;
        }
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

TEST(KillTest, EveryKillWhileTrackingOnALongQueueLeavesItsHitsWholeAndInOrder) {
    TempDir package, local;
    package.Write("VelmoraConfig.json",
                  R"({"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true,"batchLimit":0}})");
    const std::string backlog = Backlog();
    local.Write(QueueFile::kFileName, backlog);
    const auto delays = KillMoments();
    std::vector<std::string> committed;  // what the previous kill left after the backlog
    int killsDuringAppend = 0;
    for (int round = 0; round < kKills; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ChildProcess child(VELMORA_EXIT_PROGRAM, {"endless", std::to_string(round), "down", package.path().string(),
                                                  local.path().string()}, package / "child.err");
        std::string line;
        ASSERT_TRUE(child.ReadLine(line, std::chrono::seconds(60)) && line == "ready") << child.ErrorOutput();
        std::this_thread::sleep_for(delays[round]);  // picks the kill moment, not a wait for the library
        const auto snapshot = NamesAfter(backlog, local);  // while the child is writing
        ASSERT_TRUE(child.Kill()) << "the child ended by itself:\n" << child.ErrorOutput();

        const std::string file = local.Read(QueueFile::kFileName);
        ASSERT_EQ(file.compare(0, backlog.size() - 2, backlog, 0, backlog.size() - 2), 0) << "the backlog changed";
        const auto after = NamesAfter(backlog, local);
        ASSERT_TRUE(GapFree(after));
        ASSERT_TRUE(StartsWith(snapshot, committed)) << snapshot.size() << " entries, " << committed.size() << " before";
        ASSERT_TRUE(StartsWith(after, snapshot)) << after.size() << " entries, " << snapshot.size() << " before";
        // Every child wrote its first entry before it said it was ready; none of them is lost.
        ASSERT_GT(after.size(), committed.size());
        ExpectReloads(package, local, kBacklog + after.size());
        killsDuringAppend += local.Read(QueueFile::kFileName) != file;  // the load removed an append cut short
        EXPECT_EQ(TemporaryFiles(local), 0u);
        committed = after;
    }
    std::cout << "[ figures  ] tracking: " << kKills << " kills survived, " << kBacklog << " + " << committed.size()
              << " entries kept, " << killsDuringAppend << " kills cut an append short\n";
}

TEST(KillTest, EveryKillWhileDeliveringALongQueueLosesNothingAndResendsAtMostTheHitInFlight) {
    LoopbackServer server;
    TempDir package, local;
    package.Write("VelmoraConfig.json", R"({"analytics":{"rsids":"rs","server":")" + server.Address() +
                                            R"(","offlineEnabled":true,"batchLimit":0,"privacyDefault":"optedin"}})");
    local.Write(QueueFile::kFileName, Backlog());
    const auto delays = KillMoments();
    int delivered = 0, resent = 0;  // the backlog's hits the server got, in order; and again
    std::size_t seen = 0;
    for (int round = 0; round < kKills; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ChildProcess child(VELMORA_EXIT_PROGRAM, {"drain", "0", "up", package.path().string(), local.path().string()},
                           package / "child.err");
        ASSERT_TRUE(server.WaitForRequests(server.Count() + 1, std::chrono::seconds(60))) << child.ErrorOutput();
        std::this_thread::sleep_for(delays[round]);
        ASSERT_TRUE(child.Kill()) << "the child ended by itself:\n" << child.ErrorOutput();

        const auto received = server.Hits();
        for (; seen < received.size(); ++seen) {
            const std::string name = received[seen].variables.at("pageName");
            if (name == BacklogName(delivered)) {
                ++delivered;
            } else {
                ASSERT_EQ(name, BacklogName(delivered - 1)) << "out of order";
                ++resent;
            }
        }
        std::vector<QueuedHit> queued;
        QueueFile::ReadQueued(local.path(), queued);
        ASSERT_FALSE(queued.empty());
        const int first = std::stoi(DecodeHit("/b/ss/rs/0/v/" + queued.front().hit).variables["pageName"].substr(1));
        ASSERT_TRUE(first == delivered || first == delivered - 1) << first << " first, " << delivered << " delivered";
        ASSERT_EQ(queued.size(), static_cast<std::size_t>(kBacklog - first));
        EXPECT_EQ(queued.back().hit, "s1?AQB=1&ndh=1&pageName=" + BacklogName(kBacklog - 1) + "&AQE=1");
    }
    EXPECT_LE(resent, kKills);
    std::cout << "[ figures  ] delivering: " << kKills << " kills, " << delivered << " hits delivered in order, "
              << resent << " sent again\n";
}

}  // namespace
}  // namespace velmora::test

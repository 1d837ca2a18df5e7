// A child process writes one kind of persistent state without pause and is killed with SIGKILL at
// a different moment in each round. After every kill the state must read back whole: every entry
// the child made forms one gap-free sequence per round, everything seen in the file (or database)
// before the kill is still there in the same order, and a new runtime loads it without an error.
#include "analytics/hit_queue.h"
#include "child_process.h"
#include "runtime/runtime.h"
#include "timed_actions/timed_actions.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <random>
#include <thread>

namespace velmora::test {
namespace {

constexpr int kKills = 50;
constexpr auto kLatestKill = std::chrono::microseconds(120'000);

// One name per entry, as the child makes them: "r<round>n<index>", in the order they were made.
struct Entry {
    int round;
    int index;
};

bool ParseName(const std::string& name, Entry& entry) {
    char tail = 0;
    return std::sscanf(name.c_str(), "r%3dn%6d%c", &entry.round, &entry.index, &tail) == 2;
}

// What one kind of state holds now, as entry names in stored order. Throws when it cannot be read
// at all; checks each entry's own content as it goes.
using Reader = std::function<std::vector<std::string>(const TempDir& local)>;
// A new runtime on the directory: loads the state without an error and holds every entry.
using Reloader = std::function<void(const TempDir& package, const TempDir& local, const std::vector<std::string>&)>;

struct KillCase {
    const char* mode;
    Reader read;
    Reloader reload;
};
void PrintTo(const KillCase& kind, std::ostream* out) { *out << kind.mode; }

std::vector<std::string> ReadHits(const TempDir& local) {
    std::vector<QueuedHit> hits;
    ParseQueueFile(local.Read(HitQueue::kFileName), hits);
    std::vector<std::string> names;
    for (const auto& hit : hits) names.push_back(DecodeHit("/b/ss/rs/0/v/" + hit.hit).variables["pageName"]);
    return names;
}

std::vector<std::string> ReadTimedActions(const TempDir& local) {
    TimedActionMap actions;
    ParseTimedActionsFile(local.Read(TimedActionStore::kFileName), actions,
                          [](const std::string& name, const std::string& reason) {
                              ADD_FAILURE() << "unreadable timed action " << name << ": " << reason;
                          });
    std::vector<std::string> names;
    for (const auto& [name, action] : actions) {
        Entry entry{};
        if (ParseName(name, entry)) {
            EXPECT_EQ(action.data.at("i"), std::to_string(entry.index)) << name;
            // An update names the successor; it is either there or not yet applied.
            if (auto next = action.data.find("next"); next != action.data.end()) {
                EXPECT_EQ(next->second, std::to_string(entry.index + 1)) << name;
            }
        }
        names.push_back(name);
    }
    return names;
}

// Straight from the database file, as another program would see it: whole, and every row in key
// order.
std::vector<std::string> ReadSettings(const TempDir& local) {
    std::vector<std::string> names;
    const auto path = (local / SettingsStore::kFileName).string();
    if (!std::filesystem::exists(path)) return names;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        const std::string error = sqlite3_errmsg(db);
        sqlite3_close(db);
        throw std::runtime_error("cannot open the settings: " + error);
    }
    sqlite3_busy_timeout(db, 10000);
    auto query = [&](const char* sql, const std::function<void(sqlite3_stmt*)>& row) {
        sqlite3_stmt* statement = nullptr;
        int rc = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
        if (rc == SQLITE_OK) {
            while ((rc = sqlite3_step(statement)) == SQLITE_ROW) row(statement);
        }
        const std::string error = sqlite3_errmsg(db);
        sqlite3_finalize(statement);
        if (rc != SQLITE_DONE && rc != SQLITE_OK) {
            sqlite3_close(db);
            throw std::runtime_error(std::string(sql) + ": " + sqlite3_errstr(rc) + " (" + error + ")");
        }
    };
    // Before the first insert of a new database the table may not exist yet.
    bool hasTable = false;
    query("SELECT 1 FROM sqlite_master WHERE name = 'settings'", [&](sqlite3_stmt*) { hasTable = true; });
    if (hasTable) {
        query("PRAGMA integrity_check", [](sqlite3_stmt* s) {
            EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)), "ok");
        });
        query("SELECT key, value FROM settings ORDER BY key", [&](sqlite3_stmt* s) {
            std::string name = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
            Entry entry{};
            if (ParseName(name, entry)) {
                EXPECT_EQ(sqlite3_column_int(s, 1), entry.index) << name;
            }
            names.push_back(std::move(name));
        });
    }
    sqlite3_close(db);
    return names;
}

HostOptions Options(const TempDir& package, const TempDir& local, LogCapture& log) {
    HostOptions options;
    options.packageDirectory = package.path();
    options.localDirectory = local.path();
    options.logSink = log.Sink();
    options.internetAvailable = [] { return false; };
    return options;
}

void ExpectNoErrors(const LogCapture& log) {
    for (const auto& line : log.Lines()) EXPECT_NE(line.rfind("Velmora Error:", 0), 0u) << line;
}

void ReloadHits(const TempDir& package, const TempDir& local, const std::vector<std::string>& names) {
    LogCapture log;
    Runtime runtime(Options(package, local, log), std::make_shared<ManualClock>());
    EXPECT_EQ(runtime.Hits().SizeAfterPendingWork().get(), names.size());
    runtime.Shutdown(std::chrono::seconds(10), false);
    ExpectNoErrors(log);
}

void ReloadTimedActions(const TempDir& package, const TempDir& local, const std::vector<std::string>& names) {
    LogCapture log;
    Runtime runtime(Options(package, local, log), std::make_shared<ManualClock>());
    auto& store = runtime.TimedActions();
    if (!names.empty()) {
        EXPECT_TRUE(store.Exists(names.front()).get());
        EXPECT_TRUE(store.Exists(names.back()).get());
    }
    EXPECT_FALSE(store.Exists("r999n999999").get());
    runtime.Shutdown(std::chrono::seconds(10), false);
    ExpectNoErrors(log);
}

void ReloadSettings(const TempDir&, const TempDir& local, const std::vector<std::string>& names) {
    LogCapture log;
    Logger logger(log.Sink());
    SettingsStore store(local.path(), logger);
    EXPECT_TRUE(store.Persistent());
    if (!names.empty()) {
        EXPECT_TRUE(store.HasKey(names.back()));
    }
    ExpectNoErrors(log);
}

// Entries of every round follow each other without a gap, rounds in order; a round may have none.
::testing::AssertionResult GapFree(const std::vector<std::string>& names) {
    Entry last{-1, -1};
    for (std::size_t i = 0; i < names.size(); ++i) {
        Entry entry{};
        if (!ParseName(names[i], entry)) return ::testing::AssertionFailure() << "entry " << i << " is " << names[i];
        const bool next = entry.round == last.round && entry.index == last.index + 1;
        const bool firstOfRound = entry.round > last.round && entry.index == 0;
        if (!next && !firstOfRound) {
            return ::testing::AssertionFailure() << names[i] << " follows r" << last.round << "n" << last.index;
        }
        last = entry;
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult StartsWith(const std::vector<std::string>& names, const std::vector<std::string>& prefix) {
    if (names.size() < prefix.size()) {
        return ::testing::AssertionFailure() << names.size() << " entries where " << prefix.size() << " were before";
    }
    const auto mismatch = std::mismatch(prefix.begin(), prefix.end(), names.begin());
    if (mismatch.first != prefix.end()) {
        return ::testing::AssertionFailure() << *mismatch.second << " where " << *mismatch.first << " was before";
    }
    return ::testing::AssertionSuccess();
}

std::size_t TemporaryFiles(const TempDir& local) {
    std::size_t count = 0;
    for (const auto& file : std::filesystem::directory_iterator(local.path())) {
        count += file.path().filename().string().find(".tmp") != std::string::npos;
    }
    return count;
}

// Kill moments spread over the first 120 ms after the child's first entry, no two alike, in
// shuffled order.
std::vector<std::chrono::microseconds> KillDelays(std::mt19937& random) {
    std::vector<std::chrono::microseconds> delays;
    const auto slot = kLatestKill / kKills;
    std::uniform_int_distribution<std::int64_t> within(0, slot.count() - 1);
    for (int i = 0; i < kKills; ++i) delays.push_back(slot * i + std::chrono::microseconds(within(random)));
    std::shuffle(delays.begin(), delays.end(), random);
    return delays;
}

class KillTest : public ::testing::TestWithParam<KillCase> {};

TEST_P(KillTest, EveryKillLeavesWhatWasWrittenWholeAndInOrder) {
    const KillCase& kind = GetParam();
    TempDir package, local;
    package.Write("VelmoraConfig.json",
                  R"({"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true,"batchLimit":0}})");
    std::mt19937 random(20240611);
    const auto delays = KillDelays(random);

    std::vector<std::string> committed;  // what the previous kill left
    int roundsThatAdded = 0;
    int killsDuringSave = 0;
    for (int round = 0; round < kKills; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ChildProcess child(VELMORA_KILL_CHILD,
                           {kind.mode, package.path().string(), local.path().string(), std::to_string(round)},
                           package / "child.err");
        std::string line;
        ASSERT_TRUE(child.ReadLine(line, std::chrono::seconds(30))) << child.ErrorOutput();
        ASSERT_EQ(line, "ready");
        std::this_thread::sleep_for(delays[round]);
        const auto snapshot = kind.read(local);  // while the child is writing
        ASSERT_TRUE(child.Kill()) << "the child ended by itself:\n" << child.ErrorOutput();

        const auto after = kind.read(local);
        ASSERT_TRUE(GapFree(after));
        ASSERT_TRUE(StartsWith(snapshot, committed));
        ASSERT_TRUE(StartsWith(after, snapshot));
        // A kill in the middle of a save leaves the save's temporary file; the next start clears it.
        if (TemporaryFiles(local) > 0) ++killsDuringSave;
        kind.reload(package, local, after);
        EXPECT_EQ(TemporaryFiles(local), 0u);
        if (after.size() > committed.size()) ++roundsThatAdded;
        committed = after;
    }
    // Every child wrote its first entry before it said it was ready; none of them was lost.
    EXPECT_EQ(roundsThatAdded, kKills);
    std::cout << "[ figures  ] " << kind.mode << ": " << kKills << " kills survived, " << committed.size()
              << " entries kept, " << roundsThatAdded << " rounds added entries, " << killsDuringSave
              << " kills left a save's temporary file\n";
}

INSTANTIATE_TEST_SUITE_P(Reliability, KillTest,
                         ::testing::Values(KillCase{"hits", ReadHits, ReloadHits},
                                           KillCase{"timed", ReadTimedActions, ReloadTimedActions},
                                           KillCase{"settings", ReadSettings, ReloadSettings}),
                         [](const auto& info) { return std::string(info.param.mode); });

}  // namespace
}  // namespace velmora::test

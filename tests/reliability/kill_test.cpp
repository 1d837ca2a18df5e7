// A child process writes one kind of persistent state without pause and is killed with SIGKILL at
// a different moment in each round. After every kill the state must read back whole: every entry
// the child made forms one gap-free sequence per round, everything seen in the file (or database)
// before the kill is still there in the same order, and a new runtime loads it without an error.
#include "child_process.h"
#include "runtime/runtime.h"
#include "timed_actions/timed_actions.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
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

// What one kind of state holds now, as entry names in stored order. Throws when it cannot be read
// at all; checks each entry's own content as it goes.
using Reader = std::vector<std::string> (*)(const TempDir& local);

std::vector<std::string> ReadTimedActions(const TempDir& local) {
    TimedActionMap actions;
    ParseTimedActionsFile(local.Read(TimedActionStore::kFileName), actions,
                          [](const std::string& name, const std::string& reason) {
                              ADD_FAILURE() << "unreadable timed action " << name << ": " << reason;
                          });
    std::vector<std::string> names;
    for (const auto& [name, action] : actions) {
        int round = 0, index = 0;
        if (ParseName(name, round, index)) {
            EXPECT_EQ(action.data.at("i"), std::to_string(index)) << name;
            // An update names the successor; it is either there or not yet applied.
            if (auto next = action.data.find("next"); next != action.data.end()) {
                EXPECT_EQ(next->second, std::to_string(index + 1)) << name;
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
    std::string error;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) error = sqlite3_errmsg(db);
    sqlite3_busy_timeout(db, 10000);
    auto query = [&](const char* sql, const std::function<void(sqlite3_stmt*)>& row) {
        sqlite3_stmt* statement = nullptr;
        int rc = error.empty() ? sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) : SQLITE_DONE;
        while (rc == SQLITE_OK && (rc = sqlite3_step(statement)) == SQLITE_ROW) {
            row(statement);
            rc = SQLITE_OK;
        }
        if (rc != SQLITE_DONE) error = std::string(sql) + ": " + sqlite3_errstr(rc) + " (" + sqlite3_errmsg(db) + ")";
        sqlite3_finalize(statement);
    };
    auto text = [](sqlite3_stmt* s) { return std::string(reinterpret_cast<const char*>(sqlite3_column_text(s, 0))); };
    // Before the first insert of a new database the table may not exist yet.
    bool hasTable = false;
    query("SELECT 1 FROM sqlite_master WHERE name = 'settings'", [&](sqlite3_stmt*) { hasTable = true; });
    if (hasTable) {
        query("PRAGMA integrity_check", [&](sqlite3_stmt* s) { EXPECT_EQ(text(s), "ok"); });
        query("SELECT key, value FROM settings ORDER BY key", [&](sqlite3_stmt* s) {
            int round = 0, index = 0;
            if (ParseName(text(s), round, index)) {
                EXPECT_EQ(sqlite3_column_int(s, 1), index) << text(s);
            }
            names.push_back(text(s));
        });
    }
    sqlite3_close(db);
    if (!error.empty()) throw std::runtime_error("cannot read the settings: " + error);
    return names;
}

// A new start on the directory loads the state without an error line and holds the last entry.
void ExpectReloads(const std::string& mode, const TempDir& package, const TempDir& local,
                   const std::vector<std::string>& names) {
    LogCapture log;
    if (mode == "settings") {  // the child used the store alone
        Logger logger(log.Sink());
        SettingsStore store(local.path(), logger);
        EXPECT_TRUE(store.Persistent());
        EXPECT_TRUE(names.empty() || store.HasKey(names.back()));
    } else {
        HostOptions options;
        options.packageDirectory = package.path();
        options.localDirectory = local.path();
        options.logSink = log.Sink();
        options.internetAvailable = [] { return false; };
        Runtime runtime(options, std::make_shared<ManualClock>());
        if (mode == "hits") {
            EXPECT_EQ(runtime.Hits().SizeAfterPendingWork().get(), names.size());
        }
        if (mode == "timed") {
            EXPECT_TRUE(names.empty() || runtime.TimedActions().Exists(names.back()).get());
            EXPECT_FALSE(runtime.TimedActions().Exists("r999n999999").get());
        }
        runtime.Shutdown(std::chrono::seconds(10), false);
    }
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

std::size_t TemporaryFiles(const TempDir& local) {
    std::size_t count = 0;
    for (const auto& file : std::filesystem::directory_iterator(local.path())) {
        count += file.path().filename().string().find(".tmp") != std::string::npos;
    }
    return count;
}

class KillTest : public ::testing::TestWithParam<std::pair<const char*, Reader>> {};

TEST_P(KillTest, EveryKillLeavesWhatWasWrittenWholeAndInOrder) {
    const auto [mode, read] = GetParam();
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
    int roundsThatAdded = 0, killsDuringSave = 0;
    for (int round = 0; round < kKills; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ChildProcess child(VELMORA_KILL_CHILD, {mode, package.path().string(), local.path().string(), std::to_string(round)},
                           package / "child.err");
        std::string line;
        ASSERT_TRUE(child.ReadLine(line, std::chrono::seconds(30))) << child.ErrorOutput();
        ASSERT_EQ(line, "ready");
        std::this_thread::sleep_for(delays[round]);
        const auto snapshot = read(local);  // while the child is writing
        ASSERT_TRUE(child.Kill()) << "the child ended by itself:\n" << child.ErrorOutput();

        const auto after = read(local);
        ASSERT_TRUE(GapFree(after));
        ASSERT_TRUE(StartsWith(snapshot, committed)) << snapshot.size() << " entries, " << committed.size() << " before";
        ASSERT_TRUE(StartsWith(after, snapshot)) << after.size() << " entries, " << snapshot.size() << " before";
        // A kill in the middle of a save leaves the save's temporary file; the next start clears it.
        if (TemporaryFiles(local) > 0) ++killsDuringSave;
        ExpectReloads(mode, package, local, after);
        EXPECT_EQ(TemporaryFiles(local), 0u);
        roundsThatAdded += after.size() > committed.size();
        committed = after;
    }
    // Every child wrote its first entry before it said it was ready; none of them was lost.
    EXPECT_EQ(roundsThatAdded, kKills);
    std::cout << "[ figures  ] " << mode << ": " << kKills << " kills survived, " << committed.size()
              << " entries kept, " << killsDuringSave << " kills left a save's temporary file\n";
}

INSTANTIATE_TEST_SUITE_P(Reliability, KillTest,
                         ::testing::Values(std::pair<const char*, Reader>{"hits", QueuedNames},
                                           std::pair<const char*, Reader>{"timed", ReadTimedActions},
                                           std::pair<const char*, Reader>{"settings", ReadSettings}),
                         [](const auto& info) { return std::string(info.param.first); });

}  // namespace
}  // namespace velmora::test

#include "analytics/values.h"
#include "core/clock.h"
#include "core/config.h"
#include "core/file_store.h"
#include "core/network.h"
#include "core/serial_queue.h"
#include "core/utf8.h"
#include "support/test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <sched.h>
#include <sqlite3.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>

namespace velmora {
namespace {

using test::LogCapture;
using test::TempDir;

// The loaded record in one line, so that each file's expectation fits in a table row.
std::string Describe(const ConfigSettings& c) {
    std::ostringstream text;
    text << c.version << " p" << c.Privacy() << " lt" << c.lifecycleTimeout << " " << c.charset << " vt" << c.vantorTimeout;
    for (const auto& p : c.pointsOfInterest) text << " " << p.name << "@" << p.latitude << "," << p.longitude << "/" << p.radius;
    if (ModuleGates(c).Analytics()) text << " analytics";  // report suites and server, both
    return text.str();
}

constexpr const char *kFolder = "<folder>", *kLoop = "<loop>";

struct ConfigCase {
    const char *name, *file;  // file nullptr: none at all; kFolder: a directory of that name; kLoop: a link to itself
    std::int32_t stored;      // privacy status in the settings; 0: none
    const char *expected, *line;  // Describe() of the result; a line that must be logged, the only error allowed
};
const ConfigCase kConfigCases[] = {
    {"no file", nullptr, 0, " p0 lt0  vt0", "Velmora Error:Config - Unable to find local VelmoraConfig.json file"},
    {"unreadable", kFolder, 0, " p0 lt0  vt0", "Velmora Error:Config - Unable to load local config file (Is a directory)"},
    {"a link loop", kLoop, 0, " p0 lt0  vt0", "Velmora Error:Config - Unable to load local config file (Too many levels of symbolic links)"},
    {"empty", "", 0, " p0 lt0  vt0", "Velmora Error:Config - Unable to parse local config file (empty or malformed json)"},
    {"analytics a number", "\xEF\xBB\xBF{\"version\":\"2.0\",\"analytics\":5}", 0, "2.0 p0 lt0  vt0", "Velmora Debug:Config - Vantor not configured"},
    {"wrong types", R"({"version":3,"analytics":{"lifecycleTimeout":"30","charset":5,"privacyDefault":2,"ssl":1,
                        "poi":{"p":["a",1,2,3]}},"vantor":{"timeout":"9"}})", 0, "1.0 p1 lt300 UTF-8 vt2", nullptr},
    {"truncation, opted out", R"({"analytics":{"lifecycleTimeout":12.9,"privacyDefault":"optedout"},"vantor":{"timeout":-3.7}})", 0,
     "1.0 p2 lt12 UTF-8 vt-3", nullptr},
    {"clamped, other case is opt-in", R"({"analytics":{"rsids":"r","lifecycleTimeout":1e40,"privacyDefault":"OptedOut"}})", 0,
     "1.0 p1 lt2147483647 UTF-8 vt0", nullptr},
    {"unknown without offline", R"({"analytics":{"server":"s","privacyDefault":"optunknown"}})", 0, "1.0 p1 lt300 UTF-8 vt0",
     "Velmora Warning:Analytics - Default privacy status cannot be Unknown when offline tracking is disabled, overriding to OptIn"},
    {"stored status wins", R"({"analytics":{"privacyDefault":"optedin"}})", 2, "1.0 p2 lt300 UTF-8 vt0", nullptr},
    {"stored out of range kept", R"({"analytics":{"rsids":"r","server":"s"}})", 7, "1.0 p7 lt300 UTF-8 vt0 analytics", nullptr},
    {"only well-formed points, unknown with offline", R"({"analytics":{"privacyDefault":"optunknown","offlineEnabled":true,
        "poi":[["a",40.7,-111.9,150],["b",1,2],[3,1,2,3],["e","1",2,3],["f",1,"2",3],["g",1,2,"3"],["c",1,2,3,4],
        ["d",1.5,2.5,0],"x"]}})", 0, "1.0 p3 lt300 UTF-8 vt0 a@40.7,-111.9/150 d@1.5,2.5/0", nullptr},
};

TEST(ConfigLoading, FollowsTheFileAndTheStoredStatus) {
    for (const ConfigCase& c : kConfigCases) {
        SCOPED_TRACE(c.name);
        TempDir package, local;
        LogCapture capture;
        Logger log(capture.Sink());
        log.SetDebugEnabled(true);
        if (c.file == kFolder) std::filesystem::create_directory(package / "VelmoraConfig.json");
        else if (c.file == kLoop) std::filesystem::create_symlink("VelmoraConfig.json", package / "VelmoraConfig.json");
        else if (c.file != nullptr) package.Write("VelmoraConfig.json", c.file);
        SettingsStore settings(local.path(), log);
        if (c.stored != 0) settings.Insert(kPrivacyStatusKey, c.stored);
        EXPECT_EQ(Describe(*LoadConfig(package.path(), settings, log)), c.expected);
        const std::string line = c.line ? c.line : "";
        EXPECT_TRUE(line.empty() || capture.Contains(line)) << line;
        // A file that gives no configuration is also named by its full path, once.
        const std::string path = "Velmora Error:Config - The config file looked for is " +
                                 (package / "VelmoraConfig.json").string() + " (velmora-check explains it)";
        EXPECT_EQ(capture.Count(path), line.rfind("Velmora Error:", 0) == 0 ? 1u : 0u);
        for (const auto& l : capture.Lines()) EXPECT_TRUE(l.rfind("Velmora Error:", 0) != 0 || l == line || l == path) << l;
    }
}

TEST(Clocks, ATimerTicksAgainAndAgainAWakerEndsASleepEarlyAndAManualSleepEndsAtItsDeadline) {
    SystemClock clock;
    std::atomic<int> ticks{0};
    const auto first = std::chrono::steady_clock::now();
    auto timer = clock.Every(std::chrono::milliseconds(5), [&] { ++ticks; });
    EXPECT_TRUE(test::WaitUntil([&] { return ticks >= 3; }));
    timer->Cancel();
    // Late ticks may catch up, but a timer never ticks more often than its period.
    const auto periods = (std::chrono::steady_clock::now() - first) / std::chrono::milliseconds(5);
    EXPECT_LE(ticks.load(), periods + 2);
    Waker waker;
    auto wake = clock.Every(std::chrono::milliseconds(20), [&waker] { waker.Wake(); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(clock.SleepFor(std::chrono::seconds(30), waker));
    // Woken without a notification, the sleep would still end false, but only after its full length.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << "the wake went unnoticed";
    wake->Cancel();
    ManualClock manual;  // its sleeper is counted until its deadline, in however many steps the time gets there
    Waker idle;
    auto slept = std::async(std::launch::async, [&] { return manual.SleepFor(std::chrono::seconds(2), idle); });
    ASSERT_TRUE(manual.AwaitSleepers(1));
    manual.Advance(std::chrono::seconds(1));
    EXPECT_TRUE(manual.AwaitSleepers(1, std::chrono::milliseconds(0))) << "asleep half way";
    manual.Advance(std::chrono::seconds(1));
    EXPECT_FALSE(manual.AwaitSleepers(1, std::chrono::milliseconds(0))) << "counted on its way out";
    EXPECT_TRUE(slept.get());
}

TEST(SettingsStore, EveryTypeSurvivesARestartAndAnInsertMayChangeTheType) {
    test::TestRuntime t;
    const std::map<std::string, SettingValue> values{
        {"int", std::int32_t{-42}}, {"flag", true}, {"text", std::string("1426000000")}, {"empty", std::string()},
        {"map", StringMap{{"segment", "gold"}, {"x y", "ü & ="}}}, {"changed", std::string("one")}};
    t.runtime->GetSettingsStore().Insert("changed", std::int32_t{1});
    for (const auto& [key, value] : values) t.runtime->GetSettingsStore().Insert(key, value);
    t.runtime->GetSettingsStore().Insert("gone", false);
    t.runtime->GetSettingsStore().Remove("gone");
    t.runtime.reset();
    auto next = t.Restart();
    for (const auto& [key, value] : values) EXPECT_EQ(next->GetSettingsStore().Lookup(key), value) << key;
    EXPECT_FALSE(next->GetSettingsStore().HasKey("gone"));
}

// The line names the file and what SQLite said of it, not only the kind of failure.
TEST(SettingsStore, AnUnusableFileFallsBackToMemoryWithOneLineNamingItAndTheCause) {
    TempDir dir;
    sqlite3* foreign = nullptr;  // another program's database under the same name
    sqlite3_open((dir / SettingsStore::kFileName).c_str(), &foreign);
    sqlite3_exec(foreign, "CREATE TABLE settings (key TEXT)", nullptr, nullptr, nullptr);
    sqlite3_close(foreign);
    for (const auto& [directory, cause] : {std::pair{dir / "missing" / "deeper", "open: unable to open database file"},
                                           std::pair{dir.path(), "prepare: no such column: type"}}) {
        LogCapture capture;
        Logger log(capture.Sink());
        SettingsStore store(directory, log);
        EXPECT_THAT(capture.Lines(), ::testing::ElementsAre(::testing::AllOf(::testing::HasSubstr(directory.string()),
                                                                             ::testing::HasSubstr(cause))));
        store.Insert("k", true);
        EXPECT_EQ(LookupBool(store, "k"), true);
    }
}

TEST(Logger, GatesDebugAndWarningButNeverErrorsAndHandsOverWholeLines) {
    std::vector<std::string> calls;
    Logger log([&](std::string_view line) { calls.emplace_back(line); });
    for (bool debug : {false, true}) {
        log.SetDebugEnabled(debug);
        log.Debug("Config - Analytics not configured");
        log.Warning("Analytics - Invalid privacy status was ignored (%d)", 7);
        log.Error("A - %s and %ld", "x", 5L);
    }
    log.Error("%s", std::string(Logger::kMaxMessage, 'x').c_str());  // one byte too many
    EXPECT_EQ(calls, (std::vector<std::string>{"Velmora Error:A - x and 5\n", "Velmora Debug:Config - Analytics not configured\n",
                                               "Velmora Warning:Analytics - Invalid privacy status was ignored (7)\n",
                                               "Velmora Error:A - x and 5\n",
                                               "Velmora Error:" + std::string(Logger::kMaxMessage - 1, 'x') + "\n"}));
    for (const char* unit : {"\xC3\xBC", "\x80"}) {  // a truncated line ends on a whole character, if it has one
        std::string text;
        while (text.size() < 20000) text += unit;
        log.Error("%s", text.c_str());
        EXPECT_EQ(calls.back(), "Velmora Error:" + text.substr(0, unit[1] ? Logger::kMaxMessage - 2 : 0) + "\n");
    }
    Logger broken([](std::string_view) { throw std::runtime_error("sink down"); });
    EXPECT_NO_THROW(broken.Error("Config - anything"));
}

TEST(FileStore, ReadingAFileRemovesTheTemporariesOfProcessesThatAreGone) {
    const pid_t gone = ::fork();  // a process that has ended, reaped
    if (gone == 0) ::_exit(0);
    ASSERT_GT(gone, 0);
    ::waitpid(gone, nullptr, 0);
    TempDir dir;
    FileStore files(dir.path());
    EXPECT_EQ(files.Read("f.json"), "") << "a missing file is created empty";
    files.WriteAtomic("f.json", std::string(100000, 'a'));
    files.WriteAtomic("f.json", "kept");
    const std::pair<std::string, bool> cases[] = {  // a temporary, whether reading removes it
        {"f.json.tmp" + std::to_string(gone) + "-3", true},        // killed while saving
        {"f.json.tmp" + std::to_string(::getpid()) + "-9", false},  // this process: may be saving now
        {"f.json.tmp1-0", false},                                   // a process that still runs
        {"g.json.tmp" + std::to_string(gone) + "-3", false},        // another file's: its owner clears it
    };
    for (const auto& [name, removed] : cases) dir.Write(name, "partial");
    EXPECT_EQ(files.Read("f.json"), "kept");
    for (const auto& [name, removed] : cases) EXPECT_EQ(std::filesystem::exists(dir / name), !removed) << name;
    std::filesystem::create_symlink("/proc/self/status", dir / "p.json");  // its size is 0: the size is only a hint
    EXPECT_NE(files.Read("p.json").find("\nPid:\t"), std::string::npos);
    std::filesystem::create_directory(dir / "d.json");  // opens, but every read fails
    EXPECT_THAT([&] { files.Read("d.json"); },
                ::testing::ThrowsMessage<std::exception>("Cannot read " + (dir / "d.json").string() + ": Is a directory"));
}

struct Queues : ::testing::Test {
    LogCapture capture;
    Logger log{capture.Sink()};
    Executor executor{std::chrono::milliseconds(1)};
};

TEST_F(Queues, RunOneClosureAtATimeInEachPostersOrder) {
    std::vector<std::pair<int, int>> seen;  // touched only by the queue's closures
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    {
        SerialQueue queue("Test", log, executor);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 500; ++i) queue.Post([&, t, i] {
                    if (running.fetch_add(1) != 0) overlapped = true;
                    seen.emplace_back(t, i);
                    running.fetch_sub(1);
                });
            });
        }
        for (auto& thread : threads) thread.join();
    }  // shutdown runs everything that was posted
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(seen.size(), 2000u);
    std::vector<int> next(4, 0);
    for (auto [t, i] : seen) EXPECT_EQ(i, next[t]++) << "thread " << t;
}

TEST_F(Queues, LogThrowingClosuresAndDropLatePosts) {
    SerialQueue queue("Media", log, executor);
    queue.Post([] { throw std::invalid_argument("invalid stoi argument"); });
    EXPECT_EQ(queue.Submit([]() -> int { throw std::out_of_range("out of range"); }).get(), 0);
    EXPECT_EQ(queue.Submit([] { return 42; }).get(), 42);
    EXPECT_FALSE(queue.Submit([&] { return queue.Drain(std::chrono::seconds(1)); }).get()) << "it cannot wait for itself";
    queue.Shutdown();
    EXPECT_EQ(queue.Submit([] { return 5; }).get(), 0);
    std::atomic<bool> finished{false}, joined{false};
    executor.Run([&finished] { std::this_thread::sleep_for(std::chrono::milliseconds(20)), finished = true; });
    executor.Run([&] { executor.Shutdown(), joined = finished.load(); });  // joins the other worker, lets its own go
    EXPECT_TRUE(test::WaitUntil([&] { return executor.Workers() == 0; }));
    EXPECT_TRUE(joined);
    EXPECT_FALSE(executor.Run([] {})) << "taken after its shutdown, never to run";
    EXPECT_EQ(SerialQueue("Late", log, executor).Submit([] { return 7; }).get(), 7) << "run by the poster instead";
    EXPECT_EQ(capture.Lines(), (std::vector<std::string>{
                                   "Velmora Error:Media - Unexpected error in background work (invalid stoi argument)",
                                   "Velmora Error:Media - Unexpected error in background work (out of range)",
                                   "Velmora Error:Media - Work posted after shutdown was dropped"}));
}

// Queues that wait on a slow server or on each other must not hold up the rest: a queue with work
// gets a worker even while every kept worker is busy, up to the limit.
TEST_F(Queues, GetAnotherWorkerWhileTheKeptOnesAreBusyUpToTheLimit) {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<std::size_t> started{0};
    std::vector<std::unique_ptr<SerialQueue>> blocked;
    ASSERT_TRUE(SerialQueue("Done", log, executor).Submit([] { return true; }).get());  // a worker that has worked counts as idle
    for (std::size_t i = 0; i < Executor::kMaxWorkers; ++i) {
        blocked.push_back(std::make_unique<SerialQueue>("Blocked", log, executor));
        blocked.back()->Post([&started, released] { ++started; released.wait(); });
    }
    const bool eachGotAWorker = test::WaitUntil([&] { return started == Executor::kMaxWorkers; });
    SerialQueue beyond("Beyond", log, executor);
    auto ran = beyond.Submit([] { return true; });
    const std::size_t workers = executor.Workers();
    release.set_value();
    EXPECT_TRUE(eachGotAWorker);
    EXPECT_EQ(workers, Executor::kMaxWorkers) << "no worker past the limit";
    EXPECT_EQ(ran.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    ASSERT_TRUE(test::WaitUntil([&] { return executor.Workers() == Executor::kKeptWorkers; })) << "the others leave";
    std::promise<void> hold;
    const std::shared_future<void> held = hold.get_future().share();
    for (int i = 0; i < 3; ++i) executor.Run([held] { held.wait(); });
    EXPECT_LE(executor.Threads(), Executor::kKeptWorkers + 3) << "a worker started (three tasks, two kept) joins those that left";
    hold.set_value();
}

// Each maximal ill-formed part becomes one U+FFFD; what is valid stays as it is.
TEST(Utf8, ReplacesEachIllFormedPartAndKeepsValidText) {
    const std::string r = "\xEF\xBF\xBD", valid = "\xC2\xA9\xC3\x80\xDF\xBF \xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBF \xF0\x9F\x8E\x89\xF4\x8F\xBF\xBF";
    const std::pair<std::string, std::string> cases[] = {
        {"", ""}, {std::string("ascii ~\x7F\0", 9), std::string("ascii ~\x7F\0", 9)}, {valid, valid},
        {"\xC0\xAF|\xC1\xBF", r + r + "|" + r + r},               // overlong two-byte forms
        {"\xE0\x80\xAF|\xF0\x8F\xBF\xBF", r + r + r + "|" + r + r + r + r},  // overlong three- and four-byte
        {"\xED\xA0\x80|\xED\xBF\xBF|\xED\x9F\xBF", r + r + r + "|" + r + r + r + "|\xED\x9F\xBF"},  // surrogates
        {"a\xE2\x82", "a" + r}, {"a\xF0\x9F\x8E", "a" + r}, {"\xC3", r},  // cut short at the end
        {"\xF0\x9F\x8Ex\xE2\x82\xC3\xA9", r + "x" + r + "\xC3\xA9"},  // cut short before another character
        {"\x80x\xBF\xBF", r + "x" + r + r},                      // lone continuation bytes
        {"\xF4\x90\x80\x80|\xF5\x80|\xFF\xFE", r + r + r + r + "|" + r + r + "|" + r + r},  // above U+10FFFF
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(ToValidUtf8(text), expected) << text;
        EXPECT_EQ(IsValidUtf8(text), text == expected) << text;
    }
    // Context data enters through the value translation: keys and string values alike.
    EXPECT_EQ(TranslateContextData({{"k\xFF", std::string("v\xC0")}, {"n", 2}}, Logger()),
              (StringMap{{"k" + r, "v" + r}, {"n", "2"}}));
}

// The kernel's view of the network, in a network namespace of a forked child, so that routes can be
// made and removed without touching the machine's own; no packet is sent.
struct Step { const char* command; bool routeOffHost; };
const Step kSteps[] = {
    {"true", false},  // lo down; only the kernel's rejecting ::/0 on lo
    {"ip link set lo up && ip route add default dev lo", false},
    {"ip link add v0 type veth peer name v1 && ip link set v0 up && ip link set v1 up", false},
    {"ip route replace default dev v0", true},
    {"ip link set v1 down", false},  // no carrier
    {"ip link set v1 up", true}, {"ip route replace unreachable default", false}, {"ip route replace blackhole default", false},
    {"ip route del default && ip -6 route add default dev v0", true}, {"ip link set v0 down", false},
};

// What each monitor got wrong after each step, one line each; first the table reads of two
// questions without a change in between.
std::string Mistakes() {
    RouteMonitor watching, polling(false);
    for (RouteMonitor* monitor : {&watching, &polling, &watching, &polling}) monitor->RouteOffHost();
    std::string out = watching.TableReads() == 1 && polling.TableReads() == 2 ? "" : "tables read again without a change\n";
    for (const Step& step : kSteps) {
        if (std::system(step.command) != 0) out += std::string("failed: ") + step.command + "\n";
        for (RouteMonitor* monitor : {&watching, &polling}) {
            // A carrier change reaches the interface flags a moment after the command returns.
            if (!test::WaitUntil([&] { return monitor->RouteOffHost() == step.routeOffHost; }, std::chrono::seconds(5))) {
                out += (monitor == &polling ? "polling, " : "watching, ") + std::string(step.command) + "\n";
            }
        }
    }
    return out;
}

// A daemon usually starts with its standard input closed: descriptor 0 is then the monitor's socket,
// or the query socket of a table read, and is used and closed like any other.
TEST(RouteMonitor, ADaemonWithoutStandardInputUsesAndClosesDescriptorZero) {
    test::WithoutStandardInput daemon;
    ASSERT_GE(daemon.saved, 0);
    const auto before = test::OpenDescriptors();
    std::size_t reads = 0;
    std::vector<long> after;
    for (bool watch : {true, false}) {
        RouteMonitor monitor(watch);
        for (int i = 0; i < 3; ++i) monitor.RouteOffHost();
        if (watch) reads = monitor.TableReads();
        after.push_back(test::OpenDescriptors());
    }
    after.push_back(test::OpenDescriptors());
    EXPECT_LT(reads, 3u) << "the socket on descriptor 0 went unused";  // one change may come meanwhile
    EXPECT_EQ(after, (std::vector<long>{before + 1, before, before}));
}

TEST(RouteMonitor, AnswersWhetherADefaultRouteLeavesTheHostAndReadsTheTablesOnlyAfterAChange) {
    if (std::system("unshare --net ip link add v0 type veth peer name v1 >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "no network namespace can be made here with a veth pair (needs CAP_SYS_ADMIN, iproute2 and veth)";
    }
    // The child runs in a namespace of its own and prints what it got wrong, which a failure shows.
    EXPECT_EXIT({
        const std::string got = ::unshare(CLONE_NEWNET) == 0 ? Mistakes() : "unshare failed";
        std::fputs(got.c_str(), stderr);
        std::_Exit(got.empty() ? 0 : 1);
    }, ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace velmora

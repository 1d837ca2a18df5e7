#include "core/clock.h"
#include "core/config.h"
#include "core/file_store.h"
#include "core/serial_queue.h"
#include "support/test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <sstream>
#include <sys/wait.h>

namespace velmora {
namespace {

using ::testing::HasSubstr;
using test::LogCapture;
using test::TempDir;

// The loaded record in one line, so that each file's expectation fits in a table row.
std::string Describe(const ConfigSettings& c) {
    std::ostringstream text;
    text << c.version << " p" << c.Privacy() << " lt" << c.lifecycleTimeout << " " << c.charset << " vt" << c.vantorTimeout;
    for (const auto& p : c.pointsOfInterest) text << " " << p.name << "@" << p.latitude << "," << p.longitude << "/" << p.radius;
    return text.str();
}

struct ConfigCase {
    const char *name, *file;  // file nullptr: none at all; kFolder: a directory of the file's name
    std::int32_t stored;      // privacy status in the settings; 0: none
    const char *expected, *line;  // Describe() of the result; a line that must be logged, the only error allowed
};

constexpr const char* kFolder = "<folder>";

void PrintTo(const ConfigCase& c, std::ostream* os) { *os << c.name; }

class ConfigLoading : public ::testing::TestWithParam<ConfigCase> {};

TEST_P(ConfigLoading, FollowsTheFileAndTheStoredStatus) {
    const auto& c = GetParam();
    TempDir package, local;
    LogCapture capture;
    Logger log(capture.Sink());
    log.SetDebugEnabled(true);
    if (c.file == kFolder) std::filesystem::create_directory(package / "VelmoraConfig.json");
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

constexpr const char* kDefaults = "1.0 p1 lt300 UTF-8 vt0";

INSTANTIATE_TEST_SUITE_P(
    Files, ConfigLoading,
    ::testing::Values(
        ConfigCase{"NoFile", nullptr, 0, " p0 lt0  vt0", "Velmora Error:Config - Unable to find local VelmoraConfig.json file"},
        ConfigCase{"Unreadable", kFolder, 0, " p0 lt0  vt0", "Velmora Error:Config - Unable to load local config file (Is a directory)"},
        ConfigCase{"Empty", "", 0, " p0 lt0  vt0", "Velmora Error:Config - Unable to parse local config file (empty or malformed json)"},
        ConfigCase{"Malformed", "{\"analytics\": {", 0, " p0 lt0  vt0",
                   "Velmora Error:Config - Unable to parse local config file (empty or malformed json)"},
        ConfigCase{"OnlyVersion", "\xEF\xBB\xBF{\"version\":\"2.0\"}", 0, "2.0 p0 lt0  vt0", "Velmora Debug:Config - Vantor not configured"},
        ConfigCase{"WrongTypes", R"({"version":3,"analytics":{"lifecycleTimeout":"30","charset":5,"privacyDefault":2},
                                    "vantor":{"timeout":"9"}})", 0, "1.0 p1 lt300 UTF-8 vt2", nullptr},
        ConfigCase{"Truncation", R"({"analytics":{"lifecycleTimeout":12.9},"vantor":{"timeout":-3.7}})", 0, "1.0 p1 lt12 UTF-8 vt-3", nullptr},
        ConfigCase{"Clamped", R"({"analytics":{"lifecycleTimeout":1e40}})", 0, "1.0 p1 lt2147483647 UTF-8 vt0", nullptr},
        ConfigCase{"OptedOut", R"({"analytics":{"privacyDefault":"optedout"}})", 0, "1.0 p2 lt300 UTF-8 vt0", nullptr},
        ConfigCase{"OtherCaseIsOptIn", R"({"analytics":{"privacyDefault":"OptedOut"}})", 0, kDefaults, nullptr},
        ConfigCase{"UnknownWithoutOffline", R"({"analytics":{"privacyDefault":"optunknown"}})", 0, kDefaults,
                   "Velmora Warning:Analytics - Default privacy status cannot be Unknown when offline tracking is "
                   "disabled, overriding to OptIn"},
        ConfigCase{"UnknownWithOffline", R"({"analytics":{"privacyDefault":"optunknown","offlineEnabled":true}})", 0,
                   "1.0 p3 lt300 UTF-8 vt0", nullptr},
        ConfigCase{"StoredStatusWins", R"({"analytics":{"privacyDefault":"optedin"}})", 2, "1.0 p2 lt300 UTF-8 vt0", nullptr},
        ConfigCase{"StoredOutOfRangeKept", R"({"analytics":{}})", 7, "1.0 p7 lt300 UTF-8 vt0", nullptr},
        ConfigCase{"OnlyWellFormedPoints", R"({"analytics":{"poi":[["a",40.7,-111.9,150],["b",1,2],[3,1,2,3],
                                              ["c",1,2,3,4],["d",1.5,2.5,0],"x"]}})", 0,
                   "1.0 p1 lt300 UTF-8 vt0 a@40.7,-111.9/150 d@1.5,2.5/0", nullptr}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(SystemClock, ATimerTicksAgainAndAgainAndAWakerEndsASleepEarly) {
    SystemClock clock;
    std::mutex mutex;
    std::condition_variable ticked;
    int ticks = 0;
    auto timer = clock.Every(std::chrono::milliseconds(5), [&] {
        std::lock_guard lock(mutex);
        ++ticks;
        ticked.notify_all();
    });
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(ticked.wait_for(lock, std::chrono::seconds(10), [&] { return ticks >= 3; }));
    }
    timer->Cancel();
    Waker waker;
    auto wake = clock.Every(std::chrono::milliseconds(20), [&waker] { waker.Wake(); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(clock.SleepFor(std::chrono::seconds(30), waker));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << "the wake went unnoticed";
    wake->Cancel();
}

TEST(SettingsStore, EveryTypeSurvivesARestartAndAnInsertMayChangeTheType) {
    test::TestRuntime t;
    const std::map<std::string, SettingValue> values{
        {"int", std::int32_t{-42}}, {"flag", true}, {"text", std::string("1426000000")}, {"empty", std::string()},
        {"map", StringMap{{"segment", "gold"}, {"x y", "ü & ="}}}, {"changed", std::string("one")}};
    t.runtime->Settings().Insert("changed", std::int32_t{1});
    for (const auto& [key, value] : values) t.runtime->Settings().Insert(key, value);
    t.runtime->Settings().Insert("gone", false);
    t.runtime->Settings().Remove("gone");
    t.runtime.reset();
    auto next = t.Restart();
    for (const auto& [key, value] : values) EXPECT_EQ(next->Settings().Lookup(key), value) << key;
    EXPECT_FALSE(next->Settings().HasKey("gone"));
}

TEST(SettingsStore, UnopenableDirectoryFallsBackToMemoryWithOneLineNamingIt) {
    TempDir dir;
    LogCapture capture;
    Logger log(capture.Sink());
    SettingsStore store(dir / "missing" / "deeper", log);
    EXPECT_THAT(capture.Lines(), ::testing::ElementsAre(HasSubstr((dir / "missing" / "deeper").string())));
    store.Insert("k", true);
    EXPECT_EQ(LookupBool(store, "k"), true);
}

TEST(FileStore, WritesReplaceTheDocumentWholeOrNotAtAll) {
    TempDir dir;
    FileStore files(dir.path());
    EXPECT_EQ(files.Read("f.json"), "") << "a missing file is created empty";
    files.WriteAtomic("f.json", std::string(100000, 'a'));
    files.WriteAtomic("f.json", "old");
    {
        test::FileSizeLimit full(4096);
        EXPECT_THROW(files.WriteAtomic("f.json", std::string(100000, 'n')), std::runtime_error);
    }
    EXPECT_EQ(files.Read("f.json"), "old");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1) << "no temporary file stays";
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
    log.Error("%s", std::string(20000, 'x').c_str());
    EXPECT_EQ(calls, (std::vector<std::string>{"Velmora Error:A - x and 5\n", "Velmora Debug:Config - Analytics not configured\n",
                                               "Velmora Warning:Analytics - Invalid privacy status was ignored (7)\n",
                                               "Velmora Error:A - x and 5\n",
                                               "Velmora Error:" + std::string(Logger::kMaxMessage - 1, 'x') + "\n"}));
    std::string wide;
    while (wide.size() < 20000) wide += "\xC3\xBC";
    log.Error("x%s", wide.c_str());
    EXPECT_EQ(calls.back().substr(calls.back().size() - 3), "\xC3\xBC\n") << "a truncated line ends on a whole character";
    EXPECT_EQ(FormatMapForLog({{"b", "2"}, {"a", "1"}}), "\n    a = 1\n    b = 2");
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
    files.WriteAtomic("f.json", "kept");
    const struct {
        std::string name;
        bool removed;
    } cases[] = {
        {"f.json.tmp" + std::to_string(gone) + "-3", true},        // killed while saving
        {"f.json.tmp" + std::to_string(::getpid()) + "-9", false},  // this process: may be saving now
        {"f.json.tmp1-0", false},                                   // a process that still runs
        {"g.json.tmp" + std::to_string(gone) + "-3", false},        // another file's: its owner clears it
    };
    for (const auto& c : cases) dir.Write(c.name, "partial");
    EXPECT_EQ(files.Read("f.json"), "kept");
    for (const auto& c : cases) EXPECT_EQ(std::filesystem::exists(dir / c.name), !c.removed) << c.name;
}

}  // namespace
}  // namespace velmora

#include "core/file_store.h"
#include "core/settings_store.h"
#include "support/test_support.h"

#include <gtest/gtest.h>
#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velmora {
namespace {

using test::LogCapture;
using test::TempDir;

TEST(SettingsStore, EveryTypeSurvivesANewConnection) {
    TempDir dir;
    Logger log;
    const StringMap profile{{"segment", "gold"}, {"x y", "ü & ="}};
    {
        SettingsStore store(dir.path(), log);
        EXPECT_TRUE(store.Persistent());
        store.Insert("int", std::int32_t{-42});
        store.Insert("flag", true);
        store.Insert("text", std::string("1426000000"));
        store.Insert("map", profile);
        store.Insert("empty", std::string());
        store.Insert("gone", std::int32_t{1});
        store.Remove("gone");
        store.Remove("never-there");
    }
    SettingsStore store(dir.path(), log);
    EXPECT_EQ(store.Lookup("int"), SettingValue(std::int32_t{-42}));
    EXPECT_EQ(store.Lookup("flag"), SettingValue(true));
    EXPECT_EQ(store.Lookup("text"), SettingValue(std::string("1426000000")));
    EXPECT_EQ(store.Lookup("map"), SettingValue(profile));
    EXPECT_EQ(store.Lookup("empty"), SettingValue(std::string()));
    EXPECT_FALSE(store.HasKey("gone"));
    EXPECT_FALSE(store.Lookup("missing").has_value());
}

TEST(SettingsStore, InsertReplacesAndMayChangeTheType) {
    TempDir dir;
    Logger log;
    SettingsStore store(dir.path(), log);
    store.Insert("k", std::int32_t{1});
    store.Insert("k", std::string("one"));
    EXPECT_EQ(store.Lookup("k"), SettingValue(std::string("one")));
    EXPECT_FALSE(LookupInt32(store, "k").has_value());
    EXPECT_EQ(LookupText(store, "k"), "one");
}

TEST(SettingsStore, UnopenableDirectoryFallsBackToMemoryWithOneLine) {
    TempDir dir;
    LogCapture capture;
    Logger log(capture.Sink());
    SettingsStore store(dir / "missing" / "deeper", log);
    EXPECT_FALSE(store.Persistent());
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_NE(capture.Lines()[0].find((dir / "missing" / "deeper").string()), std::string::npos);
    store.Insert("k", true);
    EXPECT_EQ(LookupBool(store, "k"), true);
}

TEST(FileStore, MissingFileIsCreatedEmpty) {
    TempDir dir;
    FileStore files(dir.path());
    EXPECT_EQ(files.Read("VelmoraDataCache.json"), "");
    EXPECT_TRUE(std::filesystem::exists(dir / "VelmoraDataCache.json"));
}

TEST(FileStore, SecondSaveReplacesTheFirstWhole) {
    TempDir dir;
    FileStore files(dir.path());
    files.WriteAtomic("f.json", std::string(100000, 'a'));
    files.WriteAtomic("f.json", "{\"Hits\":[]}");
    EXPECT_EQ(files.Read("f.json"), "{\"Hits\":[]}");
    std::size_t entries = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.path())) ++entries;
    EXPECT_EQ(entries, 1u) << "no temporary file may stay behind";
}

TEST(FileStore, FullDiskLeavesTheOldDocumentWhole) {
    // A file-size limit makes write() fail as a full disk would, for root as well.
    TempDir dir;
    FileStore files(dir.path());
    files.WriteAtomic("f.json", "old");
    struct rlimit saved {};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    auto previous = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = saved;
    small.rlim_cur = 4096;
    ::setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_THROW(files.WriteAtomic("f.json", std::string(100000, 'n')), std::runtime_error);
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    EXPECT_EQ(files.Read("f.json"), "old");
    std::size_t entries = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.path())) ++entries;
    EXPECT_EQ(entries, 1u);
}

TEST(FileStore, UnwritableDirectoryThrowsWithThePath) {
    TempDir dir;
    dir.Write("blocker", "x");
    FileStore files(dir / "blocker");  // a file where the directory should be
    try {
        files.WriteAtomic("f.json", "new");
        FAIL() << "expected a failure";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find((dir / "blocker").string()), std::string::npos) << e.what();
    }
}

TEST(FileStore, ReadingAFileRemovesTheTemporariesOfProcessesThatAreGone) {
    // The pid of a process that has ended: a child that exits at once, reaped.
    const pid_t gone = ::fork();
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
        {"f.json.tmpx", false},                                     // not a name the store makes
    };
    for (const auto& c : cases) dir.Write(c.name, "partial");
    EXPECT_EQ(files.Read("f.json"), "kept");
    for (const auto& c : cases) EXPECT_EQ(std::filesystem::exists(dir / c.name), !c.removed) << c.name;
}

}  // namespace
}  // namespace velmora

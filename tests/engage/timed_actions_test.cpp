#include "engage_support.h"
#include "lifecycle/timed_actions.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <optional>

namespace velmora {
namespace {

using test::FailingFiles;
using test::LogCapture;
using test::RecordingTracker;
using test::TempDir;

constexpr std::int64_t kStart = 1'426'000'000;

struct TimedActionsTest : ::testing::Test {
    TimedActionsTest() { log.SetDebugEnabled(true); }

    std::unique_ptr<TimedActionStore> Open() {
        return std::make_unique<TimedActionStore>(files, tracker, clock, log);
    }
    // Moves the clock once everything posted so far has run at the old time.
    void At(TimedActionStore& store, std::int64_t seconds) {
        ASSERT_TRUE(store.Flush(std::chrono::seconds(10)));
        clock.SetMillis(seconds * 1000);
    }
    std::string File() const { return dir.Read(TimedActionStore::kFileName); }
    static bool Exists(TimedActionStore& store, const std::string& name) { return store.Exists(name).get(); }

    TempDir dir;
    LogCapture capture;
    Logger log{capture.Sink()};
    ManualClock clock{kStart * 1000};
    FailingFiles files{dir.path()};
    RecordingTracker tracker;
};

TEST_F(TimedActionsTest, PausedTimeCountsInTheTotalButNotInTheApplication) {
    auto store = Open();
    store->Shift(500);  // nothing runs yet: no action may pick this pause up later
    store->Start("a", {{"step", "2"}});
    At(*store, kStart + 150);
    store->Shift(100);
    ASSERT_TRUE(Exists(*store, "a"));
    EXPECT_EQ(File(), R"({"Actions":[{"name":"a","start":1426000000,"adjusted":1426000100,"data":{"step":"2"}}]})");

    At(*store, kStart + 200);
    store->End("a");
    EXPECT_FALSE(Exists(*store, "a"));
    const auto hits = tracker.Hits();
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_FALSE(hits[0].internal);
    EXPECT_EQ(hits[0].name, "a");
    EXPECT_EQ(hits[0].data,
              (StringMap{{"a.action.time.inapp", "100"}, {"a.action.time.total", "200"}, {"step", "2"}}));
    EXPECT_EQ(File(), R"({"Actions":[]})");
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(TimedActionsTest, StartingARunningNameRestartsItsTimesAndData) {
    auto store = Open();
    store->Start("a", {{"x", "1"}});
    store->Shift(40);
    At(*store, kStart + 50);
    store->Start("a", {{"y", "2"}});
    ASSERT_TRUE(Exists(*store, "a"));
    EXPECT_EQ(File(), R"({"Actions":[{"name":"a","start":1426000050,"adjusted":1426000050,"data":{"y":"2"}}]})");
    At(*store, kStart + 80);
    store->End("a");
    ASSERT_TRUE(Exists(*store, "a") == false);
    ASSERT_EQ(tracker.Hits().size(), 1u);
    EXPECT_EQ(tracker.Hits()[0].data,
              (StringMap{{"a.action.time.inapp", "30"}, {"a.action.time.total", "30"}, {"y", "2"}}));
}

TEST_F(TimedActionsTest, RunningActionsSurviveARestartAndUpdatesMerge) {
    {
        auto store = Open();
        store->Start("checkout", {{"step", "1"}, {"keep", "k"}});
        store->Start("browse", {});
        store->Update("checkout", {{"step", "2"}, {"a.action.time.total", "caller"}});
        ASSERT_TRUE(Exists(*store, "checkout"));
    }
    EXPECT_EQ(File(),
              R"({"Actions":[{"name":"browse","start":1426000000,"adjusted":1426000000,"data":{}},)"
              R"({"name":"checkout","start":1426000000,"adjusted":1426000000,)"
              R"("data":{"a.action.time.total":"caller","keep":"k","step":"2"}}]})");
    clock.SetMillis((kStart + 7) * 1000);  // the first store has shut down
    auto store = Open();
    store->End("checkout");
    ASSERT_FALSE(Exists(*store, "checkout"));
    EXPECT_TRUE(Exists(*store, "browse"));
    ASSERT_EQ(tracker.Hits().size(), 1u);
    // The measured times replace a caller's value of the same key.
    EXPECT_EQ(tracker.Hits()[0].data, (StringMap{{"a.action.time.inapp", "7"},
                                                 {"a.action.time.total", "7"},
                                                 {"keep", "k"},
                                                 {"step", "2"}}));
}

TEST_F(TimedActionsTest, ABrokenElementIsSkippedAndTheOthersKept) {
    dir.Write(TimedActionStore::kFileName,
              R"({"Actions":[{"name":"bad","start":"soon"},)"
              R"({"name":"good","start":1425999900,"adjusted":1425999950.9,"data":{"k":"v"}},)"
              R"(7,{"name":"nums","data":{"k":1}},{"data":{"only":"data"}}]})");
    auto store = Open();
    EXPECT_TRUE(Exists(*store, "good"));
    EXPECT_TRUE(Exists(*store, "")) << "absent members leave the fields empty";
    EXPECT_FALSE(Exists(*store, "bad"));
    EXPECT_FALSE(Exists(*store, "nums"));

    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    const char* names[] = {"bad", "", "nums"};
    for (std::size_t i = 0; i < 3; ++i) {
        const std::string prefix = std::string("Velmora Error:Analytics - unable to parse timed action (\"") +
                                   names[i] + "\" - ";
        EXPECT_EQ(lines[i].rfind(prefix, 0), 0u) << lines[i];
        EXPECT_GT(lines[i].size(), prefix.size() + 1) << "the failure text is given";
        EXPECT_EQ(lines[i].back(), ')');
    }

    At(*store, kStart + 100);
    store->End("good");
    ASSERT_FALSE(Exists(*store, "good"));
    ASSERT_EQ(tracker.Hits().size(), 1u);
    EXPECT_EQ(tracker.Hits()[0].data,
              (StringMap{{"a.action.time.inapp", "150"}, {"a.action.time.total", "200"}, {"k", "v"}}));
}

TEST_F(TimedActionsTest, AnUnreadableFileStartsEmptyAndIsReplacedOnTheNextSave) {
    for (const char* text : {"not json", "[1,2]", R"({"Actions":5})", R"({"Other":[]})"}) {
        SCOPED_TRACE(text);
        capture.Clear();
        dir.Write(TimedActionStore::kFileName, text);
        auto store = Open();
        store->Start("fresh", {});
        ASSERT_TRUE(Exists(*store, "fresh"));
        const auto lines = capture.Lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].rfind("Velmora Error:Analytics - Unable to load timed actions (", 0), 0u) << lines[0];
        EXPECT_EQ(lines[0].substr(lines[0].size() - 2), ").");
        EXPECT_EQ(File(), R"({"Actions":[{"name":"fresh","start":1426000000,"adjusted":1426000000,"data":{}}]})");
    }
}

TEST_F(TimedActionsTest, AFirstStartReadsTheNewEmptyFileQuietly) {
    auto store = Open();
    EXPECT_FALSE(Exists(*store, "a"));
    EXPECT_TRUE(std::filesystem::exists(dir / TimedActionStore::kFileName));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(TimedActionsTest, BadInputIsRefusedWithItsLineAndChangesNothing) {
    struct Case {
        std::function<void(TimedActionStore&)> call;
        std::string line;
    };
    const std::vector<Case> cases = {
        {[](auto& s) { s.Start("", {{"k", "v"}}); },
         "Velmora Warning:Analytics - Cannot start timed action with a null or empty action name."},
        {[](auto& s) { s.Update("", {{"k", "v"}}); },
         "Velmora Warning:Analytics - Cannot update timed action with a null or empty action name."},
        {[](auto& s) { s.Update("missing", {}); },
         "Velmora Warning:Analytics - Cannot update timed action with blank context data, skipping."},
        {[](auto& s) { s.Update("running", {}); },
         "Velmora Warning:Analytics - Cannot update timed action with blank context data, skipping."},
        {[](auto& s) { s.Update("missing", {{"k", "v"}}); },
         "Velmora Warning:Analytics - Cannot find timed action to update (missing)."},
        {[](auto& s) { s.End(""); },
         "Velmora Warning:Analytics - Cannot end timed action with a null or empty action name."},
        {[](auto& s) { s.End("missing"); },
         "Velmora Warning:Analytics - Ignoring attempt to end timed action that had not yet begun (missing)."},
    };
    auto store = Open();
    store->Start("running", {{"k", "v"}});
    ASSERT_TRUE(Exists(*store, "running"));
    const std::string file = File();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        capture.Clear();
        c.call(*store);
        ASSERT_TRUE(Exists(*store, "running"));
        EXPECT_EQ(capture.Lines(), std::vector<std::string>{c.line});
        EXPECT_EQ(File(), file);
        EXPECT_TRUE(tracker.Hits().empty());
    }
}

TEST_F(TimedActionsTest, AFailedSaveIsLoggedAndTheActionKeepsRunning) {
    auto store = Open();
    ASSERT_FALSE(Exists(*store, "a"));
    files.failWrites = true;
    store->Start("a", {{"k", "v"}});
    ASSERT_TRUE(Exists(*store, "a"));
    EXPECT_EQ(capture.Lines(),
              std::vector<std::string>{"Velmora Error:Analytics - Unable to save timed actions file (disk full)."});
    EXPECT_EQ(File(), "");
    At(*store, kStart + 3);
    store->End("a");
    ASSERT_FALSE(Exists(*store, "a"));
    ASSERT_EQ(tracker.Hits().size(), 1u);
    EXPECT_EQ(tracker.Hits()[0].data.at("a.action.time.total"), "3");
}

}  // namespace
}  // namespace velmora

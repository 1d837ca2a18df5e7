#include "engage_support.h"
#include "lifecycle/timed_actions.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

constexpr std::int64_t kStart = 1'426'000'000;

struct TimedActionsTest : ::testing::Test {
    TimedActionsTest() { log.SetDebugEnabled(true); }
    std::unique_ptr<TimedActionStore> Open() { return std::make_unique<TimedActionStore>(files, tracker, clock, log); }
    // Moves the clock once everything posted so far has run at the old time.
    void At(TimedActionStore& store, std::int64_t seconds) {
        ASSERT_TRUE(store.Flush(std::chrono::seconds(10)));
        clock.SetMillis(seconds * 1000);
    }
    std::string File() const { return dir.Read(TimedActionStore::kFileName); }

    test::TempDir dir;
    test::LogCapture capture;
    Logger log{capture.Sink()};
    ManualClock clock{kStart * 1000};
    test::FailingFiles files{dir.path()};
    test::RecordingTracker tracker;
};

TEST_F(TimedActionsTest, PausedTimeCountsInTheTotalButNotInTheApplication) {
    auto store = Open();
    store->Shift(500);  // nothing runs yet: no action may pick this pause up later
    store->Start("a", {{"step", "2"}, {"a.action.time.total", "caller"}});
    At(*store, kStart + 150);
    store->Shift(100);
    ASSERT_TRUE(store->Exists("a").get());
    EXPECT_EQ(File(), R"({"Actions":[{"name":"a","start":1426000000,"adjusted":1426000100,)"
                      R"("data":{"a.action.time.total":"caller","step":"2"}}]})");
    At(*store, kStart + 200);
    store->End("a");
    EXPECT_FALSE(store->Exists("a").get());
    ASSERT_EQ(tracker.Hits().size(), 1u);
    const auto hit = tracker.Hits()[0];
    EXPECT_FALSE(hit.internal);
    EXPECT_EQ(hit.name, "a");
    EXPECT_EQ(hit.data, (StringMap{{"a.action.time.inapp", "100"}, {"a.action.time.total", "200"}, {"step", "2"}}));
    EXPECT_EQ(File(), R"({"Actions":[]})");
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(TimedActionsTest, StartingARunningNameRestartsItAndUpdatesMergeAcrossARestart) {
    {
        auto store = Open();
        store->Start("a", {{"x", "1"}});
        store->Shift(40);
        At(*store, kStart + 50);
        store->Start("a", {{"y", "2"}, {"z", "3"}});
        store->Update("a", {{"z", "4"}, {"w", "5"}});
        ASSERT_TRUE(store->Exists("a").get());
    }
    clock.SetMillis((kStart + 80) * 1000);
    auto store = Open();
    store->End("a");
    ASSERT_FALSE(store->Exists("a").get());
    ASSERT_EQ(tracker.Hits().size(), 1u);
    EXPECT_EQ(tracker.Hits()[0].data, (StringMap{{"a.action.time.inapp", "30"},
                                                 {"a.action.time.total", "30"},
                                                 {"w", "5"},
                                                 {"y", "2"},
                                                 {"z", "4"}}));
}

TEST_F(TimedActionsTest, ABrokenElementIsSkippedAndTheOthersKept) {
    dir.Write(TimedActionStore::kFileName, R"({"Actions":[{"name":"bad","start":"soon"},7,)"
                                           R"({"name":"good","start":1425999900,"adjusted":1425999950.9,)"
                                           R"("data":{"k":"v"}},{"name":"nums","data":{"k":1}}]})");
    auto store = Open();
    EXPECT_FALSE(store->Exists("bad").get());
    EXPECT_FALSE(store->Exists("nums").get());
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    const char* names[] = {"bad", "", "nums"};
    for (std::size_t i = 0; i < 3; ++i) {
        const std::string start =
            std::string("Velmora Error:Analytics - unable to parse timed action (\"") + names[i] + "\" - ";
        EXPECT_EQ(lines[i].rfind(start, 0), 0u) << lines[i];
        EXPECT_GT(lines[i].size(), start.size() + 1) << "the failure text is given";
        EXPECT_EQ(lines[i].back(), ')');
    }
    At(*store, kStart + 100);
    store->End("good");
    EXPECT_FALSE(store->Exists("good").get());
    ASSERT_EQ(tracker.Hits().size(), 1u);
    EXPECT_EQ(tracker.Hits()[0].data,
              (StringMap{{"a.action.time.inapp", "150"}, {"a.action.time.total", "200"}, {"k", "v"}}));
}

TEST_F(TimedActionsTest, FileFailuresAreLoggedAndNothingInMemoryIsLost) {
    for (const char* text : {"not json", "[1]", R"({"Actions":5})"}) {
        capture.Clear();
        dir.Write(TimedActionStore::kFileName, text);
        EXPECT_FALSE(Open()->Exists("").get());
        ASSERT_EQ(capture.Lines().size(), 1u) << text;
        EXPECT_EQ(capture.Lines()[0].rfind("Velmora Error:Analytics - Unable to load timed actions (", 0), 0u);
        EXPECT_EQ(capture.Lines()[0].substr(capture.Lines()[0].size() - 2), ").");
    }
    capture.Clear();
    dir.Write(TimedActionStore::kFileName, "");
    files.failWrites = true;
    auto store = Open();
    store->Start("a", {});
    ASSERT_TRUE(store->Exists("a").get());
    EXPECT_EQ(capture.Lines(),
              std::vector<std::string>{"Velmora Error:Analytics - Unable to save timed actions file (disk full)."});
    store->End("a");
    EXPECT_FALSE(store->Exists("a").get());
    EXPECT_EQ(tracker.Hits().size(), 1u);
}

TEST_F(TimedActionsTest, BadInputIsRefusedWithItsLineAndChangesNothing) {
    const std::pair<std::function<void(TimedActionStore&)>, std::string> cases[] = {
        {[](auto& s) { s.Start("", {{"k", "v"}}); }, "Cannot start timed action with a null or empty action name."},
        {[](auto& s) { s.Update("", {{"k", "v"}}); }, "Cannot update timed action with a null or empty action name."},
        {[](auto& s) { s.Update("missing", {}); }, "Cannot update timed action with blank context data, skipping."},
        {[](auto& s) { s.Update("running", {}); }, "Cannot update timed action with blank context data, skipping."},
        {[](auto& s) { s.Update("missing", {{"k", "v"}}); }, "Cannot find timed action to update (missing)."},
        {[](auto& s) { s.End(""); }, "Cannot end timed action with a null or empty action name."},
        {[](auto& s) { s.End("missing"); },
         "Ignoring attempt to end timed action that had not yet begun (missing)."},
    };
    auto store = Open();
    store->Start("running", {{"k", "v"}});
    ASSERT_TRUE(store->Exists("running").get());
    const std::string file = File();
    for (const auto& [call, line] : cases) {
        capture.Clear();
        call(*store);
        ASSERT_TRUE(store->Exists("running").get());
        EXPECT_EQ(capture.Lines(), std::vector<std::string>{"Velmora Warning:Analytics - " + line});
    }
    EXPECT_EQ(File(), file);
    EXPECT_TRUE(tracker.Hits().empty());
}

}  // namespace
}  // namespace velmora

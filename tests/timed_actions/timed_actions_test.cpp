#include "timed_actions/timed_actions.h"
#include "support/application.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velmora::test {
namespace {

using ::testing::ElementsAre, ::testing::MatchesRegex;

constexpr std::int64_t kStart = 1'426'000'000;

TEST_F(Application, ARestartedTimedActionCountsPausedTimeInTheTotalOnlyAndOutlivesTheProcess) {
    env.clock->SetMillis((kStart - 50) * 1000);
    Launch();
    timed->Shift(500);  // nothing runs yet: no action may pick this pause up later
    timed->Start("a", {{"x", "1"}});
    At(kStart);
    timed->Start("a", {{"step", "2"}, {"a.action.time.total", "caller"}});  // starts over
    At(kStart + 150);
    timed->Shift(100);
    ASSERT_TRUE(timed->Exists("a"));
    EXPECT_EQ(File(), R"({"Actions":[{"name":"a","start":1426000000,"adjusted":1426000100,)"
                      R"("data":{"a.action.time.total":"caller","step":"2"}}]})");
    Launch();
    timed->Update("a", {{"step", "3"}, {"w", "5"}});
    At(kStart + 200);
    EXPECT_CALL(tracker, TrackAction("a", StringMap{{"a.action.time.inapp", "100"}, {"a.action.time.total", "200"},
                                                    {"step", "3"}, {"w", "5"}}));
    timed->End("a");
    EXPECT_FALSE(timed->Exists("a"));
    EXPECT_EQ(File(), R"({"Actions":[]})");
    EXPECT_TRUE(env.log.Lines().empty());
}

TEST_F(Application, BrokenTimedActionsAndBadInputAreLoggedAndChangeNothingElse) {
    // A file cut short keeps the whole actions before the damage.
    for (const auto& [text, kept] : {std::pair<std::string, bool>{R"({"Actions":5})", false},
                                     {R"({"Actions":[{"name":"x","start":1,"adjusted":1,"data":{}},{"name":"y","st)", true}}) {
        env.local.Write(TimedActionStore::kFileName, text);
        Launch();
        EXPECT_EQ(timed->Exists("x"), kept) << text;
        EXPECT_FALSE(timed->Exists("y") || timed->Exists(""));
        EXPECT_THAT(env.log.Lines(),
                    ElementsAre(MatchesRegex("Velmora Error:Analytics - Unable to load timed actions \\(.+\\)\\.")));
    }
    env.local.Write(TimedActionStore::kFileName, R"({"Actions":[{"name":"bad","start":"soon"},7,{"name":"good",)"
                    R"("start":1425999900,"adjusted":1425999950.9,"data":{"k":"v"}},{"name":"nums","data":{"k":1}}]})");
    env.clock->SetMillis(kStart * 1000);
    Launch();
    EXPECT_FALSE(timed->Exists("bad") || timed->Exists("nums"));
    const std::string parse = "Velmora Error:Analytics - unable to parse timed action \\(\"";
    EXPECT_THAT(env.log.Lines(), ElementsAre(MatchesRegex(parse + "bad\" - .+\\)"), MatchesRegex(parse + "\" - .+\\)"),
                                             MatchesRegex(parse + "nums\" - .+\\)")));
    const std::pair<std::function<void()>, std::string> refused[] = {
        {[&] { timed->Start("", {{"k", "x"}}); }, "Cannot start timed action with a null or empty action name."},
        {[&] { timed->Update("", {{"k", "x"}}); }, "Cannot update timed action with a null or empty action name."},
        {[&] { timed->Update("good", {}); }, "Cannot update timed action with blank context data, skipping."},
        {[&] { timed->Update("missing", {{"k", "x"}}); }, "Cannot find timed action to update (missing)."},
        {[&] { timed->End(""); }, "Cannot end timed action with a null or empty action name."},
        {[&] { timed->End("missing"); }, "Ignoring attempt to end timed action that had not yet begun (missing)."},
    };
    for (const auto& [call, line] : refused) {
        env.log.Clear();
        call();
        ASSERT_TRUE(timed->Exists("good"));
        EXPECT_EQ(env.log.Lines(), std::vector<std::string>{"Velmora Warning:Analytics - " + line});
    }
    At(kStart + 100);
    EXPECT_CALL(tracker, TrackAction("good", StringMap{{"a.action.time.inapp", "150"},
                                                       {"a.action.time.total", "200"}, {"k", "v"}}));
    timed->End("good");
    EXPECT_FALSE(timed->Exists("good"));
}

}  // namespace
}  // namespace velmora::test

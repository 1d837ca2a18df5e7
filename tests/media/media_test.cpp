// Media items: milestones and segments alone, the module on a runtime, and the public class.
#include "media/media_item.h"
#include "media/media_module.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <velmora/Velmora.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <future>
#include <stdexcept>

namespace velmora {
namespace {

using namespace std::chrono_literals;

TEST(MediaMilestones, ParseOrRaiseTheStandardConversionError) {
    // `error`: what() of the std::invalid_argument or std::out_of_range raised instead.
    struct Case { const char* text; bool offsets; double length; std::vector<std::int32_t> list; const char* error; };
    const Case cases[] = {
        {"25,50,25,150,0", false, 100, {0, 25, 50}, nullptr}, {" 75, 10x,+5,100,101,-1,1", false, 100, {0, 1, 5, 10, 75, 100}, nullptr},
        {"10,20,999", true, 60, {0, 10, 20}, nullptr}, {"10,20,999", true, -1, {0, 10, 20, 999}, nullptr},
        {"60,61,0,-2147483648", true, 60, {0, 60}, nullptr}, {"31,30", true, 30.5, {0, 30}, nullptr},
        {"2147483647", true, -1, {0, 2147483647}, nullptr},
        {"25,,50", true, -1, {}, "invalid stoi argument"}, {"10,-2147483649", true, -1, {}, "stoi argument out of range"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        try {
            EXPECT_EQ(c.offsets ? ParseOffsetMilestones(c.text, c.length) : ParseMilestones(c.text), c.list);
            EXPECT_EQ(c.error, nullptr);
        } catch (const std::logic_error& e) {  // the base of both
            EXPECT_STREQ(e.what(), c.error);
        }
    }
}

// A play at 0 s, then a click five seconds later at `offset`.
TEST(MediaSegments, FollowThePositionAndTheFlags) {
    struct Case { double length; const char *milestones, *offsets; bool byMilestones, byOffsets; double offset;
                  std::string segment; std::int32_t segmentNum; bool complete; double played; };
    const Case cases[] = {
        {100, "25,50", "", true, false, 30, "M:25-50", 2, false, 30}, {100, "25,50", "", true, false, 60, "M:50-100", 3, false, 60},
        {100, "25,50", "", true, false, 150, "M:50-100", 3, true, 150}, {-1, "", "10,20", false, true, 25, "O:20-E", 3, false, 25},
        {30.5, "", "10", false, true, 15, "O:10-30", 2, false, 15}, {100, "25", "10", true, true, std::nan(""), "", 0, false, 0},
        {100, "50", "10", true, true, 20, "M:0-50", 1, false, 20},  // the percentage wins
        {100, "", "10", false, true, -5, "O:0-10", 1, false, 5},  // negative: where the clock says
        {100, "", "3", false, true, 0, "O:0-3", 1, false, 0},     // zero: a position like any other
        {-1, "25", "", true, false, 50, "", 0, false, 50},          // no percentage without a length
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.length) + c.milestones + "/" + c.offsets + " at " + std::to_string(c.offset));
        MediaItem item;
        item.length = c.length;
        item.segmentByMilestones = c.byMilestones;
        item.segmentByOffsetMilestones = c.byOffsets;
        item.milestones = ParseMilestones(c.milestones);
        item.offsetMilestones = ParseOffsetMilestones(c.offsets, c.length);
        NewSnapshot(item, 1000);
        UpdateState(item, kMediaPlay, 0);
        NewSnapshot(item, 1005);
        UpdateState(item, kMediaClick, c.offset);
        const MediaState& s = *item.current;
        EXPECT_EQ(std::tie(s.segment, s.segmentNum, s.complete, s.timePlayed),
                  std::tie(c.segment, c.segmentNum, c.complete, c.played));
    }
}

// One call on the media queue, or time passing: Tick advances the clock second by second, Busy
// moves it on while the queue is held, so the ticks that waited find the time moved on.
struct Step {
    std::function<void(MediaModule&)> call;
    int tick = 0, busy = 0;
};
// An Open step; With() sets one of its settings, fluently.
using S = Velmora::MediaSettings;
struct Opening {
    template <class Field, class Value> Opening& With(Field S::*field, Value value) { settings.*field = std::move(value); return *this; }
    operator Step() const { return {[s = settings](MediaModule& m) { m.Open(std::make_shared<S>(s)); }}; }
    S settings;
};
Opening Open(std::string name, double length) {
    return Opening().With(&S::Name, std::move(name)).With(&S::Length, length).With(&S::PlayerName, "Player");
}
Step OpenNull() { return {[](MediaModule& m) { m.Open(nullptr); }}; }
Step Close(std::string n) { return {[=](MediaModule& m) { m.Close(n); }}; }
Step Play(std::string n, double at = 0) { return {[=](MediaModule& m) { m.Play(n, at); }}; }
Step Stop(std::string n, double at = 0) { return {[=](MediaModule& m) { m.Stop(n, at); }}; }
Step Complete(std::string n, double at) { return {[=](MediaModule& m) { m.Complete(n, at); }}; }
Step Click(std::string n, double at) { return {[=](MediaModule& m) { m.Click(n, at); }}; }
Step Track(std::string n, StringMap data = {}) { return {[=](MediaModule& m) { m.Track(n, data); }}; }
Step Tick(int seconds) { return {nullptr, seconds}; }
Step Busy(int seconds) { return {nullptr, 0, seconds}; }

struct Scenario {
    const char* name;
    std::vector<Step> steps;
    // In order: each hit as "<second>s <pe> <name> <field>=<value>..." (the "a.media." fields and the
    // application's data; player "Player" and length 100 left out, a player or length not sent shown
    // empty), and the media log lines.
    std::vector<std::string> transcript;
    bool analytics = true;
};

void PrintTo(const Scenario& s, std::ostream* os) { *os << s.name; }

std::string Render(const test::ReceivedHit& hit) {
    StringMap context = hit.context;
    EXPECT_EQ(hit.variables.at("pev2") + " " + hit.variables.at("pev3") + " " + context["acontentType"] + " " +
                  context["ainternalaction"], "VLMINTERNAL:Media video video Media");
    std::string text = hit.variables.at("pe") + " " + context["amedianame"];
    if (context["amediaplayerName"] == "Player") context.erase("amediaplayerName");
    if (context["amedialength"] == "100") context.erase("amedialength");
    for (const auto& [key, value] : context) {
        const bool media = key.rfind("amedia", 0) == 0;
        if ((media || key[0] != 'a') && key != "amedianame") text += " " + (media ? key.substr(6) : key) + "=" + value;
    }
    return text;
}

class MediaScenario : public ::testing::TestWithParam<Scenario> {};

// The media module in a whole runtime on the manual clock, its hits going to a loopback server.
TEST_P(MediaScenario, SendsTheseHitsAndLogsTheseLines) {
    test::LoopbackServer server;
    const std::string config = R"({"analytics":{"rsids":"suite","server":")" + server.Address() + R"(","ssl":false}})";
    test::TestRuntime env(GetParam().analytics ? config : R"({"version":"1"})");
    env.runtime->Log().SetDebugEnabled(true);
    auto& media = env.runtime->GetMediaModule();
    const std::int32_t start = env.clock->NowSeconds();
    std::vector<std::string> transcript;
    std::size_t hits = 0, lines = 0;
    auto settle = [&] {
        ASSERT_TRUE(env.runtime->Flush(30s));
        const std::string at = std::to_string(env.clock->NowSeconds() - start) + "s ";
        for (const auto received = server.Hits(); hits < received.size(); ++hits) transcript.push_back(at + Render(received[hits]));
        for (const auto logged = env.log.Lines(); lines < logged.size(); ++lines) {
            auto has = [&](const char* text) { return logged[lines].find(text) != std::string::npos; };
            if ((has("Media") || has("not set up")) && !has("Sending hit")) transcript.push_back(logged[lines]);
        }
    };
    for (const Step& step : GetParam().steps) {
        if (step.busy) {
            std::promise<void> release = test::Hold(env.runtime->GeneralQueue());
            env.clock->Advance(std::chrono::seconds(step.busy));
            release.set_value();
        }
        for (int i = 0; i < step.tick; ++i) env.clock->Advance(1s), settle();
        if (step.call) env.runtime->GeneralQueue().Post("Media", [&media, &step] { step.call(media); });
        settle();
    }
    EXPECT_EQ(transcript, GetParam().transcript);
}

std::string NoItem(const std::string& verb, const std::string& name) {
    return "Velmora Debug:Media - Tried to " + verb + " media item (" + name + ") but it doesn't exist";
}

INSTANTIATE_TEST_SUITE_P(Media, MediaScenario, ::testing::Values(
        Scenario{"MilestonesFromTheMonitorCompleteOnceThenRemoval",
                 {Open("Movie", 100).With(&S::Milestones, "0,25,50,75"), Play("Movie"), Busy(30), Tick(75), Play("Movie")},
                 {"0s m_s Movie view=true", "30s m_i Movie milestone=25 timePlayed=30",
                  "50s m_i Movie milestone=50 timePlayed=20", "75s m_i Movie milestone=75 timePlayed=25",
                  "100s m_i Movie complete=true timePlayed=25", NoItem("play", "Movie")}},
        Scenario{"TrackSecondsAndAClickAtTheEnd",
                 {Open("Clip", 300).With(&S::TrackSeconds, 10), Play("Clip"), Tick(25), Click("Clip", 300), Stop("Clip"),
                  Open("Clip", 300), Stop("Clip"), Complete("Clip", 0), Play("Clip", 300), Play("Clip")},
                 {"0s m_s Clip length=300 view=true", "10s m_i Clip length=300 timePlayed=10",
                  "20s m_i Clip length=300 timePlayed=10",
                  "25s m_i Clip clicked=true complete=true length=300 timePlayed=280", NoItem("stop", "Clip"),
                  "25s m_s Clip length=300 view=true", NoItem("play", "Clip")}},
        // An open item is closed by an item of its player ID or of its name; an empty ID matches nothing.
        Scenario{"OpeningTheSamePlayerOrNameClosesTheOpenItem",
                 {Open("A", 100).With(&S::PlayerID, "p1"), Play("A"), Tick(5), Open("B", 100).With(&S::PlayerID, "p1"), Play("A"),
                  Open("A", 100), Play("A"), Open("C", 100), Tick(1), Open("A", 100), Play("A")},
                 {"0s m_s A view=true", "5s m_i A timePlayed=5", NoItem("play", "A"), "5s m_s A view=true",
                  "6s m_i A timePlayed=1", "6s m_s A view=true"}},
        Scenario{"TrackDropsEmptyValuesKeepsTheCallersFieldsAndAlwaysSends",
                 {Open("Show", 100), Track("Show", {{"early", "1"}}), Play("Show"), Track("Show", {{"kept", "1"}, {"dropped", ""}}),
                  Tick(3), Track("Show", {{"kept", "2"}, {"a.media.name", "Mine"}, {"dropped", ""}}), Track("Show")},
                 {"0s m_s Show view=true", "0s m_s Show view=true kept=1", "3s m_i Mine timePlayed=3 kept=2", "3s m_i Show"}},
        Scenario{"ASecondCompleteOrClickLeavesABlankSnapshotThatEndsPlaying",
                 {Open("Song", 100).With(&S::TrackSeconds, 2), Play("Song"), Tick(3), Complete("Song", 3), Complete("Song", 3),
                  Tick(4), Play("Song", 10), Tick(2), Complete("Song", 12), Complete("Song", 12), Tick(2), Close("Song"),
                  Open("Tap", 100), Play("Tap"), Click("Tap", 0), Click("Tap", 0), Stop("Tap", 0)},
                 {"0s m_s Song view=true", "2s m_i Song timePlayed=2", "3s m_i Song complete=true timePlayed=1",
                  "9s m_i Song timePlayed=2", "11s m_s Tap view=true", "11s m_i Tap clicked=true"}},
        Scenario{"CloseCompletesWithUnknownLengthOrNearTheEnd",
                 {Open("Idle", 100), Close("Idle"), Close("Idle"),
                  Open("Live", 0).With(&S::PlayerName, "").With(&S::Milestones, "50").With(&S::SegmentByMilestones, true),
                  Play("Live"), Tick(4), Close("Live"), Open("Live", 5).With(&S::PlayerName, ""), Play("Live"), Tick(4), Close("Live")},
                 {NoItem("close", "Idle"), "0s m_s Live length= playerName=Not_Specified view=true",
                  "4s m_i Live complete=true length= playerName=Not_Specified segmentView=true timePlayed=4",
                  "4s m_s Live length=5 playerName=Not_Specified view=true",
                  "8s m_i Live complete=true length=5 playerName=Not_Specified timePlayed=4"}},
        // A click on a stopped item is not a hit, nor a play into another segment before anything was played.
        Scenario{"SegmentsReportTheSegmentJustLeft",
                 {Open("Doc", 100).With(&S::Milestones, "50").With(&S::SegmentByMilestones, true), Play("Doc"), Tick(10),
                  Stop("Doc", 10), Click("Doc", 10), Play("Doc", 70), Tick(5), Stop("Doc", 75), Play("Doc", 20),
                  Open("Doc", 100).With(&S::Milestones, "50").With(&S::SegmentByMilestones, true), Play("Doc", 70), Stop("Doc", 70), Play("Doc", 20)},
                 {"0s m_s Doc segment=M:0-50 segmentNum=1 view=true",
                  "10s m_i Doc milestone=50 segment=M:0-50 segmentNum=1 segmentView=true timePlayed=10",
                  "15s m_i Doc segment=M:50-100 segmentNum=2 segmentView=true timePlayed=5",
                  "15s m_i Doc segment=M:0-50 segmentNum=1", "15s m_s Doc segment=M:50-100 segmentNum=2 view=true"}},
        Scenario{"SegmentsByOffsetNeedOffsetMilestones",
                 {Open("Ep", 100).With(&S::Milestones, "50").With(&S::SegmentByOffsetMilestones, true), Play("Ep"), Tick(50),
                  Open("Ep", 100).With(&S::OffsetMilestones, "20"), Play("Ep"), Tick(20)},
                 {"0s m_s Ep view=true", "50s m_i Ep milestone=50 timePlayed=50", "50s m_i Ep", "50s m_s Ep view=true",
                  "70s m_i Ep offsetMilestone=20 timePlayed=20"}},
        Scenario{"RefusedItemsUnknownNamesAndAnAdWhoseParentNameCleansAwayReportedAsContent",
                 {Open("\r\n--**--", 10), Open("Ad", 10).With(&S::IsMediaAd, true), OpenNull(), Close("Ad\n"), Play("Ad\n"),
                  Complete("Ad\n", 0), Stop("Ad\n"), Click("Ad\n", 0), Track("Ad\n", {{"k", "v"}}),
                  Open("Spot", 100).With(&S::IsMediaAd, true).With(&S::ParentName, "--**--"), Play("Spot")},
                 {"Velmora Warning:Analytics - VLMMediaSettings is required with a valid name. Media item not opened",
                  "Velmora Warning:Analytics - Media ad requires parent name, please specify a parent name. Media item not opened",
                  "Velmora Warning:Analytics - VLMMediaSettings is required with a valid name. Media item not opened",
                  NoItem("close", "Ad"), NoItem("play", "Ad"), NoItem("complete", "Ad"), NoItem("stop", "Ad"),
                  NoItem("click", "Ad"), NoItem("track", "Ad"), "0s m_s Spot adview=true"}},
        Scenario{"BadMilestonesAreLoggedByTheQueueWhichGoesOn",
                 {Open("A", 100), Play("A"), Tick(2), Open("A", 100).With(&S::Milestones, "50,25,abc"),
                  Open("B", 100).With(&S::OffsetMilestones, "99999999999"), Play("B"), Open("A", 100).With(&S::Milestones, "50"), Play("A")},
                 {"0s m_s A view=true", "2s m_i A timePlayed=2",
                  "Velmora Error:Media - Unexpected error in background work (invalid stoi argument)",
                  "Velmora Error:Media - Unexpected error in background work (stoi argument out of range)",
                  NoItem("play", "B"), "2s m_s A view=true"}},
        Scenario{"WithoutAnalyticsEveryCallOnlyWarns",
                 {Open("A", 100), Play("A"), Track("A"), Close("A")},
                 std::vector<std::string>(4, "Velmora Warning:Analytics - Your config file is not set up to use Analytics"),
                 false}),
    [](const auto& info) { return std::string(info.param.name); });

// The public class on the process-wide runtime (fresh in each test's process) up to a loopback server.
TEST(MediaApi, OpensACopyTranslatesTrackDataAndSendsTheCostOnlyWithThePlay) {
    test::LoopbackServer server;
    test::TestRuntime t;
    ASSERT_TRUE(t.ConfigureProcess(R"({"analytics":{"rsids":"suite","server":")" + server.Address() + R"("}})"));

    // Cleaning the parent name twice would also drop the "--**--" its first cleaning leaves.
    auto settings = Velmora::Media::AdSettingsWith("Spot\n", 15.7, "Ads", "Mo\r\nvie--*--**--*--", "pod", 2.9, "3");
    Velmora::Media::Open(settings);
    settings->Name = "Changed";  // the open item keeps what was passed
    Velmora::Media::Open(nullptr);  // refused on the queue, without a copy to make
    std::promise<void> release = test::Hold(Runtime::Process().GeneralQueue());  // ads refused: what is set after stays
    const std::shared_ptr<Velmora::MediaSettings> refused[] = {Velmora::Media::AdSettingsWith("Orphan", 15, "Ads", "", "pod", 1, "3"),
                                                               Velmora::Media::AdSettingsWith("\n", 15, "Ads", "Mo\nvie", "pod", 1, "3")};
    for (const auto& ad : refused) Velmora::Media::Open(ad), ad->ParentName = "Mine";
    release.set_value();
    Velmora::Media::Play("Spot", 0);
    Velmora::Media::Track("Spot", {{"count", std::int32_t{3}}, {"flag", true}, {"ratio", 0.5},
                                   {"empty", std::string()}, {"none", nullptr}});
    ASSERT_TRUE(Velmora::Host::Flush(std::chrono::seconds(30)));

    EXPECT_EQ(settings->ParentName + "|" + refused[0]->ParentName + refused[1]->ParentName, "Movie--**--|MineMine") << "only the ad that opened";
    const auto hits = server.Hits();
    ASSERT_EQ(hits.size(), 2u);
    // Before any tick there is one snapshot, so the tracked hit has the view form too, without the cost.
    StringMap view{{"acontentType", "videoAd"}, {"ainternalaction", "Media"}, {"amediaadname", "Spot"},
                   {"amediaadplayerName", "Ads"}, {"amedianame", "Movie--**--"}, {"amediaadlength", "15"},
                   {"amediaadpod", "pod"}, {"amediaadpodPosition", "2"}, {"amediaadview", "true"}};
    StringMap tracked = view;
    tracked.insert({{"count", "3"}, {"flag", "true"}, {"ratio", "0.5"}});
    view["amediaadCPM"] = "3";
    for (std::size_t i = 0; i < hits.size(); ++i) {
        StringMap context = hits[i].context;
        for (const char* key : {"aAppID", "aDeviceName", "aOSVersion", "aResolution"}) context.erase(key);
        EXPECT_EQ(context, i == 0 ? view : tracked);
        EXPECT_EQ(hits[i].variables.at("pe"), "m_s");
        EXPECT_EQ(hits[i].variables.at("pev3"), "videoAd");
    }
}

// Nothing opens without analytics, so nothing is written back either, and no call makes a hit.
TEST(MediaApi, WithoutAnalyticsAnAdLeavesTheApplicationsObjectAsItIsAndNoCallQueuesAHit) {
    test::TestRuntime t;
    ASSERT_TRUE(t.ConfigureProcess(R"({"vantor":{"clientCode":"c"}})"));
    Velmora::Config::SetDebugLogging(true);
    auto settings = Velmora::Media::AdSettingsWith("Spot", 15, "Ads", "Mo\nvie", "pod", 1, "3");
    std::promise<void> release = test::Hold(Runtime::Process().GeneralQueue());  // the application changes its object first
    Velmora::Media::Open(settings);
    settings->ParentName = "Mine";
    release.set_value();
    Velmora::Analytics::TrackState("state");
    Velmora::Analytics::TrackAction("action");
    Velmora::Host::Flush(std::chrono::seconds(30));
    EXPECT_EQ(settings->ParentName, "Mine");
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 0u);
    EXPECT_TRUE(t.log.Contains("Velmora Warning:Analytics - Your config file is not set up to use Analytics"));
}

}  // namespace
}  // namespace velmora

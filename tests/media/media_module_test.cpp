#include "media/media_module.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <future>
#include <sstream>

namespace velmora {
namespace {

using namespace std::chrono_literals;

// One call on the media queue. "open" reads `number` as the length and `options` as settings
// ("m=" milestones, "o=" offset milestones, "t=" track seconds, "id=" player ID, "p=" player name,
// "seg=1" segments by milestones, "ad=1"); "track" reads `options` as its data ("k=v k2="); "tick"
// advances the clock `number` seconds one by one; "busy" advances it while the queue is held.
struct Step { std::string verb, name; double number = 0; std::string options = ""; };

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
    auto& media = env.runtime->Media();
    const std::int32_t start = env.clock->NowSeconds();
    std::vector<std::string> transcript;
    std::size_t hits = 0, lines = 0;
    auto settle = [&] {
        ASSERT_TRUE(env.runtime->Flush(30s));
        const std::string at = std::to_string(env.clock->NowSeconds() - start) + "s ";
        for (const auto received = server.Hits(); hits < received.size(); ++hits) {
            transcript.push_back(at + Render(received[hits]));
        }
        for (const auto logged = env.log.Lines(); lines < logged.size(); ++lines) {
            auto has = [&](const char* text) { return logged[lines].find(text) != std::string::npos; };
            if ((has("Media") || has("not set up")) && !has("Sending hit")) transcript.push_back(logged[lines]);
        }
    };
    for (const auto& [verb, name, number, text] : GetParam().steps) {
        StringMap options;  // "k=v" words
        std::istringstream words(text);
        for (std::string w; words >> w;) options[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
        auto settings = std::make_shared<Velmora::MediaSettings>();
        settings->Name = name;
        settings->Length = number;
        settings->PlayerName = options.count("p") ? options["p"] : "Player";
        settings->PlayerID = options["id"];
        settings->Milestones = options["m"];
        settings->OffsetMilestones = options["o"];
        settings->TrackSeconds = std::stoi("0" + options["t"]);
        settings->SegmentByMilestones = options.count("seg");
        settings->IsMediaAd = options.count("ad");
        if (verb == "busy") {  // the ticks wait, and the first to run finds the time moved on
            std::promise<void> release;
            media.Queue().Post([gate = release.get_future().share()] { gate.wait(); });
            env.clock->Advance(std::chrono::seconds(static_cast<int>(number)));
            release.set_value();
        }
        for (int i = 0; verb == "tick" && i < number; ++i) {
            env.clock->Advance(1s);
            settle();
        }
        media.Queue().Post([&, verb = verb, name = name, number = number] {
            if (verb == "open") media.Open(settings);
            if (verb == "open null") media.Open(nullptr);
            if (verb == "close") media.Close(name);
            if (verb == "play") media.Play(name, number);
            if (verb == "stop") media.Stop(name, number);
            if (verb == "complete") media.Complete(name, number);
            if (verb == "click") media.Click(name, number);
            if (verb == "track") media.Track(name, options);
        });
        settle();
    }
    EXPECT_EQ(transcript, GetParam().transcript);
}

std::string NoItem(const std::string& verb, const std::string& name) {
    return "Velmora Debug:Media - Tried to " + verb + " media item (" + name + ") but it doesn't exist";
}

INSTANTIATE_TEST_SUITE_P(
    Media, MediaScenario,
    ::testing::Values(
        Scenario{"MilestonesFromTheMonitorCompleteOnceThenRemoval",
                 {{"open", "Movie", 100, "m=0,25,50,75"}, {"play", "Movie"}, {"busy", "", 30}, {"tick", "", 75},
                  {"play", "Movie"}},
                 {"0s m_s Movie view=true", "30s m_i Movie milestone=25 timePlayed=30",
                  "50s m_i Movie milestone=50 timePlayed=20", "75s m_i Movie milestone=75 timePlayed=25",
                  "100s m_i Movie complete=true timePlayed=25", NoItem("play", "Movie")}},
        Scenario{"TrackSecondsAndAClickAtTheEnd",
                 {{"open", "Clip", 300, "t=10"}, {"play", "Clip"}, {"tick", "", 25}, {"click", "Clip", 300},
                  {"stop", "Clip"}},
                 {"0s m_s Clip length=300 view=true", "10s m_i Clip length=300 timePlayed=10",
                  "20s m_i Clip length=300 timePlayed=10",
                  "25s m_i Clip clicked=true complete=true length=300 timePlayed=280", NoItem("stop", "Clip")}},
        // An open item is closed by an item of its player ID or of its name; an empty ID matches nothing.
        Scenario{"OpeningTheSamePlayerOrNameClosesTheOpenItem",
                 {{"open", "A", 100, "id=p1"}, {"play", "A"}, {"tick", "", 5}, {"open", "B", 100, "id=p1"},
                  {"play", "A"}, {"open", "A", 100}, {"play", "A"}, {"open", "C", 100}, {"tick", "", 1},
                  {"open", "A", 100}, {"play", "A"}},
                 {"0s m_s A view=true", "5s m_i A timePlayed=5", NoItem("play", "A"), "5s m_s A view=true",
                  "6s m_i A timePlayed=1", "6s m_s A view=true"}},
        Scenario{"TrackDropsEmptyValuesAndAlwaysSends",
                 {{"open", "Show", 100}, {"track", "Show", 0, "early=1"}, {"play", "Show"},
                  {"track", "Show", 0, "kept=1 dropped="}, {"tick", "", 3},
                  {"track", "Show", 0, "kept=2 a.media.name=Mine dropped="}, {"track", "Show"}},
                 {"0s m_s Show view=true", "0s m_s Show view=true kept=1", "3s m_i Show timePlayed=3 kept=2",
                  "3s m_i Show"}},
        Scenario{"SecondCompleteLeavesABlankSnapshotThatEndsPlaying",
                 {{"open", "Song", 100, "t=2"}, {"play", "Song"}, {"tick", "", 3}, {"complete", "Song", 3},
                  {"complete", "Song", 3}, {"tick", "", 4}, {"play", "Song", 10}, {"tick", "", 2},
                  {"complete", "Song", 12}, {"complete", "Song", 12}, {"close", "Song"}},
                 {"0s m_s Song view=true", "2s m_i Song timePlayed=2", "3s m_i Song complete=true timePlayed=1",
                  "9s m_i Song timePlayed=2"}},
        Scenario{"CloseCompletesWithUnknownLengthOrNearTheEnd",
                 {{"open", "Idle", 100}, {"close", "Idle"}, {"close", "Idle"}, {"open", "Live", 0, "p="},
                  {"play", "Live"}, {"tick", "", 4}, {"close", "Live"}, {"open", "Live", 5, "p="}, {"play", "Live"},
                  {"tick", "", 4}, {"close", "Live"}},
                 {NoItem("close", "Idle"), "0s m_s Live length= playerName=Not_Specified view=true",
                  "4s m_i Live complete=true length= playerName=Not_Specified timePlayed=4",
                  "4s m_s Live length=5 playerName=Not_Specified view=true",
                  "8s m_i Live complete=true length=5 playerName=Not_Specified timePlayed=4"}},
        Scenario{"SegmentsReportTheSegmentJustLeft",
                 {{"open", "Doc", 100, "m=50 seg=1"}, {"play", "Doc"}, {"tick", "", 10}, {"stop", "Doc", 10},
                  {"play", "Doc", 70}, {"tick", "", 5}, {"stop", "Doc", 75}, {"play", "Doc", 20}},
                 {"0s m_s Doc segment=M:0-50 segmentNum=1 view=true",
                  "10s m_i Doc milestone=50 segment=M:0-50 segmentNum=1 segmentView=true timePlayed=10",
                  "15s m_i Doc segment=M:50-100 segmentNum=2 segmentView=true timePlayed=5"}},
        Scenario{"RefusedItemsAndUnknownNames",
                 {{"open", "\r\n--**--", 10}, {"open", "Ad", 10, "ad=1"}, {"open null", ""}, {"close", "Ad\n"},
                  {"play", "Ad\n"}, {"complete", "Ad\n"}, {"stop", "Ad\n"}, {"click", "Ad\n"},
                  {"track", "Ad\n", 0, "k=v"}},
                 {"Velmora Warning:Analytics - VLMMediaSettings is required with a valid name. Media item not opened",
                  "Velmora Warning:Analytics - Media ad requires parent name, please specify a parent name. Media "
                  "item not opened",
                  "Velmora Warning:Analytics - VLMMediaSettings is required with a valid name. Media item not opened",
                  NoItem("close", "Ad"), NoItem("play", "Ad"), NoItem("complete", "Ad"), NoItem("stop", "Ad"),
                  NoItem("click", "Ad"), NoItem("track", "Ad")}},
        Scenario{"BadMilestonesAreLoggedByTheQueueWhichGoesOn",
                 {{"open", "A", 100}, {"play", "A"}, {"tick", "", 2}, {"open", "A", 100, "m=50,25,abc"},
                  {"open", "B", 100, "o=99999999999"}, {"play", "B"}, {"open", "A", 100, "m=50"}, {"play", "A"}},
                 {"0s m_s A view=true", "2s m_i A timePlayed=2",
                  "Velmora Error:Media - Unexpected error in background work (invalid stoi argument)",
                  "Velmora Error:Media - Unexpected error in background work (stoi argument out of range)",
                  NoItem("play", "B"), "2s m_s A view=true"}},
        Scenario{"WithoutAnalyticsEveryCallOnlyWarns",
                 {{"open", "A", 100}, {"play", "A"}, {"track", "A"}, {"close", "A"}},
                 std::vector<std::string>(4, "Velmora Warning:Analytics - Your config file is not set up to use "
                                             "Analytics"),
                 false}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velmora

#include "media/media_module.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <future>

namespace velmora {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;
using Velmora::MediaSettings;

// Stands in for the analytics side: keeps each hit with the time it arrived.
class RecordingTracker final : public ActionTracker {
public:
    struct Hit {
        std::string action;
        StringMap data;
        std::int32_t timestamp, receivedAt;
    };
    explicit RecordingTracker(const Clock& clock) : clock_(clock) {}
    void TrackAction(const std::string& name, const StringMap& data) override { TrackInternalAction("!" + name, data, 0); }
    void TrackInternalAction(const std::string& name, const StringMap& data, std::int32_t timestamp) override {
        std::lock_guard lock(mutex_);
        hits_.push_back({name, data, timestamp, clock_.NowSeconds()});
    }
    std::vector<Hit> Take() {
        std::lock_guard lock(mutex_);
        return std::exchange(hits_, {});
    }

private:
    const Clock& clock_;
    std::mutex mutex_;
    std::vector<Hit> hits_;
};

// The real manual clock, counting the timers that are still running.
class TimerCountingClock final : public Clock {
public:
    explicit TimerCountingClock(ManualClock& inner) : inner_(inner) {}
    std::int64_t NowMillis() const override { return inner_.NowMillis(); }
    bool SleepFor(std::chrono::milliseconds duration, Waker& waker) override { return inner_.SleepFor(duration, waker); }
    std::shared_ptr<Timer> Every(std::chrono::milliseconds period, std::function<void()> tick) override {
        EXPECT_EQ(period, 1000ms);
        ++live_;
        return std::make_shared<Counted>(inner_.Every(period, std::move(tick)), live_);
    }
    int Live() const { return live_.load(); }

private:
    struct Counted final : Timer {
        Counted(std::shared_ptr<Timer> timer, std::atomic<int>& live) : inner(std::move(timer)), live(live) {}
        void Cancel() override {
            if (!cancelled.exchange(true)) --live;
            inner->Cancel();
        }
        std::shared_ptr<Timer> inner;
        std::atomic<int>& live;
        std::atomic<bool> cancelled{false};
    };
    ManualClock& inner_;
    std::atomic<int> live_{0};
};

StringMap With(StringMap base, const StringMap& extra) {
    for (const auto& [key, value] : extra) base[key] = value;
    return base;
}

// A progress hit of content item `name` played by "Player"; `length` null when unknown.
StringMap Content(const std::string& name, const char* length, const StringMap& extra = {}) {
    StringMap base{{"&&pe", "m_i"}, {"&&pev3", "video"}, {"a.contentType", "video"},
                   {"a.media.name", name}, {"a.media.playerName", "Player"}};
    if (length != nullptr) base["a.media.length"] = length;
    return With(base, extra);
}

StringMap View(const std::string& name, const char* length) {
    return Content(name, length, {{"&&pe", "m_s"}, {"a.media.view", "true"}});
}

MediaSettings Settings(const std::string& name, double length, const std::string& milestones = "",
                       std::int32_t trackSeconds = 0) {
    MediaSettings settings;
    settings.Name = name;
    settings.Length = length;
    settings.PlayerName = "Player";
    settings.Milestones = milestones;
    settings.TrackSeconds = trackSeconds;
    return settings;
}

class MediaModuleTest : public ::testing::Test {
protected:
    MediaModuleTest() {
        log.SetDebugEnabled(true);
        config.rsids = "suite";
        config.server = "collect.example";
    }

    // Runs `op` on the media queue, as the public class does, and waits for it.
    void Run(std::function<void(MediaModule&)> op) {
        media->Queue().Post([this, op] { op(*media); });
        ASSERT_TRUE(media->Flush(10s));
    }
    void Open(const MediaSettings& s) { Run([s](MediaModule& m) { m.Open(std::make_shared<MediaSettings>(s)); }); }
    void Play(const std::string& name, double offset) { Run([=](MediaModule& m) { m.Play(name, offset); }); }
    void Stop(const std::string& name, double offset) { Run([=](MediaModule& m) { m.Stop(name, offset); }); }
    void Complete(const std::string& name, double offset) { Run([=](MediaModule& m) { m.Complete(name, offset); }); }
    void Click(const std::string& name, double offset) { Run([=](MediaModule& m) { m.Click(name, offset); }); }
    void Close(const std::string& name) { Run([=](MediaModule& m) { m.Close(name); }); }
    void Track(const std::string& name, StringMap data) { Run([=](MediaModule& m) { m.Track(name, data); }); }

    // Advances the clock one second at a time, letting each monitor tick run before the next.
    void Tick(int seconds = 1) {
        for (int i = 0; i < seconds; ++i) {
            manual.Advance(1s);
            ASSERT_TRUE(media->Flush(10s));
        }
    }

    // Ticks up to second `last`, keeping the hits by the second at which they were sent.
    std::map<int, StringMap> HitsBySecond(int first, int last) {
        std::map<int, StringMap> bySecond;
        for (int second = first; second <= last; ++second) {
            Tick();
            for (auto& hit : Hits()) bySecond.emplace(second, std::move(hit));
        }
        return bySecond;
    }

    // The context maps handed over since the last call: "Media" hits stamped with their sending time.
    std::vector<StringMap> Hits() {
        std::vector<StringMap> maps;
        for (auto& hit : tracker.Take()) {
            EXPECT_EQ(hit.action, "Media");
            EXPECT_EQ(hit.timestamp, hit.receivedAt);
            maps.push_back(std::move(hit.data));
        }
        return maps;
    }

    LogCapture capture;
    Logger log{capture.Sink()};
    ManualClock manual;
    TimerCountingClock clock{manual};
    ConfigSettings config;
    ModuleGates gates{config};
    RecordingTracker tracker{clock};
    std::unique_ptr<MediaModule> media =
        std::make_unique<MediaModule>(log, clock, [this] { return gates.Analytics(); }, tracker);
};

using Maps = std::vector<StringMap>;

TEST_F(MediaModuleTest, PlayedItemReportsMilestonesCompletesOnceAndLeaves) {
    Open(Settings("Movie", 100, "0,25,50,75"));
    EXPECT_EQ(Hits(), Maps{});
    Play("Movie", 0);
    EXPECT_EQ(Hits(), Maps{View("Movie", "100")});

    // A busy queue: thirty ticks wait, and the first to run finds the playhead thirty seconds on.
    std::promise<void> release;
    media->Queue().Post([gate = release.get_future().share()] { gate.wait(); });
    manual.Advance(30s);
    release.set_value();
    ASSERT_TRUE(media->Flush(10s));
    EXPECT_EQ(Hits(), Maps{Content("Movie", "100", {{"a.media.milestone", "25"}, {"a.media.timePlayed", "30"}})});
    Tick();
    EXPECT_EQ(Hits(), Maps{}) << "31 s";

    EXPECT_EQ(HitsBySecond(32, 105), (std::map<int, StringMap>{
                            {50, Content("Movie", "100", {{"a.media.milestone", "50"}, {"a.media.timePlayed", "20"}})},
                            {75, Content("Movie", "100", {{"a.media.milestone", "75"}, {"a.media.timePlayed", "25"}})},
                            {100, Content("Movie", "100", {{"a.media.complete", "true"}, {"a.media.timePlayed", "25"}})},
                        }));
    Play("Movie", 0);
    EXPECT_EQ(Hits(), Maps{});
    EXPECT_TRUE(capture.Contains("Velmora Debug:Media - Tried to play media item (Movie) but it doesn't exist"));
}

TEST_F(MediaModuleTest, TrackSecondsSendsPlayedTimeAndStartsCountingAgain) {
    Open(Settings("Clip", 300, "", 10));
    Play("Clip", 0);
    EXPECT_EQ(Hits().size(), 1u);
    const StringMap seconds = Content("Clip", "300", {{"a.media.timePlayed", "10"}});
    EXPECT_EQ(HitsBySecond(1, 25), (std::map<int, StringMap>{{10, seconds}, {20, seconds}}));
}

TEST_F(MediaModuleTest, AdCarriesItsParentAndCostOnlyOnTheViewHit) {
    MediaSettings ad = Settings("Spot", 15.7, "50");
    ad.PlayerName = "AdPlayer";
    ad.IsMediaAd = true;
    ad.ParentName = "Mo\r\nvie";
    ad.ParentPod = "pod-1";
    ad.ParentPodPosition = 2.9;
    ad.CPM = "4.50";
    ad.Channel = "sports";
    Open(ad);
    Play("Spot", 0);
    const StringMap adFields{{"&&pe", "m_i"}, {"&&pev3", "videoAd"}, {"a.contentType", "videoAd"},
                             {"a.media.ad.name", "Spot"}, {"a.media.ad.playerName", "AdPlayer"},
                             {"a.media.name", "Movie"}, {"a.media.ad.length", "15"}, {"a.media.ad.pod", "pod-1"},
                             {"a.media.ad.podPosition", "2"}, {"a.media.channel", "sports"}};
    EXPECT_EQ(Hits(), Maps{With(adFields, {{"&&pe", "m_s"}, {"a.media.ad.CPM", "4.50"}, {"a.media.ad.view", "true"}})});
    Tick(7);
    EXPECT_EQ(Hits(), Maps{});
    Tick();  // 8 of 15.7 seconds: past half way
    EXPECT_EQ(Hits(), Maps{With(adFields, {{"a.media.ad.milestone", "50"}, {"a.media.ad.timePlayed", "8"}})});
    Tick(8);
    EXPECT_EQ(Hits(), Maps{With(adFields, {{"a.media.ad.complete", "true"}, {"a.media.ad.timePlayed", "8"}})});
    Stop("Spot", 0);
    EXPECT_TRUE(capture.Contains("Velmora Debug:Media - Tried to stop media item (Spot) but it doesn't exist"));
}

TEST_F(MediaModuleTest, OpeningTheSameNameOrPlayerClosesTheOpenItemWithItsHit) {
    // The second item's name and player; only the third leaves "A" open until it is closed.
    for (auto [name, player] : {std::pair{"A", "other"}, {"B", "p1"}, {"C", ""}}) {
        SCOPED_TRACE(name);
        MediaSettings first = Settings("A", 100), second = Settings(name, 100);
        first.PlayerID = "p1";
        second.PlayerID = player;
        Open(first);
        Play("A", 0);
        Tick(5);
        EXPECT_EQ(Hits(), Maps{View("A", "100")});
        Open(second);
        if (std::string(name) == "C") {
            EXPECT_EQ(Hits(), Maps{});
            Close("A");
        }
        EXPECT_EQ(Hits(), Maps{Content("A", "100", {{"a.media.timePlayed", "5"}})});
        EXPECT_EQ(clock.Live(), 0) << "the closed item's monitor is gone";
        Play("A", 0);  // a fresh item only when the new one took the name
        EXPECT_EQ(Hits(), std::string(name) == "A" ? Maps{View("A", "100")} : Maps{});
        Close("A");
        Close(name);
    }
    EXPECT_EQ(capture.Count("Velmora Debug:Media - Tried to play media item (A) but it doesn't exist"), 2u);
}

TEST_F(MediaModuleTest, TrackDropsEmptyValuesAndAlwaysSends) {
    Open(Settings("Show", 100));
    Track("Show", {{"early", "1"}});
    EXPECT_EQ(Hits(), Maps{}) << "nothing before the first play";
    Play("Show", 0);
    Hits();
    Track("Show", {{"kept", "1"}, {"dropped", ""}});  // one snapshot only: the view form
    EXPECT_EQ(Hits(), Maps{With(View("Show", "100"), {{"kept", "1"}})});
    Tick(3);
    EXPECT_EQ(Hits(), Maps{});
    Track("Show", {{"kept", "2"}, {"a.media.name", "Mine"}, {"dropped", ""}});
    EXPECT_EQ(Hits(), Maps{Content("Show", "100", {{"kept", "2"}, {"a.media.timePlayed", "3"}})});
    Track("Show", {});
    EXPECT_EQ(Hits(), Maps{Content("Show", "100")}) << "nothing changed, sent all the same";
    Track("Nobody", {});
    EXPECT_TRUE(capture.Contains("Velmora Debug:Media - Tried to track media item (Nobody) but it doesn't exist"));
}

TEST_F(MediaModuleTest, SecondCompleteLeavesABlankSnapshotThatEndsPlaying) {
    Open(Settings("Song", 100, "", 2));
    Play("Song", 0);
    Tick(3);
    EXPECT_EQ(Hits(), (Maps{View("Song", "100"), Content("Song", "100", {{"a.media.timePlayed", "2"}})}));
    Complete("Song", 3);
    EXPECT_EQ(Hits(), Maps{Content("Song", "100", {{"a.media.complete", "true"}, {"a.media.timePlayed", "1"}})});
    EXPECT_EQ(clock.Live(), 1) << "complete before the end keeps the monitor";
    Complete("Song", 3);
    EXPECT_EQ(Hits(), Maps{});
    Tick(4);
    EXPECT_EQ(Hits(), Maps{}) << "not playing any more, so no seconds hit";
    Play("Song", 10);
    EXPECT_EQ(Hits(), Maps{});
    Tick(2);
    EXPECT_EQ(Hits(), Maps{Content("Song", "100", {{"a.media.timePlayed", "2"}})}) << "completion is reported once";
    Complete("Song", 12);
    Complete("Song", 12);
    Hits();
    Close("Song");
    EXPECT_EQ(Hits(), Maps{}) << "nothing played since the blank snapshot";
    EXPECT_EQ(clock.Live(), 0);
}

TEST_F(MediaModuleTest, CloseReportsCompletionNearTheEndOrWithUnknownLength) {
    Open(Settings("Idle", 100));
    Close("Idle");  // never played: nothing to report
    Close("Idle");
    EXPECT_TRUE(capture.Contains("Velmora Debug:Media - Tried to close media item (Idle) but it doesn't exist"));
    for (auto [length, text, complete] : {std::tuple{0.0, (const char*)nullptr, true}, {5.0, "5", true},
                                          {100.0, "100", false}}) {
        MediaSettings settings = Settings("Live", length);
        settings.PlayerName = "";
        Open(settings);
        Play("Live", 0);
        Tick(4);
        Hits();
        Close("Live");
        StringMap expected = Content("Live", text, {{"a.media.playerName", "Not_Specified"}, {"a.media.timePlayed", "4"}});
        if (complete) expected["a.media.complete"] = "true";
        EXPECT_EQ(Hits(), Maps{expected}) << length;
    }
}

TEST_F(MediaModuleTest, MonitorRunsOnlyWhilePlayingAndNeverOutlivesItsItem) {
    Open(Settings("Cam", -1, "", 1));
    Play("Cam", 0);
    Tick(2);
    EXPECT_EQ(Hits().size(), 3u);
    Stop("Cam", 2);
    EXPECT_EQ(clock.Live(), 0);
    Tick(5);
    Play("Cam", 2);
    Play("Cam", 2);  // already playing: no second monitor
    EXPECT_EQ(clock.Live(), 1);
    Tick(2);
    const StringMap second = Content("Cam", nullptr, {{"a.media.timePlayed", "1"}});
    EXPECT_EQ(Hits(), (Maps{second, second}));
    // A click at the end removes the item without stopping its monitor on the way.
    Click("Cam", 100);
    Open(Settings("Promo", 100));
    Play("Promo", 0);
    Click("Promo", 100);
    EXPECT_EQ(Hits().back(), Content("Promo", "100", {{"a.media.clicked", "true"}, {"a.media.complete", "true"},
                                                      {"a.media.timePlayed", "100"}}));
    EXPECT_EQ(clock.Live(), 1) << "only Cam's";
    media->Shutdown();
    EXPECT_EQ(clock.Live(), 0);
}

TEST_F(MediaModuleTest, SegmentsReportTheSegmentJustLeft) {
    MediaSettings settings = Settings("Doc", 100, "50");
    settings.SegmentByMilestones = true;
    Open(settings);
    Play("Doc", 0);
    EXPECT_EQ(Hits(), Maps{With(View("Doc", "100"), {{"a.media.segmentNum", "1"}, {"a.media.segment", "M:0-50"}})});
    Tick(10);
    Stop("Doc", 10);
    Play("Doc", 70);
    EXPECT_EQ(Hits(), Maps{Content("Doc", "100", {{"a.media.segmentView", "true"},
                                                  {"a.media.segmentNum", "1"},
                                                  {"a.media.segment", "M:0-50"},
                                                  {"a.media.milestone", "50"},
                                                  {"a.media.timePlayed", "10"}})});
    Tick(5);
    Stop("Doc", 75);
    EXPECT_EQ(Hits(), Maps{});
    // Back into the first segment after time was played: forced, though no milestone was passed.
    Play("Doc", 20);
    EXPECT_EQ(Hits(), Maps{Content("Doc", "100", {{"a.media.segmentView", "true"},
                                                  {"a.media.segmentNum", "2"},
                                                  {"a.media.segment", "M:50-100"},
                                                  {"a.media.timePlayed", "5"}})});
}

TEST_F(MediaModuleTest, RefusalsAndUnknownNamesChangeNothing) {
    MediaSettings orphanAd = Settings("Ad", 10);
    orphanAd.IsMediaAd = true;
    Open(Settings("\r\n--**--", 10));
    Open(orphanAd);
    Run([](MediaModule& m) { m.Open(nullptr); });
    orphanAd.ParentName = "Par\nent--**--";
    Run([&orphanAd](MediaModule& m) { m.OpenItem(orphanAd); });
    EXPECT_EQ(orphanAd.ParentName, "Parent") << "written back cleaned";
    Close("Ad");
    const std::vector<std::pair<std::string, std::function<void(MediaModule&)>>> ops = {
        {"close", [](MediaModule& m) { m.Close("Ad\n"); }},
        {"play", [](MediaModule& m) { m.Play("Ad\n", 0); }},
        {"complete", [](MediaModule& m) { m.Complete("Ad\n", 0); }},
        {"stop", [](MediaModule& m) { m.Stop("Ad\n", 0); }},
        {"click", [](MediaModule& m) { m.Click("Ad\n", 0); }},
        {"track", [](MediaModule& m) { m.Track("Ad\n", {{"k", "v"}}); }}};
    for (const auto& op : ops) Run(op.second);
    std::vector<std::string> expected(2, "Velmora Warning:Analytics - VLMMediaSettings is required with a valid "
                                         "name. Media item not opened");
    expected.insert(expected.begin() + 1, "Velmora Warning:Analytics - Media ad requires parent name, please "
                                          "specify a parent name. Media item not opened");
    for (const auto& op : ops) {
        expected.push_back("Velmora Debug:Media - Tried to " + op.first + " media item (Ad) but it doesn't exist");
    }
    EXPECT_EQ(capture.Lines(), expected);
    EXPECT_EQ(Hits(), Maps{});

    ConfigSettings none;  // no analytics section: every operation only warns
    ModuleGates closed(none);
    MediaModule unconfigured(log, clock, [&closed] { return closed.Analytics(); }, tracker);
    capture.Clear();
    unconfigured.Open(std::make_shared<MediaSettings>(Settings("A", 100)));
    unconfigured.Play("A", 0);
    unconfigured.Track("A", {});
    unconfigured.Close("A");
    EXPECT_EQ(capture.Lines(), std::vector<std::string>(
                                   4, "Velmora Warning:Analytics - Your config file is not set up to use Analytics"));
    EXPECT_EQ(clock.Live(), 0);
}

TEST_F(MediaModuleTest, BadMilestoneTextIsLoggedByTheQueueAndTheItemStaysClosed) {
    Open(Settings("A", 100));
    Play("A", 0);
    Tick(2);
    Hits();
    Open(Settings("A", 100, "50,25,abc"));
    // The open item of that name is closed before the text is read.
    EXPECT_EQ(Hits(), Maps{Content("A", "100", {{"a.media.timePlayed", "2"}})});
    MediaSettings offsets = Settings("B", 100);
    offsets.OffsetMilestones = "99999999999";
    Open(offsets);
    Play("A", 0);
    Play("B", 0);
    EXPECT_EQ(Hits(), Maps{});
    for (const char* line : {"Velmora Error:Media - Unexpected error in background work (invalid stoi argument)",
                             "Velmora Error:Media - Unexpected error in background work (stoi argument out of range)",
                             "Velmora Debug:Media - Tried to play media item (A) but it doesn't exist",
                             "Velmora Debug:Media - Tried to play media item (B) but it doesn't exist"}) {
        EXPECT_TRUE(capture.Contains(line)) << line;
    }
    Open(Settings("A", 100, "50"));
    Play("A", 0);
    EXPECT_EQ(Hits(), Maps{View("A", "100")}) << "the queue goes on";
}

}  // namespace
}  // namespace velmora

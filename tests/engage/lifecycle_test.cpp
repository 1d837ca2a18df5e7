#include "cohorta/cohorta.h"
#include "core/device.h"
#include "engage_support.h"
#include "lifecycle/lifecycle.h"
#include "lifecycle/timed_actions.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <optional>
#include <variant>

namespace velmora {
namespace {

using test::AtOffset;
using test::AudienceServer;
using test::RecordingTracker;
using test::TestRuntime;

// Local time is ten hours ahead of UTC all year, so an early-morning launch falls on the previous
// day in UTC and a mix-up of the two shows in every calendar value.
constexpr int kOffset = 10;
constexpr const char* kZone = "LCL-10";

std::string Manifest(const std::string& version) {
    return R"(<?xml version="1.0" encoding="utf-8"?>
<Package xmlns="http://schemas.microsoft.com/appx/2010/manifest">
  <Identity Name="Demo" Publisher="CN=Demo" Version=")" +
           version + R"("/>
  <Properties><DisplayName>Demo</DisplayName></Properties>
</Package>
)";
}

std::string Config(std::int32_t timeout, bool analytics, const std::string& audience = "") {
    std::string json = "{";
    if (analytics) {
        json += R"("analytics":{"rsids":"r","server":"collect.invalid","lifecycleTimeout":)" +
                std::to_string(timeout) + "}";
    }
    if (!audience.empty()) json += std::string(analytics ? "," : "") + R"("cohorta":{"server":")" + audience + "\"}";
    return json + "}";
}

HostOptions Device() {
    HostOptions options;
    options.deviceManufacturer = "Acme";
    options.deviceModel = "Phone 1";
    return options;
}

// One application on one local folder: each launch is a new runtime (a new process) with its own
// lifecycle and timed-action modules; the settings and files carry over.
class Application {
public:
    explicit Application(const std::string& config) : env_(config, Device()) {}
    ~Application() { Stop(); }

    void Launch(const std::string& version) {
        Stop();
        env_.package.Write("AppxManifest.xml", Manifest(version));
        env_.runtime = env_.Restart(Device());
        auto& runtime = *env_.runtime;
        timed_ = std::make_unique<TimedActionStore>(runtime.Files(), tracker_, runtime.GetClock(), runtime.Log());
        lifecycle_ = std::make_unique<Lifecycle>(runtime.Config(), runtime.Gates(), runtime.Settings(),
                                                 runtime.GetClock(), runtime.Get<DeviceContext>(), tracker_, *timed_,
                                                 runtime.Get<CohortaClient>(), runtime.Log());
    }
    void Stop() {
        lifecycle_.reset();
        timed_.reset();
    }
    // Lets what was posted run at the current time, then moves the clock.
    void At(std::int32_t seconds) {
        Settle();
        env_.clock->SetMillis(std::int64_t{seconds} * 1000);
    }
    void Settle() {
        if (lifecycle_) {
            ASSERT_TRUE(lifecycle_->Flush(std::chrono::seconds(10)));
        }
        if (timed_) {
            ASSERT_TRUE(timed_->Flush(std::chrono::seconds(10)));
        }
    }

    Lifecycle& lifecycle() { return *lifecycle_; }
    TimedActionStore& timed() { return *timed_; }
    RecordingTracker& tracker() { return tracker_; }
    Runtime& runtime() { return *env_.runtime; }
    SettingsStore& settings() { return env_.runtime->Settings(); }

    // What every "Lifecycle" hit carries besides the lifecycle values.
    StringMap WithDevice(StringMap values) {
        auto& device = runtime().Get<DeviceContext>();
        values["a.OSVersion"] = device.GetOSVersion();
        values.merge(device.GetContextData());
        return values;
    }

private:
    TestRuntime env_;
    RecordingTracker tracker_;
    std::unique_ptr<TimedActionStore> timed_;
    std::unique_ptr<Lifecycle> lifecycle_;
};

using Stored = std::map<std::string, std::optional<SettingValue>>;  // nullopt: the key is absent

SettingValue Text(std::int32_t seconds) { return std::to_string(seconds); }
SettingValue Text(const char* text) { return std::string(text); }
SettingValue Int(std::int32_t value) { return value; }

struct Event {
    enum Kind { kLaunch, kForeground, kBackground, kStore, kRemove };
    Kind kind = kLaunch;
    std::int32_t at = 0;
    std::optional<StringMap> hit;  // launches and foregrounds: the lifecycle values sent; none: no hit
    Stored stored;
    std::string version = "1.0.0.0";
    std::string key;               // kStore, kRemove
    SettingValue value = false;    // kStore
};

Event Make(Event::Kind kind, std::int32_t at, std::optional<StringMap> hit, Stored stored) {
    Event event;
    event.kind = kind;
    event.at = at;
    event.hit = std::move(hit);
    event.stored = std::move(stored);
    return event;
}
Event Launch(std::int32_t at, std::optional<StringMap> hit, Stored stored = {}, std::string version = "1.0.0.0") {
    Event event = Make(Event::kLaunch, at, std::move(hit), std::move(stored));
    event.version = std::move(version);
    return event;
}
Event Foreground(std::int32_t at, std::optional<StringMap> hit, Stored stored = {}) {
    return Make(Event::kForeground, at, std::move(hit), std::move(stored));
}
Event Background(std::int32_t at, Stored stored = {}) {
    return Make(Event::kBackground, at, std::nullopt, std::move(stored));
}
Event Store(const char* key, SettingValue value) {
    Event event = Make(Event::kStore, 0, std::nullopt, {});
    event.key = key;
    event.value = std::move(value);
    return event;
}
Event Remove(const char* key) {
    Event event = Make(Event::kRemove, 0, std::nullopt, {});
    event.key = key;
    return event;
}

struct History {
    std::string name;
    std::vector<Event> events;
    std::int32_t timeout = 300;
};

std::ostream& operator<<(std::ostream& out, const History& history) { return out << history.name; }

// Saturday 7 March 2015, 08:00 local.
const std::int32_t kT0 = AtOffset(2015, 3, 7, 8, 0, kOffset);

StringMap Values(std::initializer_list<std::pair<const std::string, std::string>> values) {
    StringMap map(values);
    map["a.LaunchEvent"] = "LaunchEvent";
    return map;
}

const StringMap kInstallAtT0 = Values({{"a.InstallEvent", "InstallEvent"},
                                       {"a.InstallDate", "3/7/2015"},
                                       {"a.DailyEngUserEvent", "DailyEngUserEvent"},
                                       {"a.MonthlyEngUserEvent", "MonthlyEngUserEvent"},
                                       {"a.Launches", "1"},
                                       {"a.HourOfDay", "8"},
                                       {"a.DayOfWeek", "7"}});

// A first launch at `at`, paused a minute later.
std::vector<Event> InstalledAndPaused(std::int32_t at, const StringMap& install) {
    return {Launch(at, install), Background(at + 60)};
}

StringMap InstallAt(int year, int month, int day, int hour, const std::string& dayOfWeek) {
    return Values({{"a.InstallEvent", "InstallEvent"},
                   {"a.InstallDate", std::to_string(month) + "/" + std::to_string(day) + "/" + std::to_string(year)},
                   {"a.DailyEngUserEvent", "DailyEngUserEvent"},
                   {"a.MonthlyEngUserEvent", "MonthlyEngUserEvent"},
                   {"a.Launches", "1"},
                   {"a.HourOfDay", std::to_string(hour)},
                   {"a.DayOfWeek", dayOfWeek}});
}

std::vector<Event> Then(std::vector<Event> first, std::initializer_list<Event> more) {
    first.insert(first.end(), more);
    return first;
}

std::vector<History> Histories() {
    const std::int32_t t0 = kT0;
    const std::int32_t jan31 = AtOffset(2015, 1, 31, 7, 0, kOffset);
    const std::int32_t mar5 = AtOffset(2015, 3, 5, 9, 0, kOffset);
    const std::int32_t mar5LastYear = AtOffset(2014, 3, 5, 9, 0, kOffset);
    const std::int32_t lateEvening = AtOffset(2015, 3, 5, 23, 0, kOffset);
    const std::int32_t upgradeAt = t0 + 2 * 86400;
    return {
        {"FirstLaunchResumeAt299AndNewSessionAt300",
         {Launch(t0, kInstallAtT0,
                 {{kInstallDateKey, Text(t0)}, {kLastDateUsedKey, Text(t0)}, {kLaunchesKey, Int(1)},
                  {kSessionStartKey, Text(t0)}, {kSuccessfulCloseKey, false}, {kLastVersionKey, Text("1.0.0")},
                  {kPauseDateKey, std::nullopt}, {kUpgradeDateKey, std::nullopt},
                  {kLaunchesAfterUpgradeKey, std::nullopt}}),
          Background(t0 + 600, {{kSuccessfulCloseKey, true}, {kPauseDateKey, Text(t0 + 600)}}),
          Foreground(t0 + 899, std::nullopt,
                     {{kSessionStartKey, Text(t0 + 299)}, {kSuccessfulCloseKey, false}, {kPauseDateKey, std::nullopt}}),
          Background(t0 + 1000),
          Foreground(t0 + 1300,
                     Values({{"a.Launches", "2"}, {"a.DaysSinceFirstUse", "0"}, {"a.DaysSinceLastUse", "0"},
                             {"a.HourOfDay", "8"}, {"a.DayOfWeek", "7"}, {"a.PrevSessionLength", "701"}}),
                     {{kSessionStartKey, Text(t0 + 1300)}, {kLaunchesKey, Int(2)}, {kLastDateUsedKey, Text(t0 + 1300)},
                      {kPauseDateKey, std::nullopt}, {kSuccessfulCloseKey, false}})}},
        {"ResumeInANewProcess",
         Then(InstalledAndPaused(t0, kInstallAtT0),
              {Launch(t0 + 100, std::nullopt, {{kSessionStartKey, Text(t0 + 40)}, {kPauseDateKey, std::nullopt}})})},
        {"ConfiguredTimeout",
         Then(InstalledAndPaused(t0, kInstallAtT0),
              {Launch(t0 + 62, Values({{"a.Launches", "2"}, {"a.DaysSinceFirstUse", "0"}, {"a.DaysSinceLastUse", "0"},
                                       {"a.HourOfDay", "8"}, {"a.DayOfWeek", "7"}, {"a.PrevSessionLength", "60"}}))}),
         2},
        {"ProcessKilledWhileRunning",
         {Launch(t0, kInstallAtT0),
          Launch(t0 + 3600,
                 Values({{"a.CrashEvent", "CrashEvent"}, {"a.Launches", "2"}, {"a.DaysSinceFirstUse", "0"},
                         {"a.DaysSinceLastUse", "0"}, {"a.HourOfDay", "9"}, {"a.DayOfWeek", "7"}}),
                 {{kSessionStartKey, Text(t0 + 3600)}, {kSuccessfulCloseKey, false}})}},
        {"SevenDaySessionIsIgnoredOneSecondLessIsNot",
         {Launch(t0, kInstallAtT0), Background(t0 + 604800),
          Foreground(t0 + 605200,
                     Values({{"a.DailyEngUserEvent", "DailyEngUserEvent"}, {"a.Launches", "2"},
                             {"a.DaysSinceFirstUse", "7"}, {"a.DaysSinceLastUse", "7"}, {"a.HourOfDay", "8"},
                             {"a.DayOfWeek", "7"}, {"a.ignoredSessionLength", "604800"}})),
          Background(t0 + 605200 + 604799),
          Foreground(t0 + 605200 + 604799 + 300,
                     Values({{"a.DailyEngUserEvent", "DailyEngUserEvent"}, {"a.Launches", "3"},
                             {"a.DaysSinceFirstUse", "14"}, {"a.DaysSinceLastUse", "7"}, {"a.HourOfDay", "8"},
                             {"a.DayOfWeek", "7"}, {"a.PrevSessionLength", "604799"}}))}},
        {"January31ToMarch1",
         Then(InstalledAndPaused(jan31, InstallAt(2015, 1, 31, 7, "7")),
              {Foreground(AtOffset(2015, 3, 1, 7, 0, kOffset),
                          Values({{"a.DailyEngUserEvent", "DailyEngUserEvent"},
                                  {"a.MonthlyEngUserEvent", "MonthlyEngUserEvent"}, {"a.Launches", "2"},
                                  {"a.DaysSinceFirstUse", "29"}, {"a.DaysSinceLastUse", "29"}, {"a.HourOfDay", "7"},
                                  {"a.DayOfWeek", "1"}, {"a.PrevSessionLength", "60"}}))})},
        {"March5ToApril5",
         Then(InstalledAndPaused(mar5, InstallAt(2015, 3, 5, 9, "5")),
              {Foreground(AtOffset(2015, 4, 5, 9, 0, kOffset),
                          Values({{"a.MonthlyEngUserEvent", "MonthlyEngUserEvent"}, {"a.Launches", "2"},
                                  {"a.DaysSinceFirstUse", "31"}, {"a.DaysSinceLastUse", "31"}, {"a.HourOfDay", "9"},
                                  {"a.DayOfWeek", "1"}, {"a.PrevSessionLength", "60"}}))})},
        {"OneYearLater",
         Then(InstalledAndPaused(mar5LastYear, InstallAt(2014, 3, 5, 9, "4")),
              {Foreground(mar5, Values({{"a.Launches", "2"}, {"a.DaysSinceFirstUse", "365"},
                                        {"a.DaysSinceLastUse", "365"}, {"a.HourOfDay", "9"}, {"a.DayOfWeek", "5"},
                                        {"a.PrevSessionLength", "60"}}))})},
        {"LocalMidnightSeparatesTheDays",
         Then(InstalledAndPaused(lateEvening, InstallAt(2015, 3, 5, 23, "5")),
              {Foreground(AtOffset(2015, 3, 6, 9, 0, kOffset),
                          Values({{"a.DailyEngUserEvent", "DailyEngUserEvent"}, {"a.Launches", "2"},
                                  {"a.DaysSinceFirstUse", "0"}, {"a.DaysSinceLastUse", "0"}, {"a.HourOfDay", "9"},
                                  {"a.DayOfWeek", "6"}, {"a.PrevSessionLength", "60"}}))})},
        {"UpgradeThenTheNextLaunch",
         Then(InstalledAndPaused(t0, kInstallAtT0),
              {Launch(upgradeAt,
                      Values({{"a.UpgradeEvent", "UpgradeEvent"}, {"a.LaunchesSinceUpgrade", "1"},
                              {"a.DailyEngUserEvent", "DailyEngUserEvent"}, {"a.Launches", "2"},
                              {"a.DaysSinceFirstUse", "2"}, {"a.DaysSinceLastUse", "2"}, {"a.HourOfDay", "8"},
                              {"a.DayOfWeek", "2"}, {"a.PrevSessionLength", "60"}}),
                      {{kUpgradeDateKey, Text(upgradeAt)}, {kLaunchesAfterUpgradeKey, Int(1)},
                       {kLastVersionKey, Text("1.1.0")}},
                      "1.1.9.0"),
               Background(upgradeAt + 100),
               Launch(upgradeAt + 3 * 86400,
                      Values({{"a.LaunchesSinceUpgrade", "2"}, {"a.DaysSinceLastUpgrade", "3"},
                              {"a.DailyEngUserEvent", "DailyEngUserEvent"}, {"a.Launches", "3"},
                              {"a.DaysSinceFirstUse", "5"}, {"a.DaysSinceLastUse", "3"}, {"a.HourOfDay", "8"},
                              {"a.DayOfWeek", "5"}, {"a.PrevSessionLength", "100"}}),
                      {{kUpgradeDateKey, Text(upgradeAt)}, {kLaunchesAfterUpgradeKey, Int(2)},
                       {kLastVersionKey, Text("1.1.0")}},
                      "1.1.9.0")})},
        {"PauseWithoutASessionStartBeginsANewSession",
         Then(InstalledAndPaused(t0, kInstallAtT0),
              {Remove(kSessionStartKey),
               Foreground(t0 + 100, Values({{"a.Launches", "2"}, {"a.DaysSinceFirstUse", "0"},
                                            {"a.DaysSinceLastUse", "0"}, {"a.HourOfDay", "8"}, {"a.DayOfWeek", "7"}}),
                          {{kSessionStartKey, Text(t0 + 100)}})})},
        {"UnreadableValuesReadAsZero",
         Then(InstalledAndPaused(t0, kInstallAtT0),
              {Store(kLaunchesKey, Text("5")), Store(kSessionStartKey, Text("soon")),
               Store(kInstallDateKey, std::int32_t{5}),
               Foreground(t0 + 100,
                          Values({{"a.Launches", "1"}, {"a.DaysSinceFirstUse", std::to_string(t0 / 86400 + 0)},
                                  {"a.DaysSinceLastUse", "0"}, {"a.HourOfDay", "8"}, {"a.DayOfWeek", "7"},
                                  {"a.ignoredSessionLength", std::to_string(t0 + 60)}}),
                          {{kLaunchesKey, Int(1)}})})},
    };
}

class LaunchHistory : public ::testing::TestWithParam<History> {
protected:
    void SetUp() override { test::SetTimeZone(kZone); }
};

TEST_P(LaunchHistory, SendsTheLifecycleValuesAndStoresTheSessionState) {
    const History& history = GetParam();
    Application app(Config(history.timeout, true));
    std::size_t hitsSeen = 0;
    for (std::size_t i = 0; i < history.events.size(); ++i) {
        const Event& event = history.events[i];
        SCOPED_TRACE("event " + std::to_string(i));
        if (event.kind == Event::kLaunch) {
            app.Stop();
            app.At(event.at);
            app.Launch(event.version);
        } else if (event.kind == Event::kStore || event.kind == Event::kRemove) {
            app.Settle();
            if (event.kind == Event::kStore) app.settings().Insert(event.key, event.value);
            else app.settings().Remove(event.key);
            continue;
        } else {
            app.At(event.at);
        }
        if (event.kind == Event::kBackground) app.lifecycle().Pause();
        else app.lifecycle().Start();
        app.Settle();

        const auto hits = app.tracker().Hits();
        if (event.hit) {
            ASSERT_EQ(hits.size(), hitsSeen + 1);
            const auto& hit = hits.back();
            EXPECT_TRUE(hit.internal);
            EXPECT_EQ(hit.name, "Lifecycle");
            EXPECT_EQ(hit.timestamp, event.at - 1);
            const StringMap expected = app.WithDevice(*event.hit);
            EXPECT_EQ(hit.data, expected);
            EXPECT_EQ(app.lifecycle().GetLifecycleContextData(), expected);
            hitsSeen = hits.size();
        } else {
            ASSERT_EQ(hits.size(), hitsSeen) << "no hit expected";
        }
        for (const auto& [key, value] : event.stored) {
            EXPECT_EQ(app.settings().Lookup(key), value) << key;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Lifecycle, LaunchHistory, ::testing::ValuesIn(Histories()),
                         [](const auto& info) { return info.param.name; });

class LifecycleTest : public ::testing::Test {
protected:
    void SetUp() override { test::SetTimeZone(kZone); }
};

TEST_F(LifecycleTest, PausedTimeIsLeftOutOfRunningTimedActions) {
    Application app(Config(300, true));
    app.At(kT0);
    app.Launch("1.0.0.0");
    app.lifecycle().Start();
    app.timed().Start("a", {{"k", "v"}});
    app.At(kT0 + 50);
    app.lifecycle().Pause();
    app.At(kT0 + 150);
    app.lifecycle().Start();  // resumes after 100 s
    app.At(kT0 + 200);
    app.timed().End("a");
    app.Settle();
    const auto hits = app.tracker().Hits();
    ASSERT_EQ(hits.size(), 2u);
    EXPECT_EQ(hits[1].name, "a");
    EXPECT_FALSE(hits[1].internal);
    EXPECT_EQ(hits[1].data, (StringMap{{"a.action.time.inapp", "100"}, {"a.action.time.total", "200"}, {"k", "v"}}));
}

TEST_F(LifecycleTest, ANewSessionAlsoShiftsTimedActionsThatOutliveTheProcess) {
    Application app(Config(300, true));
    app.At(kT0);
    app.Launch("1.0.0.0");
    app.lifecycle().Start();
    app.timed().Start("a", {});
    app.At(kT0 + 10);
    app.lifecycle().Pause();
    app.At(kT0 + 1000);
    app.Launch("1.0.0.0");
    app.lifecycle().Start();  // a new session after 990 s in the background
    app.At(kT0 + 1005);
    app.timed().End("a");
    app.Settle();
    const auto hits = app.tracker().Hits();
    ASSERT_EQ(hits.size(), 3u);
    EXPECT_EQ(hits[2].data, (StringMap{{"a.action.time.inapp", "15"}, {"a.action.time.total", "1005"}}));
}

TEST_F(LifecycleTest, TheAudienceGetsTheValuesEvenWithoutAnalytics) {
    AudienceServer server;
    server.Answer("/event", R"({"stuff":[{"cn":"s","cv":"1"}]})");
    Application app(Config(300, false, server.Host()));
    app.At(kT0);
    app.Launch("1.0.0.0");
    app.lifecycle().Start();
    app.Settle();
    ASSERT_TRUE(app.runtime().Get<CohortaClient>().Flush(std::chrono::seconds(10)));
    EXPECT_TRUE(app.tracker().Hits().empty());
    ASSERT_EQ(server.Targets().size(), 1u);
    const std::string target = server.Targets()[0];
    for (const char* pair : {"c_a_InstallEvent=InstallEvent", "c_a_Launches=1", "c_a_InstallDate=3%2F7%2F2015",
                             "c_a_DayOfWeek=7", "c_a_AppID=Demo%201.0.0%20%280%29"}) {
        EXPECT_NE(target.find(pair), std::string::npos) << pair << " in " << target;
    }
    EXPECT_EQ(app.runtime().Get<CohortaClient>().GetVisitorProfile(), (StringMap{{"s", "1"}}));
    EXPECT_EQ(app.lifecycle().GetLifecycleContextData().at("a.Launches"), "1");
}

}  // namespace
}  // namespace velmora

#include "cohorta/cohorta.h"
#include "core/device.h"
#include "engage_support.h"
#include "lifecycle/lifecycle.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <sstream>

namespace velmora {
namespace {

using test::AtOffset;

// Local time is ten hours ahead of UTC all year: an early-morning launch falls on the day before
// in UTC, so a mix-up of the two shows in the calendar values.
constexpr int kOffset = 10;
const std::int32_t kT0 = AtOffset(2015, 3, 7, 8, 0, kOffset);  // Saturday 7 March 2015, 08:00

std::string Config(std::int32_t timeout, const std::string& audience = "") {
    if (!audience.empty()) return R"({"cohorta":{"server":")" + audience + "\"}}";
    return R"({"analytics":{"rsids":"r","server":"s","lifecycleTimeout":)" + std::to_string(timeout) + "}}";
}

// One application on one local folder; each launch is a new runtime, as a new process would be.
class Application {
public:
    explicit Application(const std::string& config) : env_(config) {}
    ~Application() { Stop(); }

    void Launch(const std::string& version) {
        Stop();
        env_.package.Write("AppxManifest.xml", R"(<?xml version="1.0"?><Package><Identity Name="Demo" Version=")" +
                                                   version + R"("/><Properties><DisplayName>Demo</DisplayName>)"
                                                             R"(</Properties></Package>)");
        env_.runtime = env_.Restart();
        auto& runtime = *env_.runtime;
        timed_ = std::make_unique<TimedActionStore>(runtime.Files(), tracker, runtime.GetClock(), runtime.Log());
        lifecycle_ = std::make_unique<Lifecycle>(runtime.Config(), runtime.Gates(), runtime.Settings(),
                                                 runtime.GetClock(), runtime.Get<DeviceContext>(), tracker, *timed_,
                                                 runtime.Get<CohortaClient>(), runtime.Log());
    }
    void Stop() {
        lifecycle_.reset();
        timed_.reset();
    }
    // Lets what was posted run at the current time, then moves the clock.
    void At(std::int32_t seconds) {
        if (lifecycle_) {
            EXPECT_TRUE(lifecycle_->Flush(std::chrono::seconds(10)));
        }
        if (timed_) {
            EXPECT_TRUE(timed_->Flush(std::chrono::seconds(10)));
        }
        env_.clock->SetMillis(std::int64_t{seconds} * 1000);
    }
    // The lifecycle values written as "Launches=2 CrashEvent ...", plus the launch event and the
    // device context that every new session carries.
    StringMap Expected(const std::string& values) {
        StringMap map{{"a.LaunchEvent", "LaunchEvent"}};
        std::istringstream words(values);
        for (std::string word; words >> word;) {
            const auto equals = word.find('=');
            if (equals == std::string::npos) map["a." + word] = word;
            else map["a." + word.substr(0, equals)] = word.substr(equals + 1);
        }
        auto& device = env_.runtime->Get<DeviceContext>();
        map["a.OSVersion"] = device.GetOSVersion();
        map.merge(device.GetContextData());
        return map;
    }

    Lifecycle& lifecycle() { return *lifecycle_; }
    TimedActionStore& timed() { return *timed_; }
    Runtime& runtime() { return *env_.runtime; }
    test::RecordingTracker tracker;

private:
    test::TestRuntime env_;
    std::unique_ptr<TimedActionStore> timed_;
    std::unique_ptr<Lifecycle> lifecycle_;
};

using Stored = std::map<std::string, std::optional<SettingValue>>;  // nullopt: the key is absent

struct Event {
    Event(char k, std::int32_t t, std::string h, Stored s = {}, std::string v = "1.0.0.0")
        : kind(k), at(t), hit(std::move(h)), stored(std::move(s)), version(std::move(v)) {}
    char kind;         // 'L' launch in a new process, 'F' foreground, 'B' background
    std::int32_t at;
    std::string hit;   // the lifecycle values sent; "-" for no hit
    Stored stored;
    std::string version;
};

struct History {
    History(std::string n, std::vector<Event> e, std::int32_t t = 300)
        : name(std::move(n)), events(std::move(e)), timeout(t) {}
    std::string name;
    std::vector<Event> events;
    std::int32_t timeout;
};

SettingValue Text(std::int32_t seconds) { return std::to_string(seconds); }

const std::string kInstall =
    "InstallEvent InstallDate=3/7/2015 DailyEngUserEvent MonthlyEngUserEvent Launches=1 HourOfDay=8 DayOfWeek=7";

// Installed at `at` and paused a minute later; "Launches=2" and the session length follow.
std::vector<Event> PausedAfterInstall(std::int32_t at, const std::string& install, Event next) {
    return {{'L', at, install}, {'B', at + 60, "-"}, next};
}

std::vector<History> Histories() {
    const std::int32_t t0 = kT0, mar5 = AtOffset(2015, 3, 5, 9, 0, kOffset), up = t0 + 2 * 86400;
    const std::string same = "Launches=2 DaysSinceFirstUse=0 DaysSinceLastUse=0 HourOfDay=8 DayOfWeek=7 ";
    return {
        {"FirstLaunchResumeAt299NewSessionAt300",
         {{'L', t0, kInstall,
           {{kInstallDateKey, Text(t0)}, {kLastDateUsedKey, Text(t0)}, {kLaunchesKey, 1}, {kSessionStartKey, Text(t0)},
            {kSuccessfulCloseKey, false}, {kLastVersionKey, std::string("1.0.0")}, {kPauseDateKey, std::nullopt},
            {kUpgradeDateKey, std::nullopt}, {kLaunchesAfterUpgradeKey, std::nullopt}}},
          {'B', t0 + 600, "-", {{kSuccessfulCloseKey, true}, {kPauseDateKey, Text(t0 + 600)}}},
          {'F', t0 + 899, "-", {{kSessionStartKey, Text(t0 + 299)}, {kSuccessfulCloseKey, false}, {kPauseDateKey, {}}}},
          {'B', t0 + 1000, "-"},
          {'F', t0 + 1300, same + "PrevSessionLength=701",
           {{kSessionStartKey, Text(t0 + 1300)}, {kLaunchesKey, 2}, {kLastDateUsedKey, Text(t0 + 1300)}}}}},
        {"ResumeInANewProcess", PausedAfterInstall(t0, kInstall, {'L', t0 + 100, "-", {{kSessionStartKey, Text(t0 + 40)}}})},
        {"ConfiguredTimeout", PausedAfterInstall(t0, kInstall, {'L', t0 + 62, same + "PrevSessionLength=60"}), 2},
        {"Crash", {{'L', t0, kInstall}, {'L', t0 + 3600, "CrashEvent Launches=2 DaysSinceFirstUse=0 DaysSinceLastUse=0 HourOfDay=9 DayOfWeek=7",
                                         {{kSessionStartKey, Text(t0 + 3600)}}}}},
        {"SevenDaySession",
         {{'L', t0, kInstall}, {'B', t0 + 604800, "-"},
          {'F', t0 + 605200, "DailyEngUserEvent Launches=2 DaysSinceFirstUse=7 DaysSinceLastUse=7 HourOfDay=8 "
                             "DayOfWeek=7 ignoredSessionLength=604800"},
          {'B', t0 + 1209999, "-"},
          {'F', t0 + 1210299, "DailyEngUserEvent Launches=3 DaysSinceFirstUse=14 DaysSinceLastUse=7 HourOfDay=8 "
                              "DayOfWeek=7 PrevSessionLength=604799"}}},
        {"January31ToMarch1",
         PausedAfterInstall(AtOffset(2015, 1, 31, 7, 0, kOffset),
                            "InstallEvent InstallDate=1/31/2015 DailyEngUserEvent MonthlyEngUserEvent Launches=1 "
                            "HourOfDay=7 DayOfWeek=7",
                            {'F', AtOffset(2015, 3, 1, 7, 0, kOffset),
                             "DailyEngUserEvent MonthlyEngUserEvent Launches=2 DaysSinceFirstUse=29 "
                             "DaysSinceLastUse=29 HourOfDay=7 DayOfWeek=1 PrevSessionLength=60"})},
        {"March5ToApril5",
         PausedAfterInstall(mar5,
                            "InstallEvent InstallDate=3/5/2015 DailyEngUserEvent MonthlyEngUserEvent Launches=1 "
                            "HourOfDay=9 DayOfWeek=5",
                            {'F', AtOffset(2015, 4, 5, 9, 0, kOffset),
                             "MonthlyEngUserEvent Launches=2 DaysSinceFirstUse=31 DaysSinceLastUse=31 HourOfDay=9 "
                             "DayOfWeek=1 PrevSessionLength=60"})},
        {"OneYearLater",
         PausedAfterInstall(AtOffset(2014, 3, 5, 9, 0, kOffset),
                            "InstallEvent InstallDate=3/5/2014 DailyEngUserEvent MonthlyEngUserEvent Launches=1 "
                            "HourOfDay=9 DayOfWeek=4",
                            {'F', mar5, "Launches=2 DaysSinceFirstUse=365 DaysSinceLastUse=365 HourOfDay=9 "
                                        "DayOfWeek=5 PrevSessionLength=60"})},
        {"UpgradeThenTheNextLaunch",
         {{'L', t0, kInstall}, {'B', t0 + 60, "-"},
          {'L', up, "UpgradeEvent LaunchesSinceUpgrade=1 DailyEngUserEvent Launches=2 DaysSinceFirstUse=2 "
                    "DaysSinceLastUse=2 HourOfDay=8 DayOfWeek=2 PrevSessionLength=60",
           {{kUpgradeDateKey, Text(up)}, {kLaunchesAfterUpgradeKey, 1}, {kLastVersionKey, std::string("1.1.0")}},
           "1.1.9.0"},
          {'B', up + 100, "-"},
          {'L', up + 3 * 86400, "LaunchesSinceUpgrade=2 DaysSinceLastUpgrade=3 DailyEngUserEvent Launches=3 "
                                "DaysSinceFirstUse=5 DaysSinceLastUse=3 HourOfDay=8 DayOfWeek=5 PrevSessionLength=100",
           {{kUpgradeDateKey, Text(up)}, {kLaunchesAfterUpgradeKey, 2}}, "1.1.9.0"}}},
    };
}

void PrintTo(const History& history, std::ostream* out) { *out << history.name; }

class LaunchHistory : public ::testing::TestWithParam<History> {
protected:
    void SetUp() override { test::SetTimeZone("LCL-10"); }
};

TEST_P(LaunchHistory, SendsTheLifecycleValuesAndStoresTheSessionState) {
    Application app(Config(GetParam().timeout));
    std::size_t hits = 0;
    for (const Event& event : GetParam().events) {
        SCOPED_TRACE(std::string(1, event.kind) + " at t0 + " + std::to_string(event.at - kT0));
        app.At(event.at);
        if (event.kind == 'L') app.Launch(event.version);
        if (event.kind == 'B') app.lifecycle().Pause();
        else app.lifecycle().Start();
        app.At(event.at);

        if (event.hit == "-") {
            ASSERT_EQ(app.tracker.Hits().size(), hits);
            continue;
        }
        ASSERT_EQ(app.tracker.Hits().size(), ++hits);
        const auto hit = app.tracker.Hits().back();
        EXPECT_TRUE(hit.internal);
        EXPECT_EQ(hit.name, "Lifecycle");
        EXPECT_EQ(hit.timestamp, event.at - 1);
        EXPECT_EQ(hit.data, app.Expected(event.hit));
        EXPECT_EQ(app.lifecycle().GetLifecycleContextData(), app.Expected(event.hit));
        for (const auto& [key, value] : event.stored) EXPECT_EQ(app.runtime().Settings().Lookup(key), value) << key;
    }
}

INSTANTIATE_TEST_SUITE_P(Lifecycle, LaunchHistory, ::testing::ValuesIn(Histories()),
                         [](const auto& info) { return info.param.name; });

TEST(Lifecycle, PausedTimeIsLeftOutOfRunningTimedActionsAcrossProcesses) {
    test::SetTimeZone("LCL-10");
    Application app(Config(300));
    app.At(kT0);
    app.Launch("1.0.0.0");
    app.lifecycle().Start();
    app.timed().Start("a", {{"k", "v"}});
    app.At(kT0 + 50);
    app.lifecycle().Pause();
    app.At(kT0 + 150);
    app.lifecycle().Start();  // resumes after 100 s
    app.At(kT0 + 160);
    app.lifecycle().Pause();
    app.At(kT0 + 1000);
    app.Launch("1.0.0.0");
    app.lifecycle().Start();  // a new session after 840 s
    app.At(kT0 + 1010);
    app.timed().End("a");
    app.At(kT0 + 1010);
    ASSERT_EQ(app.tracker.Hits().size(), 3u);
    EXPECT_EQ(app.tracker.Hits()[2].data,
              (StringMap{{"a.action.time.inapp", "70"}, {"a.action.time.total", "1010"}, {"k", "v"}}));
}

TEST(Lifecycle, TheAudienceGetsTheValuesEvenWithoutAnalytics) {
    test::SetTimeZone("LCL-10");
    test::AudienceServer server;
    server.Answer("/event", R"({"stuff":[{"cn":"s","cv":"1"}]})");
    Application app(Config(300, server.Host()));
    app.At(kT0);
    app.Launch("1.0.0.0");
    app.lifecycle().Start();
    app.At(kT0);
    ASSERT_TRUE(app.runtime().Get<CohortaClient>().Flush(std::chrono::seconds(10)));
    EXPECT_TRUE(app.tracker.Hits().empty());
    ASSERT_EQ(server.Targets().size(), 1u);
    for (const char* pair : {"c_a_InstallEvent=InstallEvent&", "c_a_InstallDate=3%2F7%2F2015&", "c_a_DayOfWeek=7&",
                             "c_a_AppID=Demo%201.0.0%20%280%29&", "c_a_Launches=1&"}) {
        EXPECT_NE(server.Targets()[0].find(pair), std::string::npos) << pair << " in " << server.Targets()[0];
    }
    EXPECT_EQ(app.runtime().Get<CohortaClient>().GetVisitorProfile(), (StringMap{{"s", "1"}}));
}

}  // namespace
}  // namespace velmora

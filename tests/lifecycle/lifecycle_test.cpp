#include "lifecycle/lifecycle.h"
#include "support/application.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace velmora::test {
namespace {

// Seconds since 1970 of a local moment ten hours east of UTC, through timegm, which ignores TZ, so
// that expectations do not share the conversion under test. An early-morning launch falls on the
// day before in UTC, so a mix-up of the two shows in the calendar values.
std::int32_t Local(int year, int month, int day, int hour) {
    std::tm fields{};
    fields.tm_year = year - 1900, fields.tm_mon = month - 1, fields.tm_mday = day, fields.tm_hour = hour;
    return static_cast<std::int32_t>(::timegm(&fields) - 10 * 3600);
}
const std::int32_t kT0 = Local(2015, 3, 7, 8);  // Saturday 7 March 2015, 08:00

using Stored = std::map<std::string, std::optional<SettingValue>>;  // nullopt: the key is absent
// What the application does at a moment: starts as a new process (of version 1.0 or, upgraded, 1.1.9),
// comes to the foreground or goes to the background.
enum Step { kLaunch, kUpgradedLaunch, kUpgradedAgain, kForeground, kBackground };
const char* const kStepNames[] = {"launch", "upgraded launch", "launch upgraded again", "foreground", "background"};
const char* const kVersions[] = {"1.0.0.0", "1.1.9.0", "1.2.0.0"};
// `hit`: the lifecycle values sent, as "Launches=2 CrashEvent ...", or "-" for none; `stored`: the
// settings after the step; `before`: settings changed behind the module's back before it.
struct Event { Step step; std::int32_t at; std::string hit; Stored stored = {}; Stored before = {}; };
struct History { std::string name; std::vector<Event> events; std::int32_t timeout = 300; };
void PrintTo(const History& history, std::ostream* out) { *out << history.name; }
SettingValue Text(std::int32_t seconds) { return std::to_string(seconds); }
const std::string kInstall = "InstallEvent DailyEngUserEvent MonthlyEngUserEvent Launches=1 InstallDate=";

// Installed at `at` and paused a minute later; then `next`.
std::vector<Event> PausedAfterInstall(std::int32_t at, const std::string& install, Event next) {
    return {{kLaunch, at, kInstall + install}, {kBackground, at + 60, "-"}, std::move(next)};
}

std::vector<History> Histories() {
    const std::int32_t t0 = kT0, mar5 = Local(2015, 3, 5, 9), up = t0 + 2 * 86400;
    const std::string i0 = kInstall + "3/7/2015 HourOfDay=8 DayOfWeek=7";
    const std::string same = "Launches=2 DaysSinceFirstUse=0 DaysSinceLastUse=0 DayOfWeek=7 ";
    return {
        {"FirstLaunchResumeAt299NewSessionAt300",
         {{kLaunch, t0, i0, {{kInstallDateKey, Text(t0)}, {kLastDateUsedKey, Text(t0)}, {kLaunchesKey, 1},
                         {kSessionStartKey, Text(t0)}, {kSuccessfulCloseKey, false}, {kPauseDateKey, std::nullopt},
                         {kLastVersionKey, std::string("1.0.0")}, {kUpgradeDateKey, {}}}},
          {kBackground, t0 + 600, "-", {{kSuccessfulCloseKey, true}, {kPauseDateKey, Text(t0 + 600)}}},
          {kLaunch, t0 + 899, "-", {{kSessionStartKey, Text(t0 + 299)}, {kSuccessfulCloseKey, false}, {kPauseDateKey, {}}}},
          {kBackground, t0 + 1000, "-"},
          {kForeground, t0 + 1300, same + "HourOfDay=8 PrevSessionLength=701",
           {{kSessionStartKey, Text(t0 + 1300)}, {kPauseDateKey, {}}, {kLaunchesKey, 2}, {kLastDateUsedKey, Text(t0 + 1300)}}}}},
        {"ConfiguredTimeout", PausedAfterInstall(t0, "3/7/2015 HourOfDay=8 DayOfWeek=7",
                                                 {kLaunch, t0 + 62, same + "HourOfDay=8 PrevSessionLength=60"}), 2},
        {"Crash", {{kLaunch, t0, i0}, {kLaunch, t0 + 3600, "CrashEvent HourOfDay=9 " + same, {{kSessionStartKey, Text(t0 + 3600)}}}}},
        {"SevenDaySession", {{kLaunch, t0, i0}, {kBackground, t0 + 604800, "-"},
          {kForeground, t0 + 605200, "DailyEngUserEvent Launches=2 DaysSinceFirstUse=7 DaysSinceLastUse=7 HourOfDay=8 "
                             "DayOfWeek=7 ignoredSessionLength=604800"}, {kBackground, t0 + 1209999, "-"},
          {kForeground, t0 + 1210299, "DailyEngUserEvent Launches=3 DaysSinceFirstUse=14 DaysSinceLastUse=7 HourOfDay=8 "
                              "DayOfWeek=7 PrevSessionLength=604799"}}},
        {"January31ToMarch1",
         PausedAfterInstall(Local(2015, 1, 31, 7), "1/31/2015 HourOfDay=7 DayOfWeek=7",
                            {kForeground, Local(2015, 3, 1, 7), "DailyEngUserEvent MonthlyEngUserEvent Launches=2 DayOfWeek=1 "
                             "DaysSinceFirstUse=29 DaysSinceLastUse=29 HourOfDay=7 PrevSessionLength=60"})},
        {"March5ToApril5",
         PausedAfterInstall(mar5, "3/5/2015 HourOfDay=9 DayOfWeek=5",
                            {kForeground, Local(2015, 4, 5, 9), "MonthlyEngUserEvent Launches=2 DaysSinceFirstUse=31 "
                             "DaysSinceLastUse=31 HourOfDay=9 DayOfWeek=1 PrevSessionLength=60"})},
        {"OneYearLater",
         PausedAfterInstall(Local(2014, 3, 5, 9), "3/5/2014 HourOfDay=9 DayOfWeek=4",
                            {kForeground, mar5, "Launches=2 DaysSinceFirstUse=365 DaysSinceLastUse=365 HourOfDay=9 DayOfWeek=5 "
                             "PrevSessionLength=60"})},
        {"UpgradeThenTheNextLaunch", {{kLaunch, t0, i0}, {kBackground, t0 + 60, "-"},
          {kUpgradedLaunch, up, "UpgradeEvent LaunchesSinceUpgrade=1 DailyEngUserEvent Launches=2 DaysSinceFirstUse=2 "
                    "DaysSinceLastUse=2 HourOfDay=8 DayOfWeek=2 PrevSessionLength=60",
           {{kUpgradeDateKey, Text(up)}, {kLaunchesAfterUpgradeKey, 1}, {kLastVersionKey, std::string("1.1.0")}}}, {kBackground, up + 100, "-"},
          {kUpgradedLaunch, up + 3 * 86400, "LaunchesSinceUpgrade=2 DaysSinceLastUpgrade=3 DailyEngUserEvent Launches=3 "
                                "DaysSinceFirstUse=5 DaysSinceLastUse=3 HourOfDay=8 DayOfWeek=5 PrevSessionLength=100",
           {{kUpgradeDateKey, Text(up)}, {kLaunchesAfterUpgradeKey, 2}}}, {kBackground, up + 3 * 86400 + 50, "-"},
          {kUpgradedAgain, up + 4 * 86400, "UpgradeEvent LaunchesSinceUpgrade=1 DailyEngUserEvent Launches=4 "
                                "DaysSinceFirstUse=6 DaysSinceLastUse=1 HourOfDay=8 DayOfWeek=6 PrevSessionLength=50",
           {{kUpgradeDateKey, Text(up + 4 * 86400)}, {kLaunchesAfterUpgradeKey, 1}}}}},
        {"APauseWithoutItsSessionStartGivesNoLength",
         PausedAfterInstall(t0, "3/7/2015 HourOfDay=8 DayOfWeek=7",
                            {kLaunch, t0 + 120, same + "HourOfDay=8", {}, {{kSessionStartKey, std::nullopt}}})},
        {"APauseDateOfZeroGivesNoLength", {{kLaunch, t0, i0},
          {kLaunch, t0 + 3600, same + "HourOfDay=9", {}, {{kPauseDateKey, Text(0)}, {kSuccessfulCloseKey, true}}}}},
    };
}

// Each history in a time zone ten hours east of UTC, with a timed action from the first event to
// the last that leaves out the time in the background.
struct LaunchHistory : Application, ::testing::WithParamInterface<History> {
    StringMap Expected(const std::string& values) {  // with the launch event and the device context
        StringMap map{{"a.LaunchEvent", "LaunchEvent"}};
        std::istringstream words(values);
        for (std::string word; words >> word;) {
            const auto equals = word.find('=');
            map["a." + word.substr(0, equals)] = equals == std::string::npos ? word : word.substr(equals + 1);
        }
        map["a.OSVersion"] = "Debian GNU/Linux 12";  // the host's text, over the device's own
        map.merge(env.runtime->GetDeviceContext().GetContextData());
        return map;
    }
};

TEST_P(LaunchHistory, SendsTheLifecycleValuesAndStoresTheSessionState) {
    const ScopedEnv zone("TZ", "LCL-10");
    const auto& [name, events, timeout] = GetParam();
    std::size_t sent = 0;
    for (const Event& event : events) {
        SCOPED_TRACE(std::string(kStepNames[event.step]) + " at t0 + " + std::to_string(event.at - kT0));
        At(event.at);
        if (event.step <= kUpgradedAgain) Launch(kVersions[event.step], timeout);
        for (const auto& [key, value] : event.before) value ? Settings().Insert(key, *value) : Settings().Remove(key);
        if (&event == &events.front()) timed->Start("t", {});
        if (event.hit != "-") EXPECT_CALL(tracker, TrackInternalAction("Lifecycle", Expected(event.hit), event.at - 1));
        event.step == kBackground ? lifecycle->Pause() : lifecycle->Start();
        At(event.at);
        ASSERT_TRUE(::testing::Mock::VerifyAndClearExpectations(&tracker));
        sent += event.hit != "-";
        ASSERT_EQ(audience.Requests().size(), sent);  // the same values go to the audience service
        for (const auto& [key, value] : event.stored) EXPECT_EQ(Settings().Lookup(key), value) << key;
        if (event.hit == "-") continue;
        EXPECT_EQ(lifecycle->GetLifecycleContextData(), Expected(event.hit));
    }
    std::int32_t total = events.back().at - events.front().at, inApp = total;
    for (std::size_t i = 0; i + 1 < events.size(); ++i) inApp -= events[i].step == kBackground ? events[i + 1].at - events[i].at : 0;
    EXPECT_CALL(tracker, TrackAction("t", StringMap{{"a.action.time.inapp", std::to_string(inApp)},
                                                    {"a.action.time.total", std::to_string(total)}}));
    timed->End("t");
    At(events.back().at);
}
INSTANTIATE_TEST_SUITE_P(Lifecycle, LaunchHistory, ::testing::ValuesIn(Histories()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace velmora::test

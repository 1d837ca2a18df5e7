// Timed actions, lifetime value, lifecycle sessions and audience signals on real files, settings and
// loopback servers, with a manual clock.
#include "cohorta/cohorta.h"
#include "core/device.h"
#include "lifecycle/lifecycle.h"
#include "lifetime_value/lifetime_value.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace velmora {
namespace {

using ::testing::Contains, ::testing::ElementsAre, ::testing::MatchesRegex, ::testing::StartsWith;

// The analytics side; as a strict mock, a hit no test expects fails it.
struct MockTracker : ActionTracker {
    MOCK_METHOD(void, TrackAction, (const std::string& name, const StringMap& data), (override));
    MOCK_METHOD(void, TrackInternalAction, (const std::string& name, const StringMap& data, std::int32_t), (override));
};

// One application on one local folder, each launch a new runtime as a new process would be, with
// debug lines on and the loopback audience server (or `cohorta`).
struct Application : ::testing::Test {
    void Launch(const std::string& version = "1.0.0.0", std::int32_t timeout = 300, std::string cohorta = "") {
        lifecycle.reset();
        timed.reset();
        env.package.Write("VelmoraConfig.json", R"({"analytics":{"rsids":"r","server":"s","lifecycleTimeout":)" +
                                                    std::to_string(timeout) + R"(},"cohorta":{"server":")" +
                                                    (cohorta.empty() ? audience.Address() : cohorta) + "\"}}");
        env.package.Write("AppxManifest.xml", R"(<Package><Identity Version=")" + version + R"("/><Properties>)"
                                              R"(<DisplayName>Demo</DisplayName></Properties></Package>)");
        HostOptions host;
        host.osVersion = "Debian GNU/Linux 12";  // the launch hit carries the host's text
        env.runtime = env.Restart(host);
        auto& r = *env.runtime;
        r.Config();  // read before debug lines are on
        r.Log().SetDebugEnabled(true);
        env.log.Clear();
        timed = std::make_unique<TimedActionStore>(r.Files(), tracker, r.GetClock(), r.Log(), r.Workers());
        lifecycle = std::make_unique<Lifecycle>(r.Config(), r.Gates(), r.Settings(), r.GetClock(),
                                                r.Device(), tracker, *timed, Cohorta(), r.Log(), r.Workers());
    }
    void Answer(const std::string& body) {  // to audience signals; "HOLD" never answers
        audience.OnGet([this, body](const httplib::Request& request, httplib::Response& response) {
            if (request.path == "/event") body == "HOLD" ? audience.Hold() : response.set_content(body, "text/json");
        });
    }
    void At(std::int64_t seconds) {  // once what was posted ran at the old time
        const auto limit = std::chrono::seconds(10);
        EXPECT_TRUE(!lifecycle || (lifecycle->Flush(limit) && timed->Flush(limit) && Cohorta().Flush(limit)));
        env.clock->SetMillis(seconds * 1000);
    }
    CohortaClient& Cohorta() { return env.runtime->Audience(); }
    SettingsStore& Settings() { return env.runtime->Settings(); }
    std::string File() const { return env.local.Read(TimedActionStore::kFileName); }

    test::LoopbackServer audience;
    test::ClosedPort closed;
    const std::string refused = "127.0.0.1:" + std::to_string(closed.Port());
    test::TestRuntime env;
    ::testing::StrictMock<MockTracker> tracker;
    std::unique_ptr<TimedActionStore> timed;
    std::unique_ptr<Lifecycle> lifecycle;
};

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
    ASSERT_TRUE(timed->Exists("a").get());
    EXPECT_EQ(File(), R"({"Actions":[{"name":"a","start":1426000000,"adjusted":1426000100,)"
                      R"("data":{"a.action.time.total":"caller","step":"2"}}]})");
    Launch();
    timed->Update("a", {{"step", "3"}, {"w", "5"}});
    At(kStart + 200);
    EXPECT_CALL(tracker, TrackAction("a", StringMap{{"a.action.time.inapp", "100"}, {"a.action.time.total", "200"},
                                                    {"step", "3"}, {"w", "5"}}));
    timed->End("a");
    EXPECT_FALSE(timed->Exists("a").get());
    EXPECT_EQ(File(), R"({"Actions":[]})");
    EXPECT_TRUE(env.log.Lines().empty());
}

TEST_F(Application, BrokenTimedActionsAndBadInputAreLoggedAndChangeNothingElse) {
    env.local.Write(TimedActionStore::kFileName, R"({"Actions":5})");
    Launch();
    EXPECT_FALSE(timed->Exists("").get());
    EXPECT_THAT(env.log.Lines(),
                ElementsAre(MatchesRegex("Velmora Error:Analytics - Unable to load timed actions \\(.+\\)\\.")));
    env.local.Write(TimedActionStore::kFileName, R"({"Actions":[{"name":"bad","start":"soon"},7,{"name":"good",)"
                    R"("start":1425999900,"adjusted":1425999950.9,"data":{"k":"v"}},{"name":"nums","data":{"k":1}}]})");
    env.clock->SetMillis(kStart * 1000);
    Launch();
    EXPECT_FALSE(timed->Exists("bad").get() || timed->Exists("nums").get());
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
        ASSERT_TRUE(timed->Exists("good").get());
        EXPECT_EQ(env.log.Lines(), std::vector<std::string>{"Velmora Warning:Analytics - " + line});
    }
    At(kStart + 100);
    EXPECT_CALL(tracker, TrackAction("good", StringMap{{"a.action.time.inapp", "150"},
                                                       {"a.action.time.total", "200"}, {"k", "v"}}));
    timed->End("good");
    EXPECT_FALSE(timed->Exists("good").get());
}

TEST_F(Application, LifetimeValueAccumulatesInSinglePrecisionFromTheRoundedStoredText) {
    const char *kSent = "LifetimeValueIncrease", *kAmount = "a.ltv.amount";
    Launch();
    LifetimeValue value(Settings(), tracker, env.runtime->Log());
    // amount, then the total stored and sent as "a.ltv.amount"; 12.504 is stored rounded
    for (const auto& [amount, total] : {std::pair<float, std::string>{12.5f, "12.50"}, {0.004f, "12.50"},
                                        {0.0f, "12.50"}, {-1.0f, "12.50"}, {0.006f, "12.51"}}) {
        if (amount >= 0) EXPECT_CALL(tracker, TrackInternalAction(kSent, StringMap{{kAmount, total}, {"s", "m"}}, 0));
        value.Increase(amount, {{"s", "m"}, {kAmount, "caller"}});
        EXPECT_EQ(LookupText(Settings(), kLifetimeValueKey), total) << amount;
    }
    EXPECT_EQ(env.log.Lines(), std::vector<std::string>{"Velmora Warning:Analytics - TrackLifetimeValueIncrease failed."
                                                        "  Amount must be positive, invalid amount specified '-1.00'"});
    EXPECT_EQ(value.GetLifetimeValueAsDouble(), 12.51);
    // 2^24 + 1 is no float: the total stays where double arithmetic would move on.
    Settings().Insert(kLifetimeValueKey, std::string("16777216.00"));
    EXPECT_CALL(tracker, TrackInternalAction(kSent, StringMap{{kAmount, "16777216.00"}}, 0));
    value.Increase(1.0f, {});
    EXPECT_EQ(LookupText(Settings(), kLifetimeValueKey), "16777216.00");
    Settings().Insert(kLifetimeValueKey, std::int32_t{9});  // unreadable: 0
    EXPECT_EQ(value.GetLifetimeValue(), 0.0f);
}

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
// `kind`: 'L' a launch in a new process, 'U' the same of version 1.1.9, 'F' foreground, 'B' background;
// `hit`: the lifecycle values sent, as "Launches=2 CrashEvent ...", or "-" for none.
struct Event { char kind; std::int32_t at; std::string hit; Stored stored = {}; };
struct History { std::string name; std::vector<Event> events; std::int32_t timeout = 300; };
void PrintTo(const History& history, std::ostream* out) { *out << history.name; }
SettingValue Text(std::int32_t seconds) { return std::to_string(seconds); }
const std::string kInstall = "InstallEvent DailyEngUserEvent MonthlyEngUserEvent Launches=1 InstallDate=";

// Installed at `at` and paused a minute later; then `next`.
std::vector<Event> PausedAfterInstall(std::int32_t at, const std::string& install, Event next) {
    return {{'L', at, kInstall + install}, {'B', at + 60, "-"}, std::move(next)};
}

std::vector<History> Histories() {
    const std::int32_t t0 = kT0, mar5 = Local(2015, 3, 5, 9), up = t0 + 2 * 86400;
    const std::string i0 = kInstall + "3/7/2015 HourOfDay=8 DayOfWeek=7";
    const std::string same = "Launches=2 DaysSinceFirstUse=0 DaysSinceLastUse=0 DayOfWeek=7 ";
    return {
        {"FirstLaunchResumeAt299NewSessionAt300",
         {{'L', t0, i0, {{kInstallDateKey, Text(t0)}, {kLastDateUsedKey, Text(t0)}, {kLaunchesKey, 1},
                         {kSessionStartKey, Text(t0)}, {kSuccessfulCloseKey, false}, {kPauseDateKey, std::nullopt},
                         {kLastVersionKey, std::string("1.0.0")}, {kUpgradeDateKey, {}}}},
          {'B', t0 + 600, "-", {{kSuccessfulCloseKey, true}, {kPauseDateKey, Text(t0 + 600)}}},
          {'L', t0 + 899, "-", {{kSessionStartKey, Text(t0 + 299)}, {kSuccessfulCloseKey, false}, {kPauseDateKey, {}}}},
          {'B', t0 + 1000, "-"},
          {'F', t0 + 1300, same + "HourOfDay=8 PrevSessionLength=701",
           {{kSessionStartKey, Text(t0 + 1300)}, {kLaunchesKey, 2}, {kLastDateUsedKey, Text(t0 + 1300)}}}}},
        {"ConfiguredTimeout", PausedAfterInstall(t0, "3/7/2015 HourOfDay=8 DayOfWeek=7",
                                                 {'L', t0 + 62, same + "HourOfDay=8 PrevSessionLength=60"}), 2},
        {"Crash", {{'L', t0, i0}, {'L', t0 + 3600, "CrashEvent HourOfDay=9 " + same}}},
        {"SevenDaySession",
         {{'L', t0, i0}, {'B', t0 + 604800, "-"},
          {'F', t0 + 605200, "DailyEngUserEvent Launches=2 DaysSinceFirstUse=7 DaysSinceLastUse=7 HourOfDay=8 "
                             "DayOfWeek=7 ignoredSessionLength=604800"},
          {'B', t0 + 1209999, "-"},
          {'F', t0 + 1210299, "DailyEngUserEvent Launches=3 DaysSinceFirstUse=14 DaysSinceLastUse=7 HourOfDay=8 "
                              "DayOfWeek=7 PrevSessionLength=604799"}}},
        {"January31ToMarch1",
         PausedAfterInstall(Local(2015, 1, 31, 7), "1/31/2015 HourOfDay=7 DayOfWeek=7",
                            {'F', Local(2015, 3, 1, 7), "DailyEngUserEvent MonthlyEngUserEvent Launches=2 DayOfWeek=1 "
                             "DaysSinceFirstUse=29 DaysSinceLastUse=29 HourOfDay=7 PrevSessionLength=60"})},
        {"March5ToApril5",
         PausedAfterInstall(mar5, "3/5/2015 HourOfDay=9 DayOfWeek=5",
                            {'F', Local(2015, 4, 5, 9), "MonthlyEngUserEvent Launches=2 DaysSinceFirstUse=31 "
                             "DaysSinceLastUse=31 HourOfDay=9 DayOfWeek=1 PrevSessionLength=60"})},
        {"OneYearLater",
         PausedAfterInstall(Local(2014, 3, 5, 9), "3/5/2014 HourOfDay=9 DayOfWeek=4",
                            {'F', mar5, "Launches=2 DaysSinceFirstUse=365 DaysSinceLastUse=365 HourOfDay=9 DayOfWeek=5 "
                             "PrevSessionLength=60"})},
        {"UpgradeThenTheNextLaunch",
         {{'L', t0, i0}, {'B', t0 + 60, "-"},
          {'U', up, "UpgradeEvent LaunchesSinceUpgrade=1 DailyEngUserEvent Launches=2 DaysSinceFirstUse=2 "
                    "DaysSinceLastUse=2 HourOfDay=8 DayOfWeek=2 PrevSessionLength=60",
           {{kUpgradeDateKey, Text(up)}, {kLaunchesAfterUpgradeKey, 1}, {kLastVersionKey, std::string("1.1.0")}}},
          {'B', up + 100, "-"},
          {'U', up + 3 * 86400, "LaunchesSinceUpgrade=2 DaysSinceLastUpgrade=3 DailyEngUserEvent Launches=3 "
                                "DaysSinceFirstUse=5 DaysSinceLastUse=3 HourOfDay=8 DayOfWeek=5 PrevSessionLength=100",
           {{kUpgradeDateKey, Text(up)}, {kLaunchesAfterUpgradeKey, 2}}}}},
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
        auto& device = env.runtime->Device();
        map["a.OSVersion"] = "Debian GNU/Linux 12";
        map.merge(device.GetContextData());
        return map;
    }
};

TEST_P(LaunchHistory, SendsTheLifecycleValuesAndStoresTheSessionState) {
    ::setenv("TZ", "LCL-10", 1);
    ::tzset();
    const auto& [name, events, timeout] = GetParam();
    std::size_t sent = 0;
    for (const Event& event : events) {
        SCOPED_TRACE(std::string(1, event.kind) + " at t0 + " + std::to_string(event.at - kT0));
        At(event.at);
        if (event.kind == 'L' || event.kind == 'U') Launch(event.kind == 'L' ? "1.0.0.0" : "1.1.9.0", timeout);
        if (&event == &events.front()) timed->Start("t", {});
        if (event.hit != "-") EXPECT_CALL(tracker, TrackInternalAction("Lifecycle", Expected(event.hit), event.at - 1));
        event.kind == 'B' ? lifecycle->Pause() : lifecycle->Start();
        At(event.at);
        ASSERT_TRUE(::testing::Mock::VerifyAndClearExpectations(&tracker));
        sent += event.hit != "-";
        ASSERT_EQ(audience.Count(), sent);  // the same values go to the audience server
        for (const auto& [key, value] : event.stored) EXPECT_EQ(Settings().Lookup(key), value) << key;
        if (event.hit == "-") continue;
        EXPECT_EQ(lifecycle->GetLifecycleContextData(), Expected(event.hit));
    }
    std::int32_t total = events.back().at - events.front().at, inApp = total;
    for (std::size_t i = 0; i + 1 < events.size(); ++i) {
        if (events[i].kind == 'B') inApp -= events[i + 1].at - events[i].at;
    }
    EXPECT_CALL(tracker, TrackAction("t", StringMap{{"a.action.time.inapp", std::to_string(inApp)},
                                                    {"a.action.time.total", std::to_string(total)}}));
    timed->End("t");
    At(events.back().at);
}
INSTANTIATE_TEST_SUITE_P(Lifecycle, LaunchHistory, ::testing::ValuesIn(Histories()),
                         [](const auto& info) { return info.param.name; });

constexpr const char* kTail = "d_ptfm=win8&d_dst=1&d_rtbd=json";

TEST_F(Application, AudienceRequestsAreBuiltInTheirFixedOrderAndFailuresLeaveTheStoredState) {
    const std::string empty = "Velmora Warning:Cohorta - response was empty";
    const std::string parse = "Velmora Warning:Cohorta - Unexpected error parsing result (";
    // answer "@host": that server instead of the loopback one; destinations are called before the rest is read
    const std::string dest = R"({"dests":[{"c":")" + audience.Url("/d") + R"("}],)";
    struct Row { StringMap traits; std::string userId, dpid, dpuuid, query, answer, line; std::size_t dests = 0; };
    const Row rows[] = {
        {{{"a.b", "1"}, {"x", ""}}, "", "", "", "c_a_b=1&", R"({"stuff":[]})", empty},
        {{{"k.e.y", "v w"}, {"", "lost"}, {"u", "\xC3\xA9&="}}, "", "", "", "c_k_e_y=v%20w&c_u=%C3%A9%26%3D&",
         "not json", parse},
        {{}, "U1", "", "", "d_uuid=U1&", dest + R"("uuid":5,"stuff":[{"cn":"a","cv":"b"}]})", parse, 1},
        {{{"t", "1"}}, "U1", "P", "", "c_t=1&d_uuid=U1&", dest + R"("uuid":"NEW","stuff":{"cn":"a"}})", parse, 1},
        {{{"t", "1"}}, "", "", "Q", "c_t=1&", "{}", empty},
        {{{"t", "1"}}, "U1", "P", "Q", "c_t=1&d_uuid=U1&d_dpid=P&d_dpuuid=Q&", "HOLD",  // waits out the 2 s limit
         "Velmora Warning:Cohorta - Request timed out"},
        {{}, "", "", "", "", "@" + refused, "Velmora Warning:Cohorta - Unable to create URI object (A connection with"},
        {{}, "", "", "", "", "@bad host", "Velmora Warning:Cohorta - Unable to create URL object"},
    };
    for (const auto& row : rows) {
        const std::string host = row.answer[0] == '@' ? row.answer.substr(1) : audience.Address();
        Answer(row.answer);
        Launch("1.0.0.0", 300, host);
        Settings().Insert(kCohortaUserIdKey, row.userId);
        Settings().Insert(kCohortaProfileKey, StringMap{{"old", "1"}});
        Cohorta().SetDpidAndDpuuid(row.dpid, row.dpuuid);
        const std::size_t before = audience.Count();
        EXPECT_EQ(Cohorta().SubmitSignal(row.traits).get(), std::nullopt);
        const std::string target = "/event?" + row.query + kTail;
        EXPECT_EQ(audience.Count() - before, host == audience.Address() ? 1 + row.dests : 0u) << "the signal and destinations";
        EXPECT_THAT(env.log.Lines(), Contains("Velmora Debug:Cohorta - request (http://" + host + target + ")"));
        EXPECT_THAT(env.log.Lines(), Contains(StartsWith(row.line)));
        EXPECT_EQ(LookupText(Settings(), kCohortaUserIdKey), row.userId);
        EXPECT_EQ(Cohorta().GetVisitorProfile(Settings()), (StringMap{{"old", "1"}}));
        EXPECT_EQ(Cohorta().GetDpid() + "/" + Cohorta().GetDpuuid(), row.dpid + "/" + row.dpuuid);
    }
}

TEST_F(Application, TheAudienceAnswerIsKeptAcrossProcessesAndItsDestinationsCalled) {
    Answer(R"({"uuid":"U1","dests":[{"c":")" + audience.Url("/d1") + R"("},{"c":")" + audience.Url("/d2?x=1") +
           R"("},{"url":"none"},{"c":"http://)" + refused + R"(/"}],)" +
           R"("stuff":[{"cn":"seg","cv":"gold"},{"cn":"age","cv":"30"},{"cn":"flag"}]})");
    const StringMap profile{{"age", "30"}, {"flag", ""}, {"seg", "gold"}};
    Launch();
    EXPECT_EQ(Cohorta().SubmitSignal({}).get(), profile);
    EXPECT_EQ(audience.Count(), 3u);  // the signal and the two destinations that can be called
    const auto lines = env.log.Lines();
    EXPECT_THAT(lines, Contains(StartsWith("Velmora Warning:Cohorta - Unknown failure forwarding dest (")));
    EXPECT_THAT(lines, Contains("Velmora Warning:Cohorta - Failed to forward the dest (A connection with the server "
                                "specified in the uri parameter could not be established.)"));
    EXPECT_THAT(lines, Contains("Velmora Debug:Cohorta - response {\n    age = 30\n    flag = \n    seg = gold\n}"));
    Launch();
    EXPECT_EQ(Cohorta().GetVisitorProfile(Settings()), profile);
    // The user id is written only when it changes: a value put behind the module's back stays.
    Cohorta().SubmitSignal({}).get();
    Settings().Insert(kCohortaUserIdKey, std::string("ELSEWHERE"));
    Cohorta().SubmitSignal({}).get();
    EXPECT_EQ(LookupText(Settings(), kCohortaUserIdKey), "ELSEWHERE");
    Answer(R"({"uuid":"U2","stuff":[{"cn":"s","cv":"1"}]})");
    Cohorta().SubmitSignal({}).get();
    EXPECT_EQ(LookupText(Settings(), kCohortaUserIdKey), "U2");
}

}  // namespace
}  // namespace velmora

// Whole runtimes: the public operations on the process-wide one (each case runs in a process of its
// own), and the hits, settings and log lines under an application's locale.
#include "analytics/hit_queue.h"
#include "analytics/tracker.h"
#include "analytics/values.h"
#include "core/device.h"
#include "lifetime_value/lifetime_value.h"
#include "location/location.h"
#include "media/media_module.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <velmora/Velmora.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <locale>

namespace velmora::test {
namespace {

constexpr std::chrono::seconds kWait{10};
constexpr const char* kAid = "0123456789ABCDEF-0123456789ABCDEF";
constexpr const char* kHitPath = "/b/ss/rs1,rs2/0/WINU-" VELMORA_VERSION_STRING "/";

class PublicAnalytics : public ::testing::Test {
protected:
    // Hits go to the loopback server over plain HTTP; with offline tracking, `batch` make a batch.
    // `services` adds sections to the configuration; with them the identifier is not known yet.
    void Configure(bool offline, const std::string& services = "", int batch = 10) {
        env_.package.Write("AppxManifest.xml", R"(<Package><Identity Version="1.2.3.4"/><Properties>
            <DisplayName>Demo</DisplayName></Properties></Package>)");
        Velmora::HostOptions options;
        options.deviceManufacturer = "Acme", options.deviceModel = "Phone1", options.languageTag = "de-AT";
        options.connectTo = {"acme.tt.vantor.example:80:" + server_.Address()};
        ASSERT_TRUE(env_.ConfigureProcess(R"({"analytics":{"rsids":"rs1,rs2","server":")" + server_.Address() +
                                              R"(","charset":"UTF-8","privacyDefault":"optedin","ssl":false)" +
                                              (offline ? R"(,"offlineEnabled":true,"batchLimit":)" + std::to_string(batch) + "}" : "}") +
                                              services + "}", options));
        if (services.empty()) Runtime::Process().GetSettingsStore().Insert(kAidKey, std::string(kAid));
    }

    ScopedEnv zone_{"TZ", "EST5EDT"};  // the hits carry the standard offset all year
    LoopbackServer server_;
    TestRuntime env_;
};

TEST_F(PublicAnalytics, StatesAndActionsBecomeExactHitsInCallOrder) {
    Configure(false);
    Velmora::Analytics::TrackState(
        "Home Page", {{"my key!", std::string("v 1")}, {"a.b", std::string("x")}, {"ab", std::string("loses")},
                      {"..caf\xC3\xA9-b/r?c=d&e..", std::string("y")}, {"&&pe", std::string("m_s")},
                      {"&&pageName", std::string("Moved")}, {"&&", std::string("gone")}, {"&&v", std::string("1")},
                      {"count", std::int32_t{3}}, {"ratio", 1.5}, {"flag", true}, {"when", Velmora::DateTime{}},
                      {"none", nullptr}, {"empty", std::string()}});
    Velmora::Analytics::TrackAction("Buy/Now\xC3", {{"a.OSVersion", std::string("mine")}, {"a.action", std::string("me")}});
    Velmora::Analytics::TrackAction("Go", {});
    ASSERT_TRUE(server_.WaitForRequests(3));
    EXPECT_TRUE(Velmora::Host::Flush(kWait));
    const std::string aid = std::string("?AQB=1&ndh=1&aid=") + kAid + "&ce=UTF-8&pageName=";
    const std::string app = "Demo%201.2.4%20%283%29", zone = "&t=00%2F00%2F0000%2000%3A00%3A00%200%20300";
    const std::string device = "&c.&aAppID=" + app + "&aDeviceName=Acme%20Phone1&aOSVersion=";
    const std::vector<std::string> targets = server_.Targets();
    ASSERT_EQ(targets.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(targets.begin(), targets.begin() + 2), (std::vector<std::string>{
                  kHitPath + ("s1949254" + aid) + "Moved&pe=m_s" + zone + "&v=1" + device + "Windows%20Phone%208.1" +
                      "&aResolution=Unknown&ab=x&cafbrcde=y&count=3&flag=true&mykey=v%201&ratio=1.5&.c&AQE=1",
                  kHitPath + ("s3442559" + aid) + app + "&pe=lnk_o&pev2=AMACTION%3ABuy%2FNow%EF%BF%BD" + zone + device +
                      "mine&aResolution=Unknown&aaction=me&.c&AQE=1"}));
    EXPECT_THAT(targets[2], ::testing::EndsWith("&pe=lnk_o&pev2=AMACTION%3AGo" + zone + device +
                                                "Windows%20Phone%208.1&aResolution=Unknown&aaction=Go&.c&AQE=1"));
    const auto request = server_.Requests()[0];
    EXPECT_EQ(request.Header("User-Agent") + "|" + request.Header("Accept-Language"),
              "Mozilla/5.0 (Windows Phone 8.1; ARM; Trident/7.0; Touch; rv:11.0; Acme; Phone1) like Gecko|de-AT");
}

TEST_F(PublicAnalytics, OptOutEmptiesAnEarlierRunsQueueAndQueueSizeCountsEveryEarlierCall) {
    env_.local.Write(QueueFile::kFileName, R"({"Hits":[{"T":1400000000,"H":"s1?AQB=1&ndh=1&pageName=Old&AQE=1"}]})");
    Configure(true);
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::OptOut);  // before any analytics call
    EXPECT_TRUE(Velmora::Host::Flush(kWait));
    EXPECT_EQ(env_.local.Read(QueueFile::kFileName), R"({"Hits":[]})");
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::Unknown);
    for (int i = 0; i < 3; ++i) Velmora::Analytics::TrackState("S" + std::to_string(i));
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 3u);
    // Asked on the library's own queues, it must not wait for itself.
    auto& runtime = Runtime::Process();
    auto general = runtime.GeneralQueue().Submit([] { return Velmora::Analytics::GetQueueSize(); });
    ASSERT_EQ(general.wait_for(kWait), std::future_status::ready);
    auto analytics = runtime.GetAnalyticsTracker().Queue().Submit([] { return Velmora::Analytics::GetQueueSize(); });
    ASSERT_EQ(analytics.wait_for(kWait), std::future_status::ready);
    EXPECT_EQ(analytics.get(), 3u);
    EXPECT_EQ(Velmora::Analytics::GetTrackingIdentifierAsync().get(), kAid);
    Velmora::Analytics::ClearQueue();
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 0u);
    EXPECT_EQ(env_.local.Read(QueueFile::kFileName), R"({"Hits":[]})");
    EXPECT_EQ(server_.Count(), 0u);
}

// Whichever module builds a hit, hits arrive in the order of the calls, and the out-of-order repair
// never has to push a timestamp past the moment its hit is sent.
TEST_F(PublicAnalytics, CallsOfEveryModuleBecomeHitsInCallOrderStampedNoLaterThanTheirSending) {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::int64_t>> arrived;  // name, seconds from stamp to arrival (time() lags the stamping clock)
    server_.OnGet([&](const httplib::Request& request, httplib::Response&) {
        const ReceivedHit hit = DecodeHit(request.target);
        std::lock_guard lock(mutex);
        const auto pev2 = hit.variables.find("pev2");
        arrived.emplace_back(pev2 != hit.variables.end() ? pev2->second : hit.variables.at("pageName"),
                             std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()) - std::stoll(hit.variables.at("ts")));
    });
    Configure(true, "", 0);
    Velmora::Config::CollectLifecycleData();
    std::vector<std::string> expected{"VLMINTERNAL:Lifecycle"};
    for (int round = 0; round < 6; ++round) {
        const std::string n = std::to_string(round);
        Velmora::Analytics::TrackTimedActionStart("T" + n);
        Velmora::Analytics::TrackState("S" + n);
        Velmora::Analytics::TrackTimedActionEnd("T" + n);
        Velmora::Analytics::TrackAction("A" + n);
        Velmora::Analytics::TrackLifetimeValueIncrease(1.5f);
        Velmora::Analytics::TrackLocation(40.7, -74.0, 5);
        expected.insert(expected.end(), {"S" + n, "AMACTION:T" + n, "AMACTION:A" + n,
                                         "VLMINTERNAL:LifetimeValueIncrease", "VLMINTERNAL:Location"});
    }
    ASSERT_TRUE(Velmora::Host::Flush(kWait));
    std::lock_guard lock(mutex);
    std::vector<std::string> names;
    for (const auto& [name, lead] : arrived) {
        names.push_back(name);
        EXPECT_GE(lead, 0) << name << " was stamped after it was sent";
    }
    EXPECT_EQ(names, expected);
}

// Consent covers every request: before it (Unknown) and after an opt-out no offer and no audience
// signal leaves the device, the launch's own signal included; after an opt-out no hit is queued by
// any path and the identifier is made on the device.
class Consent : public PublicAnalytics, public ::testing::WithParamInterface<Velmora::VelmoraPrivacyStatus> {};

TEST_P(Consent, NoOfferOrSignalLeavesWithoutOptInAndNothingIsQueuedAfterAnOptOut) {
    const bool optOut = GetParam() == Velmora::VelmoraPrivacyStatus::OptOut;
    Configure(true, R"(,"vantor":{"clientCode":"acme"},"cohorta":{"server":")" + server_.Address() + "\"}");
    EXPECT_EQ(Velmora::Vantor::GetPcId() + Velmora::Vantor::GetSessionId(), "") << "none before the first load";
    Velmora::Config::SetPrivacyStatus(GetParam());
    Velmora::Config::CollectLifecycleData();
    Velmora::Analytics::TrackState("S");
    Velmora::Analytics::TrackLocation(40.7, -74.0, 5);
    EXPECT_EQ(Velmora::Vantor::LoadRequest(Velmora::Vantor::CreateRequest("home", "fallback", {})).get(), "fallback");
    Velmora::Cohorta::SetDpidAndDpuuid("P", "Q");  // kept on the device, and set by the time the signal is answered
    EXPECT_EQ(Velmora::Cohorta::SubmitSignal({{"trait", 1}}).get(), std::nullopt);
    EXPECT_EQ(Velmora::Cohorta::GetDpid() + Velmora::Cohorta::GetDpuuid(), "PQ");
    EXPECT_EQ(Velmora::Analytics::GetTrackingIdentifierAsync().get().size(), 33u);
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), optOut ? 0u : 3u);
    Velmora::Host::Flush(kWait);
    EXPECT_EQ(server_.Targets(), optOut ? std::vector<std::string>{} : std::vector<std::string>{"/id"});
    EXPECT_EQ(optOut, env_.local.Read(QueueFile::kFileName).find("pageName") == std::string::npos);
    EXPECT_EQ(env_.Restart()->GetConfigSettings().Privacy(), static_cast<std::int32_t>(GetParam())) << "not stored";
}

INSTANTIATE_TEST_SUITE_P(Statuses, Consent,
                         ::testing::Values(Velmora::VelmoraPrivacyStatus::OptOut, Velmora::VelmoraPrivacyStatus::Unknown),
                         [](const auto& info) { return info.param == Velmora::VelmoraPrivacyStatus::OptOut ? "OptOut" : "Unknown"; });

// A refused hit must not hold back the save that the hits after it are waiting for.
TEST_F(PublicAnalytics, AnOverLongHitIsRefusedAndTheHitsAfterItAreInTheFileAtOnce) {
    Configure(true, "", 3);  // held: no more than the batch limit
    Velmora::Analytics::TrackState("A");
    Velmora::Analytics::TrackState("Long", {{"k", std::string(HitSender::kMaxUrlBytes, 'x')}});
    Velmora::Analytics::TrackState("B");
    Velmora::Analytics::TrackState("C");
    EXPECT_EQ(Velmora::Analytics::GetQueueSize(), 3u);
    const std::string file = env_.local.Read(QueueFile::kFileName);
    for (const char* name : {"pageName=A&", "pageName=B&", "pageName=C&"}) EXPECT_THAT(file, ::testing::HasSubstr(name));
    EXPECT_THAT(env_.log.Lines(), ::testing::Contains(::testing::HasSubstr(
                                  "Analytics - Unable to queue hit (the request URL would be ")));
    EXPECT_FALSE(Velmora::Host::Flush(kWait)) << "sent at the batch limit";
}

// Numbers on the wire, in the settings and in log lines do not follow the application's locale, nor
// do the letters kept in context keys (in Latin-1 every byte of "é" in UTF-8 would be a letter).
constexpr const char* kGermanLocales[] = {"de_DE.UTF-8", "de_DE.ISO-8859-1"};

// The process's C and C++ locales set as an application would set them, restored at the end.
struct ProcessLocale {
    explicit ProcessLocale(const char* name) : cpp(std::locale::global(std::locale(name))) {}  // a named one sets C's too
    ~ProcessLocale() {
        std::locale::global(cpp);
        std::setlocale(LC_ALL, c.c_str());
    }
    std::string c = std::setlocale(LC_ALL, nullptr);
    std::locale cpp;
};

struct Outcome {
    std::vector<std::string> targets, lines;
    std::optional<std::string> lifetimeValue;
    std::string decimalPoint;  // the locale's own, to show the run was really made under it
};

// Location, lifetime value and media calls under `locale`, on a runtime of their own.
Outcome RunUnder(const char* locale) {
    ProcessLocale scope(locale);
    LoopbackServer server;
    TestRuntime env(R"({"analytics":{"rsids":"rs","server":")" + server.Address() +
                    R"(","offlineEnabled":true,"ssl":false,"poi":[["near",40.7127837,-74.0059413,500.5]]}})");
    auto& runtime = *env.runtime;
    runtime.Log().SetDebugEnabled(true);
    runtime.GetSettingsStore().Insert(kAidKey, std::string(kAid));
    const StringMap data = TranslateContextData({{"ratio", 2.25}, {"share", 0.1f}, {"caf\xC3\xA9", 1}}, runtime.Log());
    runtime.GetLocationTracker().TrackLocation(40.7127837, -74.0059413, 12.6, data);
    runtime.GetLocationTracker().TrackLocation(95.25, -0.5, 1, data);  // out of bounds: a warning with numbers
    runtime.GetLifetimeValue().Increase(12.5f, data);
    runtime.GetLifetimeValue().Increase(0.754f, data);  // continues from the stored text
    auto& media = runtime.GetMediaModule();
    auto settings = Velmora::Media::SettingsWith("clip", 130.7, "player", "");
    settings->Milestones = "25,50", settings->SegmentByMilestones = true;
    runtime.GeneralQueue().Post([&] {
        media.Open(settings);
        media.Play("clip", 10.5);
        media.Track("clip", data);
        media.Stop("clip", 70.25);
        media.Complete("clip", 130.7);
    });
    EXPECT_TRUE(runtime.Flush(kWait));
    Outcome outcome{server.Targets(), env.log.Lines(), LookupText(runtime.GetSettingsStore(), kLifetimeValueKey),
                    std::localeconv()->decimal_point};
    for (auto& line : outcome.lines) {
        if (auto at = line.find(server.Address()); at != std::string::npos) line.replace(at, server.Address().size(), "server");
    }
    std::sort(outcome.lines.begin(), outcome.lines.end());  // queues log in their own order
    return outcome;
}

TEST(Locale, AGermanApplicationSendsStoresAndLogsTheSameBytesAsTheCLocale) {
    const Outcome c = RunUnder("C");
    EXPECT_EQ(c.targets.size(), 6u);
    EXPECT_THAT(c.targets, ::testing::Contains(::testing::HasSubstr("&caf=1&")).Times(4));
    EXPECT_THAT(c.lines, ::testing::Contains(::testing::HasSubstr("TrackLocation failed")));
    for (const char* name : kGermanLocales) {
        locale_t probe = ::newlocale(LC_ALL_MASK, name, locale_t{});
        if (!probe) GTEST_SKIP() << name << " is not installed (scripts/install-deps.sh generates it)";
        ::freelocale(probe);
        const Outcome german = RunUnder(name);
        EXPECT_EQ(german.decimalPoint, ",") << name;
        EXPECT_EQ(german.targets, c.targets) << name;
        EXPECT_EQ(german.lines, c.lines) << name;
        EXPECT_EQ(german.lifetimeValue, c.lifetimeValue) << name;
    }
}

}  // namespace
}  // namespace velmora::test

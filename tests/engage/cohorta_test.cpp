#include "cohorta/cohorta.h"
#include "engage_support.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <optional>

namespace velmora {
namespace {

using test::AudienceServer;
using test::ClosedPort;
using test::LogCapture;
using test::TempDir;
using test::TestRuntime;
using Profile = std::optional<StringMap>;

constexpr const char* kTail = "d_ptfm=win8&d_dst=1&d_rtbd=json";

std::string ConfigFor(const std::string& server) {
    return R"({"cohorta":{"server":")" + server + R"("}})";
}

// The module's own lines, without those of the configuration and the request service.
std::vector<std::string> CohortaLines(const LogCapture& log) {
    std::vector<std::string> lines;
    for (const auto& line : log.Lines()) {
        if (line.find(":Cohorta - ") != std::string::npos) lines.push_back(line);
    }
    return lines;
}

// A runtime whose audience server is `server`, with debug lines on.
struct Audience {
    explicit Audience(const std::string& server) : env(ConfigFor(server)) { env.runtime->Log().SetDebugEnabled(true); }
    CohortaClient& Client() { return env.runtime->Get<CohortaClient>(); }
    Profile Signal(StringMap traits) { return Client().SubmitSignal(std::move(traits)).get(); }
    TestRuntime env;
};

TEST(CohortaUrl, IsBuiltInItsFixedOrder) {
    struct Row {
        StringMap traits;
        std::string storedUserId, dpid, dpuuid;
        std::string query;
    };
    const std::vector<Row> rows = {
        {{{"a.b", "1"}, {"x", ""}}, "", "", "", std::string("c_a_b=1&") + kTail},
        {{{"k.e.y", "v w"}, {"", "lost"}, {"u", "\xC3\xA9&="}}, "", "", "",
         std::string("c_k_e_y=v%20w&c_u=%C3%A9%26%3D&") + kTail},
        {{}, "U1", "", "", std::string("d_uuid=U1&") + kTail},
        {{{"t", "1"}}, "U1", "P", "", std::string("c_t=1&d_uuid=U1&") + kTail},
        {{{"t", "1"}}, "", "", "Q", std::string("c_t=1&") + kTail},
        {{{"t", "1"}}, "U1", "P", "Q", std::string("c_t=1&d_uuid=U1&d_dpid=P&d_dpuuid=Q&") + kTail},
        {{}, "", "", "", kTail},
    };
    AudienceServer server;
    server.Answer("/event", R"({"stuff":[]})");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.query);
        Audience audience(server.Host());
        if (!row.storedUserId.empty()) audience.env.runtime->Settings().Insert(kCohortaUserIdKey, row.storedUserId);
        audience.Client().SetDpidAndDpuuid(row.dpid, row.dpuuid);
        const std::size_t before = server.Targets().size();
        EXPECT_EQ(audience.Signal(row.traits), std::nullopt);
        ASSERT_EQ(server.Targets().size(), before + 1);
        EXPECT_EQ(server.Targets().back(), "/event?" + row.query);
        const std::string url = "http://" + server.Host() + "/event?" + row.query;
        EXPECT_TRUE(audience.env.log.Contains("Velmora Debug:Cohorta - request (" + url + ")"));
        EXPECT_EQ(audience.Client().GetDpid(), row.dpid);
        EXPECT_EQ(audience.Client().GetDpuuid(), row.dpuuid);
    }
}

TEST(Cohorta, StoresTheAnswerForwardsItsDestinationsAndKeepsItAcrossRuns) {
    AudienceServer server;
    server.Answer("/event", R"({"uuid":"U1","dests":[{"c":")" + server.Url("/d1") + R"("},{"c":")" +
                                server.Url("/d2?x=1") + R"("}],)" +
                                R"("stuff":[{"cn":"seg","cv":"gold"},{"cn":"age","cv":"30"},{"cn":"flag"}]})");
    server.Answer("/d1", "");
    server.Answer("/d2", "");
    const StringMap profile{{"age", "30"}, {"flag", ""}, {"seg", "gold"}};

    Audience audience(server.Host());
    EXPECT_EQ(audience.Client().GetVisitorProfile(), std::nullopt);
    EXPECT_EQ(audience.Signal({{"a.Launches", "1"}}), profile);
    EXPECT_EQ(server.Count("/d1"), 1u);
    EXPECT_EQ(server.Count("/d2"), 1u);
    auto& settings = audience.env.runtime->Settings();
    EXPECT_EQ(settings.Lookup(kCohortaUserIdKey), SettingValue(std::string("U1")));
    EXPECT_EQ(settings.Lookup(kCohortaProfileKey), SettingValue(profile));
    EXPECT_EQ(audience.Client().GetVisitorProfile(), profile);
    EXPECT_TRUE(audience.env.log.Contains("Velmora Debug:Cohorta - response {\n    age = 30\n    flag = \n    seg = gold\n}"));

    auto lastSignal = [&server] {
        std::string last;
        for (const auto& target : server.Targets()) {
            if (target.rfind("/event?", 0) == 0) last = target;
        }
        return last;
    };
    audience.Signal({});
    EXPECT_EQ(lastSignal(), std::string("/event?d_uuid=U1&") + kTail);

    // A new process on the same local folder.
    audience.env.runtime = audience.env.Restart();
    audience.env.runtime->Log().SetDebugEnabled(true);
    EXPECT_EQ(audience.Client().GetVisitorProfile(), profile);
    audience.Signal({{"t", "2"}});
    EXPECT_EQ(lastSignal(), std::string("/event?c_t=2&d_uuid=U1&") + kTail);
    EXPECT_EQ(server.Count("/d1"), 3u);
}

// The real store, counting writes of the user id.
class CountingSettings : public SettingsStore {
public:
    using SettingsStore::SettingsStore;
    void Insert(const std::string& key, const SettingValue& value) override {
        if (key == kCohortaUserIdKey) ++userIdWrites;
        SettingsStore::Insert(key, value);
    }
    std::atomic<int> userIdWrites{0};
};

TEST(Cohorta, AnUnchangedUserIdIsNotWrittenAgain) {
    AudienceServer server;
    TempDir dir;
    LogCapture capture;
    Logger log(capture.Sink());
    ConfigSettings config;
    config.cohortaServer = server.Host();
    ModuleGates gates(config);
    CountingSettings settings(dir.path(), log);
    HttpClient http(log, {});
    CohortaClient client(config, gates, settings, http, log);

    const std::pair<const char*, int> answers[] = {{"U1", 1}, {"U1", 1}, {"U2", 2}, {"U2", 2}};
    for (const auto& [uuid, writes] : answers) {
        server.Answer("/event", std::string(R"({"uuid":")") + uuid + R"(","stuff":[{"cn":"s","cv":"1"}]})");
        EXPECT_EQ(client.SubmitSignal({}).get(), (StringMap{{"s", "1"}}));
        EXPECT_EQ(settings.userIdWrites.load(), writes) << uuid;
        EXPECT_EQ(LookupText(settings, kCohortaUserIdKey), uuid);
    }
}

TEST(Cohorta, AFailedOrEmptyAnswerCompletesWithoutProfileAndKeepsTheStoredState) {
    struct Row {
        std::string body;
        std::string line;  // the start of the one warning
        std::string userIdAfter;
        std::size_t destinationCalls;
    };
    AudienceServer server;
    server.Answer("/d1", "");
    const std::string dest = R"("dests":[{"c":")" + server.Url("/d1") + R"("}])";
    const std::vector<Row> rows = {
        {"not json", "Velmora Warning:Cohorta - Unexpected error parsing result (", "OLD", 0},
        {"[1]", "Velmora Warning:Cohorta - Unexpected error parsing result (", "OLD", 0},
        {R"({"uuid":5,"stuff":[{"cn":"a","cv":"b"}]})", "Velmora Warning:Cohorta - Unexpected error parsing result (",
         "OLD", 0},
        {"{" + dest + R"(,"uuid":"NEW","stuff":{"cn":"a"}})",
         "Velmora Warning:Cohorta - Unexpected error parsing result (", "OLD", 0},
        {"", "Velmora Warning:Cohorta - Request timed out", "OLD", 0},
        {"{" + dest + R"(,"uuid":"NEW"})", "Velmora Warning:Cohorta - response was empty", "NEW", 1},
        {R"({"stuff":[]})", "Velmora Warning:Cohorta - response was empty", "OLD", 0},
    };
    const StringMap oldProfile{{"old", "1"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.body);
        server.Answer("/event", row.body);
        Audience audience(server.Host());
        auto& settings = audience.env.runtime->Settings();
        settings.Insert(kCohortaUserIdKey, std::string("OLD"));
        settings.Insert(kCohortaProfileKey, oldProfile);
        const std::size_t destinations = server.Count("/d1");

        EXPECT_EQ(audience.Signal({{"t", "1"}}), std::nullopt);
        const auto lines = CohortaLines(audience.env.log);
        ASSERT_EQ(lines.size(), 2u);  // the request line, then the failure
        EXPECT_EQ(lines[0].rfind("Velmora Debug:Cohorta - request (", 0), 0u);
        EXPECT_EQ(lines[1].rfind(row.line, 0), 0u) << lines[1];
        EXPECT_EQ(LookupText(settings, kCohortaUserIdKey), row.userIdAfter);
        EXPECT_EQ(audience.Client().GetVisitorProfile(), oldProfile);
        EXPECT_EQ(server.Count("/d1") - destinations, row.destinationCalls);
    }
}

TEST(Cohorta, EachFailingDestinationIsLoggedAndTheOthersAreStillCalled) {
    AudienceServer server;
    ClosedPort closed;
    const std::string refused = "http://127.0.0.1:" + std::to_string(closed.Port()) + "/x";
    server.Answer("/event", R"({"dests":[{"c":")" + server.Url("/ok1") + R"("},{"c":")" + refused +
                                R"("},{"url":"nowhere"},{"c":")" + server.Url("/ok2") +
                                R"("}],"stuff":[{"cn":"s","cv":"1"}]})");
    Audience audience(server.Host());
    EXPECT_EQ(audience.Signal({}), (StringMap{{"s", "1"}}));
    EXPECT_EQ(server.Count("/ok1"), 1u);
    EXPECT_EQ(server.Count("/ok2"), 1u);
    std::vector<std::string> warnings;
    for (const auto& line : CohortaLines(audience.env.log)) {
        if (line.rfind("Velmora Warning:", 0) == 0) warnings.push_back(line);
    }
    ASSERT_EQ(warnings.size(), 2u);
    EXPECT_EQ(warnings[0],
              "Velmora Warning:Cohorta - Failed to forward the dest (A connection with the server specified in the "
              "uri parameter could not be established.)");
    EXPECT_EQ(warnings[1].rfind("Velmora Warning:Cohorta - Unknown failure forwarding dest (", 0), 0u) << warnings[1];
}

TEST(Cohorta, ASilentServerTimesOutTheSignalAndTheDestination) {
    AudienceServer server;
    server.Hold("/event");
    Audience audience(server.Host());
    EXPECT_EQ(audience.Signal({}), std::nullopt);
    EXPECT_TRUE(audience.env.log.Contains("Velmora Warning:Cohorta - Request timed out"));

    AudienceServer answering;
    answering.Answer("/event", R"({"dests":[{"c":")" + server.Url("/slow") + R"("}],"stuff":[{"cn":"s","cv":"1"}]})");
    server.Hold("/slow");
    Audience second(answering.Host());
    EXPECT_EQ(second.Signal({}), (StringMap{{"s", "1"}}));
    EXPECT_TRUE(second.env.log.Contains("Velmora Warning:Cohorta - Failed to forward dest; the request timed out"));
}

TEST(Cohorta, WithoutAServerNothingIsSentAndDpidStaysEmpty) {
    TestRuntime env(R"({"analytics":{"rsids":"r","server":"s"}})");
    env.runtime->Log().SetDebugEnabled(true);
    auto& client = env.runtime->Get<CohortaClient>();
    client.SetDpidAndDpuuid("P", "Q");
    EXPECT_EQ(client.SubmitSignal({{"t", "1"}}).get(), std::nullopt);
    EXPECT_EQ(client.GetDpid(), "");
    EXPECT_EQ(client.GetDpuuid(), "");
    EXPECT_EQ(env.log.Count("Velmora Warning:Cohorta - Your config file is not set up to use Cohorta"), 2u);
}

TEST(Cohorta, AServerThatMakesNoUrlIsRefusedBeforeAnyRequest) {
    Audience audience("bad host");
    EXPECT_EQ(audience.Signal({{"t", "1"}}), std::nullopt);
    EXPECT_EQ(CohortaLines(audience.env.log),
              (std::vector<std::string>{
                  std::string("Velmora Debug:Cohorta - request (http://bad host/event?c_t=1&") + kTail + ")",
                  "Velmora Warning:Cohorta - Unable to create URL object"}));
}

TEST(Cohorta, ARefusedConnectionIsLoggedWithItsMessage) {
    ClosedPort closed;
    Audience audience("127.0.0.1:" + std::to_string(closed.Port()));
    EXPECT_EQ(audience.Signal({}), std::nullopt);
    EXPECT_TRUE(audience.env.log.Contains(
        "Velmora Warning:Cohorta - Unable to create URI object (A connection with the server specified in the uri "
        "parameter could not be established.)"));
}

}  // namespace
}  // namespace velmora

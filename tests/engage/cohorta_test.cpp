#include "cohorta/cohorta.h"
#include "engage_support.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using test::AudienceServer;
using Profile = std::optional<StringMap>;

constexpr const char* kTail = "d_ptfm=win8&d_dst=1&d_rtbd=json";

// A runtime whose audience server is `server`, with debug lines on.
struct Audience {
    explicit Audience(const std::string& server) : env(R"({"cohorta":{"server":")" + server + "\"}}") {
        env.runtime->Log().SetDebugEnabled(true);
    }
    CohortaClient& Client() { return env.runtime->Get<CohortaClient>(); }
    Profile Signal(StringMap traits) { return Client().SubmitSignal(std::move(traits)).get(); }
    // The module's own lines, without those of the configuration and the request service.
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        for (const auto& line : env.log.Lines()) {
            if (line.find(":Cohorta - ") != std::string::npos) lines.push_back(line);
        }
        return lines;
    }
    test::TestRuntime env;
};

TEST(Cohorta, BuildsTheRequestInItsFixedOrder) {
    struct Row {
        StringMap traits;
        std::string storedUserId, dpid, dpuuid, query;
    };
    const Row rows[] = {
        {{{"a.b", "1"}, {"x", ""}}, "", "", "", "c_a_b=1&"},
        {{{"k.e.y", "v w"}, {"", "lost"}, {"u", "\xC3\xA9&="}}, "", "", "", "c_k_e_y=v%20w&c_u=%C3%A9%26%3D&"},
        {{}, "U1", "", "", "d_uuid=U1&"},
        {{{"t", "1"}}, "U1", "P", "", "c_t=1&d_uuid=U1&"},
        {{{"t", "1"}}, "", "", "Q", "c_t=1&"},
        {{{"t", "1"}}, "U1", "P", "Q", "c_t=1&d_uuid=U1&d_dpid=P&d_dpuuid=Q&"},
        {{}, "", "", "", ""},
    };
    AudienceServer server;
    server.Answer("/event", R"({"stuff":[]})");
    for (const auto& row : rows) {
        Audience audience(server.Host());
        if (!row.storedUserId.empty()) audience.env.runtime->Settings().Insert(kCohortaUserIdKey, row.storedUserId);
        audience.Client().SetDpidAndDpuuid(row.dpid, row.dpuuid);
        EXPECT_EQ(audience.Signal(row.traits), std::nullopt);
        const std::string query = row.query + kTail;
        EXPECT_EQ(server.Targets().back(), "/event?" + query);
        EXPECT_EQ(audience.Lines(), (std::vector<std::string>{
                                        "Velmora Debug:Cohorta - request (" + server.Url("/event?") + query + ")",
                                        "Velmora Warning:Cohorta - response was empty"}));
        EXPECT_EQ(audience.Client().GetDpid() + "/" + audience.Client().GetDpuuid(), row.dpid + "/" + row.dpuuid);
    }
}

TEST(Cohorta, StoresTheAnswerForwardsItsDestinationsAndKeepsItAcrossRuns) {
    AudienceServer server;
    server.Answer("/event", R"({"uuid":"U1","dests":[{"c":")" + server.Url("/d1") + R"("},{"c":")" +
                                server.Url("/d2?x=1") + R"("},{"url":"none"},{"c":"http://127.0.0.1:1/"}],)" +
                                R"("stuff":[{"cn":"seg","cv":"gold"},{"cn":"age","cv":"30"},{"cn":"flag"}]})");
    server.Answer("/d1", "");
    server.Answer("/d2", "");
    const StringMap profile{{"age", "30"}, {"flag", ""}, {"seg", "gold"}};

    Audience audience(server.Host());
    EXPECT_EQ(audience.Client().GetVisitorProfile(), std::nullopt);
    EXPECT_EQ(audience.Signal({{"a.Launches", "1"}}), profile);
    EXPECT_EQ(server.Targets("/d").size(), 2u);
    EXPECT_EQ(audience.env.runtime->Settings().Lookup(kCohortaUserIdKey), SettingValue(std::string("U1")));
    EXPECT_EQ(audience.env.runtime->Settings().Lookup(kCohortaProfileKey), SettingValue(profile));
    const auto lines = audience.Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1].rfind("Velmora Warning:Cohorta - Unknown failure forwarding dest (", 0), 0u) << lines[1];
    EXPECT_EQ(lines[2], "Velmora Warning:Cohorta - Failed to forward the dest (A connection with the server "
                        "specified in the uri parameter could not be established.)");
    EXPECT_EQ(lines[3], "Velmora Debug:Cohorta - response {\n    age = 30\n    flag = \n    seg = gold\n}");

    // A new process on the same local folder.
    audience.env.runtime = audience.env.Restart();
    EXPECT_EQ(audience.Client().GetVisitorProfile(), profile);
    audience.Signal({{"t", "2"}});
    EXPECT_EQ(server.Targets("/event").back(), std::string("/event?c_t=2&d_uuid=U1&") + kTail);
}

// The real store, counting writes of the user id.
struct CountingSettings : SettingsStore {
    using SettingsStore::SettingsStore;
    void Insert(const std::string& key, const SettingValue& value) override {
        userIdWrites += key == kCohortaUserIdKey;
        SettingsStore::Insert(key, value);
    }
    std::atomic<int> userIdWrites{0};
};

TEST(Cohorta, AnUnchangedUserIdIsNotWrittenAgain) {
    AudienceServer server;
    test::TempDir dir;
    Logger log([](std::string_view) {});
    ConfigSettings config;
    config.cohortaServer = server.Host();
    ModuleGates gates(config);
    CountingSettings settings(dir.path(), log);
    HttpClient http(log, {});
    CohortaClient client(config, gates, settings, http, log);
    for (const auto& [uuid, writes] : {std::pair{"U1", 1}, {"U1", 1}, {"U2", 2}, {"U2", 2}}) {
        server.Answer("/event", std::string(R"({"uuid":")") + uuid + R"(","stuff":[{"cn":"s","cv":"1"}]})");
        EXPECT_EQ(client.SubmitSignal({}).get(), (StringMap{{"s", "1"}}));
        EXPECT_EQ(settings.userIdWrites.load(), writes) << uuid;
    }
}

TEST(Cohorta, AFailedOrEmptyAnswerCompletesWithoutProfileAndKeepsTheStoredState) {
    AudienceServer server;
    server.Answer("/d1", "");
    const std::string dest = R"("dests":[{"c":")" + server.Url("/d1") + R"("}])";
    const std::string parse = "Velmora Warning:Cohorta - Unexpected error parsing result (";
    // answer body (or server), start of the one warning, stored user id afterwards, destination calls
    const std::tuple<std::string, std::string, std::string, std::size_t> rows[] = {
        {"not json", parse, "OLD", 0},
        {"[1]", parse, "OLD", 0},
        {R"({"uuid":5,"stuff":[{"cn":"a","cv":"b"}]})", parse, "OLD", 0},
        {"{" + dest + R"(,"uuid":"NEW","stuff":{"cn":"a"}})", parse, "OLD", 0},
        {"HOLD", "Velmora Warning:Cohorta - Request timed out", "OLD", 0},
        {"{" + dest + R"(,"uuid":"NEW"})", "Velmora Warning:Cohorta - response was empty", "NEW", 1},
        {"server 127.0.0.1:1", "Velmora Warning:Cohorta - Unable to create URI object (A connection with", "OLD", 0},
        {"server bad host", "Velmora Warning:Cohorta - Unable to create URL object", "OLD", 0},
    };
    for (const auto& [body, line, userIdAfter, destinationCalls] : rows) {
        const bool other = body.rfind("server ", 0) == 0;
        if (!other) server.Answer("/event", body);
        Audience audience(other ? body.substr(7) : server.Host());
        auto& settings = audience.env.runtime->Settings();
        settings.Insert(kCohortaUserIdKey, std::string("OLD"));
        settings.Insert(kCohortaProfileKey, StringMap{{"old", "1"}});
        const std::size_t before = server.Targets("/d1").size();

        EXPECT_EQ(audience.Signal({{"t", "1"}}), std::nullopt);
        const auto lines = audience.Lines();
        ASSERT_EQ(lines.size(), 2u) << body;  // the request line, then the failure
        EXPECT_EQ(lines[1].rfind(line, 0), 0u) << lines[1];
        EXPECT_EQ(LookupText(settings, kCohortaUserIdKey), userIdAfter);
        EXPECT_EQ(audience.Client().GetVisitorProfile(), (StringMap{{"old", "1"}}));
        EXPECT_EQ(server.Targets("/d1").size() - before, destinationCalls);
    }
}

TEST(Cohorta, ASilentDestinationTimesOutAndWithoutAServerNothingIsSent) {
    AudienceServer server;
    server.Answer("/slow", "HOLD");
    server.Answer("/event", R"({"dests":[{"c":")" + server.Url("/slow") + R"("}],"stuff":[{"cn":"s","cv":"1"}]})");
    Audience audience(server.Host());
    EXPECT_EQ(audience.Signal({}), (StringMap{{"s", "1"}}));
    EXPECT_EQ(audience.Lines()[1], "Velmora Warning:Cohorta - Failed to forward dest; the request timed out");

    test::TestRuntime env(R"({"analytics":{"rsids":"r","server":"s"}})");
    env.runtime->Log().SetDebugEnabled(true);
    auto& client = env.runtime->Get<CohortaClient>();
    client.SetDpidAndDpuuid("P", "Q");
    EXPECT_EQ(client.SubmitSignal({{"t", "1"}}).get(), std::nullopt);
    EXPECT_EQ(client.GetDpid() + client.GetDpuuid(), "");
    EXPECT_EQ(env.log.Count("Velmora Warning:Cohorta - Your config file is not set up to use Cohorta"), 2u);
}

}  // namespace
}  // namespace velmora

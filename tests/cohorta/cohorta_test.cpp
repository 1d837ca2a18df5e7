#include "cohorta/cohorta.h"
#include "support/application.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velmora::test {
namespace {

using ::testing::Contains, ::testing::StartsWith;

constexpr const char* kTail = "d_ptfm=win8&d_dst=1&d_rtbd=json";

TEST_F(Application, AudienceRequestsAreBuiltInTheirFixedOrderAndFailuresLeaveTheStoredState) {
    const std::string empty = "Velmora Warning:Cohorta - response was empty";
    const std::string parse = "Velmora Warning:Cohorta - Unexpected error parsing result (";
    // answer "@host": that server instead of the audience's; destinations are called before the rest is read
    const std::string dest = R"({"dests":[{"c":"http://)" + std::string(kAudienceHost) + R"(/d"}],)";
    struct Row { StringMap traits; std::string userId, dpid, dpuuid, query, answer, line; std::size_t dests = 0; };
    const Row rows[] = {
        {{{"a.b", "AZaz09-._~"}, {"x", ""}}, "", "", "", "c_a_b=AZaz09-._~&", R"({"stuff":[]})", empty},
        {{{"k.e.y", "v w"}, {"", "lost"}, {"u", "\xC3\xA9&="}}, "", "", "", "c_k_e_y=v%20w&c_u=%C3%A9%26%3D&", "not json", parse},
        {{}, "U1", "", "", "d_uuid=U1&", dest + R"("uuid":5,"stuff":[{"cn":"a","cv":"b"}]})", parse, 1},
        {{{"t", "1"}}, "U1", "P", "", "c_t=1&d_uuid=U1&", dest + R"("uuid":"NEW","stuff":{"cn":"a"}})", parse, 1},
        {{{"t", "1"}}, "", "", "Q", "c_t=1&", "{}", empty},
        {{{"t", "1"}}, "U1", "P", "Q", "c_t=1&d_uuid=U1&d_dpid=P&d_dpuuid=Q&", "HOLD",  // waits out the 2 s limit
         "Velmora Warning:Cohorta - Request timed out"},
        {{}, "", "", "", "", std::string("@") + kRefusedHost, "Velmora Warning:Cohorta - Unable to create URI object (A connection with"},
        {{}, "", "", "", "", "@bad host", "Velmora Warning:Cohorta - Unable to create URL object"},
    };
    for (const auto& row : rows) {
        const std::string host = row.answer[0] == '@' ? row.answer.substr(1) : kAudienceHost;
        Answer(row.answer);
        Launch("1.0.0.0", 300, host);
        Settings().Insert(kCohortaUserIdKey, row.userId);
        Settings().Insert(kCohortaProfileKey, StringMap{{"old", "1"}});
        Cohorta().SetDpidAndDpuuid(row.dpid, row.dpuuid);
        const std::size_t before = audience.Requests().size();
        EXPECT_EQ(Cohorta().SubmitSignal(row.traits).get(), std::nullopt);
        EXPECT_EQ(audience.Requests().size() - before, host == "bad host" ? 0u : 1 + row.dests) << "the signal and destinations";
        if (host != "bad host") { EXPECT_EQ(audience.Requests()[before].timeoutMillis, CohortaClient::kSignalTimeoutMs); }
        EXPECT_THAT(env.log.Lines(), Contains("Velmora Debug:Cohorta - request (http://" + host + "/event?" + row.query + kTail + ")"));
        EXPECT_THAT(env.log.Lines(), Contains(StartsWith(row.line)));
        EXPECT_EQ(LookupText(Settings(), kCohortaUserIdKey), row.userId);
        EXPECT_EQ(Cohorta().GetVisitorProfile(Settings()), (StringMap{{"old", "1"}}));
        EXPECT_EQ(Cohorta().GetDpid() + "/" + Cohorta().GetDpuuid(), row.dpid + "/" + row.dpuuid);
    }
}

TEST_F(Application, TheAudienceAnswerIsKeptAcrossProcessesAndItsDestinationsCalled) {
    const std::string host = std::string("http://") + kAudienceHost;
    Answer(R"({"uuid":"U1","dests":[{"c":")" + host + R"(/d1"},{"c":")" + host + R"(/d2?x=1"},{"url":"none"},)" +
           R"({"c":"http://)" + kRefusedHost + R"(/"}],"stuff":[{"cn":"seg","cv":"gold"},{"cn":"age","cv":"30"},{"cn":"flag"}]})");
    const StringMap profile{{"age", "30"}, {"flag", ""}, {"seg", "gold"}};
    Launch();
    EXPECT_EQ(Cohorta().SubmitSignal({}).get(), profile);
    const auto requests = audience.Requests();  // the signal and the destinations with an address
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(std::make_tuple(requests[1].url, requests[3].url), std::make_tuple(host + "/d1", std::string("http://refused.test/")));
    EXPECT_EQ(requests[2].timeoutMillis, CohortaClient::kDestinationTimeoutMs);
    const auto lines = env.log.Lines();
    EXPECT_THAT(lines, Contains(StartsWith("Velmora Warning:Cohorta - Unknown failure forwarding dest (")));
    EXPECT_THAT(lines, Contains("Velmora Warning:Cohorta - Failed to forward the dest (A connection with the server "
                                "specified in the uri parameter could not be established.)"));
    EXPECT_THAT(lines, Contains("Velmora Debug:Cohorta - response {\n    age = 30\n    flag = \n    seg = gold\n}"));
    Launch();
    EXPECT_EQ(Cohorta().GetVisitorProfile(Settings()), profile);
    Settings().Insert(kCohortaProfileKey, std::int32_t{1});  // another type under the key is no profile
    EXPECT_EQ(Cohorta().GetVisitorProfile(Settings()), std::nullopt);
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
}  // namespace velmora::test

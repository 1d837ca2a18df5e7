// The collector's workings: its hit decoder, its command line, its terminal block and its server on a
// loopback port. The program itself runs in the demo's test.
#include "analytics/hit_builder.h"
#include "collector.h"
#include "hit_decoder.h"
#include "options.h"
#include "render.h"
#include "support/test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace velmora::collector {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

// A collector serving on a free loopback port for the life of the object. What it prints is kept
// one write per entry: a JSON line or a hit block in `out`, a rejected request's line in `err`.
struct RunningCollector {
    explicit RunningCollector(CollectorOptions options = {}) {
        options.port = 0;
        collector_ = std::make_unique<Collector>(options, Output{out.Sink(), err.Sink()});
        collector_->Bind();
        thread_ = std::thread([this] { collector_->Serve(); });
    }
    ~RunningCollector() {
        collector_->Stop();
        thread_.join();
    }

    // A client that sends targets exactly as given, escapes included.
    std::unique_ptr<httplib::Client> Client() const {
        auto client = std::make_unique<httplib::Client>("127.0.0.1", collector_->Port());
        client->set_url_encode(false);
        client->set_read_timeout(30, 0);
        return client;
    }

    test::LogCapture out, err;  // declared first: they outlive the collector's threads
    std::unique_ptr<Collector> collector_;
    std::thread thread_;
};

// What the library writes comes back byte for byte; dots in context keys nest groups.
TEST(CollectorDecoder, ReadsBackTrickyKeysAndValuesAsTheLibraryWritesThem) {
    std::string ascii;
    for (int c = 0; c < 128; ++c) ascii.push_back(static_cast<char>(c));
    StringMap variables, context;
    for (const std::string& text : {ascii, std::string("a b&c=d"), std::string("%41+"), std::string("&c."),
                                    std::string("&.c"), std::string("K\xC3\xB6ln \xE6\x97\xA5\xF0\x9F\x8E\x89")}) {
        std::string segment = "k" + text;  // its dots would start groups of their own
        segment.erase(std::remove(segment.begin(), segment.end(), '.'), segment.end());
        variables[text] = text;
        context[segment] = context["group." + segment] = context["group." + segment + ".inner"] = text;
    }
    HitBuilder builder(0);
    Hit hit = DecodeHit("/b/ss/rs/0/WINU-4.0.0/" + builder.Build({}, variables, 0, HitFacts{}));
    for (const auto& [key, value] : variables) EXPECT_EQ(hit.variables[key], value);
    hit = DecodeHit("/b/ss/rs/0/WINU-4.0.0/s1?AQB=1&ndh=1&c." + SerializeContextTree(context) + "&.c&AQE=1");
    EXPECT_EQ(hit.contextData, context);
}

TEST(CollectorDecoder, ReadsThePathOtherGroupsAndEmptyValues) {
    struct Case { std::string body; StringMap variables, context; };
    const Case cases[] = {
        {"&q=a+b", {{"q", "a+b"}}, {}},  // the library writes a blank as "%20"
        {"&vid=&c.&k=&.c", {{"vid", ""}}, {{"k", ""}}},
        {"&aid=1&c.&x=2&.c&list.&x=1&.list&a.b=3", {{"aid", "1"}, {"list.x", "1"}, {"a.b", "3"}}, {{"x", "2"}}},
        {"", {}, {}},
        // Bytes that are not UTF-8 are kept as sent; only what is shown replaces them.
        {"&x=%FF%C0%AF&c.&k%ED%A0%80=%E2%82&.c", {{"x", "\xFF\xC0\xAF"}}, {{"k\xED\xA0\x80", "\xE2\x82"}}},
    };
    for (const Case& c : cases) {
        Hit hit = DecodeHit("/b/ss/rs1,rs2/0/WINU-4.0.0/s4218470?AQB=1&ndh=1" + c.body + "&AQE=1");
        EXPECT_EQ(std::tie(hit.variables, hit.contextData), std::tie(c.variables, c.context)) << c.body;
        EXPECT_EQ(hit.reportSuites + " " + hit.platform + " " + hit.cacheBuster, "rs1,rs2 WINU-4.0.0 4218470");
    }
}

TEST(CollectorDecoder, RefusesMalformedHitsWithTheReason) {
    const std::string p = "/b/ss/r/0/WINU-4.0.0/s1?AQB=1&ndh=1";
    const std::pair<std::string, const char*> cases[] = {
        {p + "&x=%zz&AQE=1", "percent-encoding"}, {p + "&x=%4&AQE=1", "percent-encoding"},
        {"/b/ss/r/0/WINU-4.0.0/s1", "query"},
        {"/b/ss/r/0/WINU-4.0.0/s1?ndh=1&AQE=1", "AQB=1"}, {p + "&x=1", "AQE=1"}, {p + "&AQE=1&x=1", "AQE=1"},
        {p + "&c.&a=1&AQE=1", "never closed"}, {p + "&c.&a.&b=1&.c&.a&AQE=1", "closes group \"a\""},
        {p + "&.c&AQE=1", "never opened"}, {p + "&&x=1&AQE=1", "empty parameter"}, {p + "&flag&AQE=1", "without \"=\""},
        {p + "&=1&AQE=1", "empty name"}, {"/b/ss//0/WINU-4.0.0/s1?AQB=1&AQE=1", "path"},
        {"/b/ss/r/1/WINU-4.0.0/s1?AQB=1&AQE=1", "path"}, {"/b/ss/r/0/WINU-4.0.0/s12x?AQB=1&AQE=1", "s<number>"}};
    for (const auto& [target, reason] : cases) {
        EXPECT_THAT([&] { DecodeHit(target); }, ThrowsMessage<MalformedRequest>(HasSubstr(reason))) << target;
    }
}

// The server's tests below start from parsed flags; the demo's test runs the program with "--port 0".
TEST(CollectorOptions, RefusesMissingUnknownAndOutOfRangeValues) {
    for (const auto& bad : std::vector<std::vector<std::string>>{
             {"--port"}, {"--port", "65536"}, {"--port", "8x"}, {"--status", "99"}, {"--keep", "0"}, {"--host", ""},
             {"--colour"}}) {
        EXPECT_THROW(ParseArguments(bad), UsageError) << bad[0];
    }
}

std::string HitTarget(const std::string& cacheBuster, const std::string& body) {
    return "/b/ss/demo.rsid/0/WINU-4.0.0/s" + cacheBuster + "?AQB=1&ndh=1" + body + "&AQE=1";
}

json Get(RunningCollector& running, const std::string& target) {
    auto answer = running.Client()->Get(target);
    EXPECT_TRUE(answer && answer->status == 200) << target;
    return answer ? json::parse(answer->body, nullptr, false) : json();
}

TEST(CollectorServer, DecodesHitsIntoTheFeedAndOneJsonLineEachAndRejectsMalformedRequestsWithALogLine) {
    RunningCollector running(ParseArguments({"--json", "--status", "202"}));
    auto client = running.Client();
    const std::vector<std::string> bad = {HitTarget("1", "&x=%zz"), "/m2/c/ubox/raw?mbox=%",
                                          "/hits.json?since=soon"};
    for (const auto& target : bad) EXPECT_EQ(client->Get(target)->status, 400) << target;
    EXPECT_EQ(client->Get("/nothing/here")->status, 404);
    const std::string first = HitTarget("111", "&pageName=Home%20%26%20More&ts=1714564800&c.&a.&AppID=D%201&.a&.c");
    const std::string second = HitTarget("222", "&pev2=Buy&c.&item=%C3%BC%FF&item.&n=2&.item&.c");
    ASSERT_EQ(client->Get(first)->status, 202);
    ASSERT_EQ(client->Get(second)->status, 202);

    json feed = Get(running, "/hits.json");
    EXPECT_EQ(feed["received"], 2);
    ASSERT_EQ(feed["hits"].size(), 2u);
    EXPECT_EQ(Get(running, "/hits.json?since=1")["hits"], json::array({feed["hits"][0]}));
    const auto lines = running.out.Lines();  // the same objects, in arrival order
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(json::parse("[" + lines[1] + "," + lines[0] + "]"), feed["hits"]);
    json oldest = feed["hits"][1];
    oldest.erase("received");
    EXPECT_EQ(oldest, (json{{"kind", "hit"}, {"id", 1}, {"status", 202}, {"reportSuites", "demo.rsid"},
                            {"platform", "WINU-4.0.0"}, {"cacheBuster", "111"}, {"ts", 1714564800}, {"url", first},
                            {"variables", {{"pageName", "Home & More"}, {"ts", "1714564800"}}},
                            {"contextData", {{"a.AppID", "D 1"}}}}));
    EXPECT_EQ(feed["hits"][0]["contextData"], (json{{"item", "\xC3\xBC\xEF\xBF\xBD"}, {"item.n", "2"}}));

    std::vector<::testing::Matcher<std::string>> errors;
    for (const auto& target : bad) errors.push_back(::testing::StartsWith("velmora-collector: 400 for GET " + target + ": "));
    errors.push_back("velmora-collector: 404 for GET /nothing/here: no such endpoint");
    EXPECT_THAT(running.err.Lines(), ::testing::ElementsAreArray(errors));
}

// The block a terminal shows: a value cannot move the cursor or split the block.
TEST(CollectorRender, PrintsAHitAsABlockThatItsValuesCannotSteer) {
    const std::string target = HitTarget("1", "&ts=1714564800&pageName=a%1B%5B2J%0Ab&c.&k%C3%BC=v%E2%82&long=w&.c");
    EXPECT_EQ(HitBlock({7, 1714564800000, 503, target, DecodeHit(target)}),
              "hit #7  received 2024-05-01 12:00:00 UTC  answered 503\n"
              "  report suite demo.rsid  (WINU-4.0.0, s1)\n"
              "  ts           1714564800 (2024-05-01 12:00:00 UTC)\n"
              "  variables\n"
              "    pageName = a\\x1B[2J\\nb\n"
              "    ts       = 1714564800\n"
              "  context data\n"
              "    k\xC3\xBC   = v\xEF\xBF\xBD\n"
              "    long = w\n\n");
}

TEST(CollectorServer, AnswersIdentifierOfferAndAudienceRequests) {
    const CollectorOptions options = ParseArguments({"--dest", "http://127.0.0.1:1/dest?a=1", "--dest", "http://b/"});
    RunningCollector running(options);
    EXPECT_EQ(Get(running, "/id"), (json{{"id", options.aid}}));
    // A visitor that brings its identifiers keeps them.
    for (auto [cookie, ids] : {std::pair{"", "mboxPC=collector-pc-0001; Path=/ mboxSession=collector-session-0001; Path=/"},
                               {"mboxPC=pc-7; mboxSession=s-9", "mboxPC=pc-7; Path=/ mboxSession=s-9; Path=/"}}) {
        auto offer = running.Client()->Get("/m2/client/ubox/raw?mbox=home", {{"Cookie", cookie}});
        ASSERT_TRUE(offer && offer->body == options.offerContent);
        EXPECT_EQ(offer->get_header_value("Set-Cookie", 0) + " " + offer->get_header_value("Set-Cookie", 1), ids);
    }
    EXPECT_EQ(Get(running, "/event?c_a_b=1&c_x=y%20z&d_uuid=old&d_ptfm=win8&d_dst=1&d_rtbd=json"),
              (json{{"uuid", options.uuid}, {"dests", {{{"c", "http://127.0.0.1:1/dest?a=1"}}, {{"c", "http://b/"}}}},
                    {"stuff", {{{"cn", "a_b"}, {"cv", "1"}}, {{"cn", "x"}, {"cv", "y z"}}}}}));
    EXPECT_EQ(Get(running, "/event?d_ptfm=win8")["stuff"], json::array());
    EXPECT_TRUE(running.err.Lines().empty());
}

}  // namespace
}  // namespace velmora::collector

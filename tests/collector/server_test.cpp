#include "collector/collector_support.h"
#include "support/test_support.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <thread>

namespace velmora::collector {
namespace {

using nlohmann::json;
using test::RunningCollector;
using velmora::test::WaitUntil;

std::string HitTarget(const std::string& cacheBuster, const std::string& body) {
    return "/b/ss/demo.rsid/0/WINU-4.0.0/s" + cacheBuster + "?AQB=1&ndh=1" + body + "&AQE=1";
}

json HitsJson(RunningCollector& running, const std::string& query = "") {
    auto answer = running.Client()->Get("/hits.json" + query);
    EXPECT_TRUE(answer);
    if (!answer) return json();
    EXPECT_EQ(answer->status, 200);
    return json::parse(answer->body);
}

TEST(CollectorServer, DecodesHitsIntoTheFeedAndOneJsonLineEach) {
    CollectorOptions options;
    options.json = true;
    RunningCollector running(options);
    auto client = running.Client();
    const std::string first =
        HitTarget("111", "&pageName=Home%20%26%20More&ts=1714564800&c.&a.&AppID=Demo%201.0&.a&.c");
    const std::string second = HitTarget("222", "&pev2=Buy&c.&item=%C3%BC&item.&n=2&.item&.c");
    ASSERT_EQ(client->Get(first)->status, 200);
    ASSERT_EQ(client->Get(second)->status, 200);

    json feed = HitsJson(running);
    EXPECT_EQ(feed["received"], 2);
    ASSERT_EQ(feed["hits"].size(), 2u);
    const json& newest = feed["hits"][0];
    EXPECT_EQ(newest["id"], 2);
    EXPECT_EQ(newest["url"], second);
    EXPECT_EQ(newest["variables"], (json{{"pev2", "Buy"}}));
    EXPECT_EQ(newest["contextData"], (json{{"item", "\xC3\xBC"}, {"item.n", "2"}}));
    const json& oldest = feed["hits"][1];
    EXPECT_EQ(oldest["reportSuites"], "demo.rsid");
    EXPECT_EQ(oldest["platform"], "WINU-4.0.0");
    EXPECT_EQ(oldest["cacheBuster"], "111");
    EXPECT_EQ(oldest["ts"], 1714564800);
    EXPECT_EQ(oldest["variables"]["pageName"], "Home & More");
    EXPECT_EQ(oldest["contextData"], (json{{"a.AppID", "Demo 1.0"}}));

    json since = HitsJson(running, "?since=1");
    ASSERT_EQ(since["hits"].size(), 1u);
    EXPECT_EQ(since["hits"][0]["id"], 2);

    // Printed lines are the same objects, in arrival order.
    auto lines = running.OutLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(json::parse(lines[0]), oldest);
    EXPECT_EQ(json::parse(lines[1]), newest);
    EXPECT_TRUE(running.ErrLines().empty());
}

TEST(CollectorServer, RejectsMalformedRequestsWithALogLineAndKeepsServing) {
    RunningCollector running;
    auto client = running.Client();
    const std::vector<std::string> bad = {
        HitTarget("1", "&x=%zz"),
        "/b/ss/r/0/WINU-4.0.0/s1?AQB=1&ndh=1&x=1",
        HitTarget("1", "&c.&a=1"),
        "/event?c_a=%E2%82",
        "/m2/client/ubox/raw?mbox=%",
        "/hits.json?since=soon",
    };
    for (const auto& target : bad) {
        auto answer = client->Get(target);
        ASSERT_TRUE(answer) << target;
        EXPECT_EQ(answer->status, 400) << target;
    }
    auto unknown = client->Get("/nothing/here");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->status, 404);
    auto tooLong = client->Get(HitTarget("1", "&x=" + std::string(9000, 'a')));
    ASSERT_TRUE(tooLong);
    EXPECT_EQ(tooLong->status, 414);

    auto errors = running.ErrLines();
    ASSERT_EQ(errors.size(), bad.size() + 2);
    for (std::size_t i = 0; i < bad.size(); ++i) {
        EXPECT_EQ(errors[i].rfind("velmora-collector: 400 for GET " + bad[i] + ": ", 0), 0u) << errors[i];
    }
    EXPECT_EQ(errors[bad.size()], "velmora-collector: 404 for GET /nothing/here: no such endpoint");
    EXPECT_EQ(errors.back().rfind("velmora-collector: 414 for ", 0), 0u) << errors.back();
    EXPECT_NE(errors.back().find("request target too long"), std::string::npos) << errors.back();
    EXPECT_EQ(running.collector().Hits().TotalReceived(), 0u);

    EXPECT_EQ(client->Get(HitTarget("2", "&pageName=ok"))->status, 200);
    EXPECT_EQ(running.collector().Hits().TotalReceived(), 1u);
}

TEST(CollectorServer, AnswersHitsWithTheChosenStatusAndKeepsOnlyTheNewest) {
    CollectorOptions options;
    options.hitStatus = 503;
    options.keep = 2;
    RunningCollector running(options);
    auto client = running.Client();
    for (int i = 1; i <= 4; ++i) {
        auto answer = client->Get(HitTarget(std::to_string(i), "&n=" + std::to_string(i)));
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->status, 503);
    }
    json feed = HitsJson(running);
    EXPECT_EQ(feed["received"], 4);
    EXPECT_EQ(feed["kept"], 2);
    ASSERT_EQ(feed["hits"].size(), 2u);
    EXPECT_EQ(feed["hits"][0]["variables"]["n"], "4");
    EXPECT_EQ(feed["hits"][1]["variables"]["n"], "3");
    EXPECT_EQ(feed["hits"][1]["status"], 503);
    // The readable block says what was answered, so retries can be told apart.
    auto lines = running.OutLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "  variables"), 4);
    EXPECT_NE(lines[0].find("answered 503"), std::string::npos) << lines[0];
}

TEST(CollectorServer, StopCutsADelayedAnswerShort) {
    CollectorOptions options;
    options.hitDelayMillis = 600000;
    RunningCollector running(options);
    std::atomic<bool> answered{false};
    std::thread sender([&] {
        auto client = running.Client();
        client->Get(HitTarget("1", "&x=1"));
        answered = true;
    });
    ASSERT_TRUE(WaitUntil([&] { return running.collector().Hits().TotalReceived() == 1; }));
    EXPECT_FALSE(answered);
    running.Stop();
    sender.join();
    EXPECT_TRUE(answered);
}

TEST(CollectorServer, ManyClientsAtOnceGetDistinctNumbers) {
    CollectorOptions options;
    options.json = true;
    RunningCollector running(options);
    // The HTTP library is prebuilt without ThreadSanitizer: what it sets up on its first request is
    // shared out of the sanitizer's sight and reported as a race. One request alone goes first.
    ASSERT_EQ(running.Client()->Get(HitTarget("1", "&first=1"))->status, 200);
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([&running, t] {
            auto client = running.Client();
            for (int i = 0; i < 25; ++i) {
                client->Get(HitTarget("1", "&t=" + std::to_string(t) + "&i=" + std::to_string(i)));
            }
        });
    }
    for (auto& sender : senders) sender.join();
    auto lines = running.OutLines();
    ASSERT_EQ(lines.size(), 101u);
    for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(json::parse(lines[i])["id"], i + 1);
}

TEST(CollectorServer, AnswersIdentifierOfferAndAudienceRequests) {
    CollectorOptions options;
    options.aid = "0123456789ABCDEF-0123456789ABCDEF";
    options.offerContent = "Free shipping \xE2\x9C\x93";
    options.uuid = "user-42";
    options.destinations = {"http://127.0.0.1:1/dest?a=1"};
    RunningCollector running(options);
    auto client = running.Client();

    auto id = client->Get("/id");
    ASSERT_TRUE(id);
    EXPECT_EQ(json::parse(id->body), (json{{"id", "0123456789ABCDEF-0123456789ABCDEF"}}));

    const std::string offerPath = "/m2/myclient/ubox/raw?mboxContentType=text%2Fplain%3Bcharset%3Dutf-8&t=1&mbox=home";
    auto fresh = client->Get(offerPath);
    ASSERT_TRUE(fresh);
    EXPECT_EQ(fresh->body, options.offerContent);
    std::vector<std::string> cookies;
    for (auto [it, end] = fresh->headers.equal_range("Set-Cookie"); it != end; ++it) cookies.push_back(it->second);
    EXPECT_EQ(cookies, (std::vector<std::string>{"mboxPC=collector-pc-0001; Path=/",
                                                 "mboxSession=collector-session-0001; Path=/"}));
    // A visitor that brings its identifiers keeps them.
    auto known = client->Get(offerPath, {{"Cookie", "mboxPC=pc-7; mboxSession=s-9"}});
    ASSERT_TRUE(known);
    EXPECT_EQ(known->get_header_value("Set-Cookie", 0), "mboxPC=pc-7; Path=/");
    EXPECT_EQ(known->get_header_value("Set-Cookie", 1), "mboxSession=s-9; Path=/");

    auto audience = client->Get("/event?c_a_b=1&c_x=y%20z&d_uuid=old&d_ptfm=win8&d_dst=1&d_rtbd=json");
    ASSERT_TRUE(audience);
    EXPECT_EQ(json::parse(audience->body),
              (json{{"uuid", "user-42"},
                    {"dests", json::array({{{"c", "http://127.0.0.1:1/dest?a=1"}}})},
                    {"stuff", json::array({{{"cn", "a_b"}, {"cv", "1"}}, {{"cn", "x"}, {"cv", "y z"}}})}}));
    auto silent = client->Get("/event?d_ptfm=win8");
    ASSERT_TRUE(silent);
    json empty = json::parse(silent->body);
    EXPECT_TRUE(empty["stuff"].empty());
    EXPECT_TRUE(empty["dests"].is_array());

    EXPECT_EQ(running.collector().Hits().TotalReceived(), 0u);
    EXPECT_TRUE(running.ErrLines().empty());
}

TEST(CollectorServer, ASecondCollectorCannotTakeTheSamePort) {
    RunningCollector running;
    CollectorOptions options;
    options.port = running.port();
    Collector second(options, Output{[](std::string_view) {}, [](std::string_view) {}});
    EXPECT_THROW(second.Bind(), std::runtime_error);
}

TEST(CollectorServer, ServesTheSelfContainedPage) {
    RunningCollector running;
    auto page = running.Client()->Get("/");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_EQ(page->get_header_value("Content-Type"), "text/html; charset=utf-8");
    EXPECT_NE(page->body.find("/hits.json"), std::string::npos);
    for (const char* external : {"src=\"http", "href=\"http", "src=\"//", "<link", "@import"}) {
        EXPECT_EQ(page->body.find(external), std::string::npos) << external;
    }
}

}  // namespace
}  // namespace velmora::collector

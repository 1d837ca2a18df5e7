#include "collector/collector_support.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <thread>

namespace velmora::collector {
namespace {

using nlohmann::json;
using test::RunningCollector;

std::string HitTarget(const std::string& cacheBuster, const std::string& body) {
    return "/b/ss/demo.rsid/0/WINU-4.0.0/s" + cacheBuster + "?AQB=1&ndh=1" + body + "&AQE=1";
}

json Get(RunningCollector& running, const std::string& target) {
    auto answer = running.Client()->Get(target);
    EXPECT_TRUE(answer && answer->status == 200) << target;
    return answer ? json::parse(answer->body, nullptr, false) : json();
}

TEST(CollectorServer, DecodesHitsIntoTheFeedAndOneJsonLineEachAndRejectsMalformedRequestsWithALogLine) {
    CollectorOptions options;
    options.json = true;
    options.hitStatus = 202;
    RunningCollector running(options);
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
    // Printed lines are the same objects, in arrival order.
    const auto lines = running.out.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(json::parse(lines[0]), feed["hits"][1]);
    EXPECT_EQ(json::parse(lines[1]), feed["hits"][0]);
    json oldest = feed["hits"][1];
    oldest.erase("received");
    EXPECT_EQ(oldest, (json{{"kind", "hit"}, {"id", 1}, {"status", 202}, {"reportSuites", "demo.rsid"},
                            {"platform", "WINU-4.0.0"}, {"cacheBuster", "111"}, {"ts", 1714564800}, {"url", first},
                            {"variables", {{"pageName", "Home & More"}, {"ts", "1714564800"}}},
                            {"contextData", {{"a.AppID", "D 1"}}}}));
    EXPECT_EQ(feed["hits"][0]["contextData"], (json{{"item", "\xC3\xBC\xEF\xBF\xBD"}, {"item.n", "2"}}));

    auto errors = running.err.Lines();
    ASSERT_EQ(errors.size(), bad.size() + 1);
    for (std::size_t i = 0; i < bad.size(); ++i) {
        EXPECT_EQ(errors[i].rfind("velmora-collector: 400 for GET " + bad[i] + ": ", 0), 0u) << errors[i];
    }
    EXPECT_EQ(errors.back(), "velmora-collector: 404 for GET /nothing/here: no such endpoint");
}

// Hits from several clients at once, each held by the chosen delay and answered with the chosen status.
TEST(CollectorServer, DelayedHitsGetDistinctNumbersAndPrintBlocksThatValuesCannotSteer) {
    CollectorOptions options;
    options.hitStatus = 503;
    options.hitDelayMillis = 600000;
    options.keep = 2;
    RunningCollector running(options);
    std::vector<std::thread> senders;
    std::atomic<int> answered{0};
    // The HTTP library is prebuilt without ThreadSanitizer: what it sets up on its first request is
    // shared out of the sanitizer's sight and reported as a race. One request alone goes first.
    for (int t = 0; t < 6; ++t) {
        senders.emplace_back([&running, &answered, t] {
            const std::string tricky = "&ts=1714564800&pageName=a%1B%5B2J%0Ab&c.&k%C3%BC=v%E2%82&long=w&.c";
            running.Client()->Get(HitTarget("1", t == 0 ? tricky : "&n=" + std::to_string(t)));
            ++answered;
        });
        EXPECT_TRUE(velmora::test::WaitUntil([&] { return running.collector().Hits().TotalReceived() >= 1; }));
    }
    EXPECT_TRUE(velmora::test::WaitUntil([&] { return running.collector().Hits().TotalReceived() == 6; }));
    json feed = Get(running, "/hits.json");
    EXPECT_EQ(feed["hits"].size(), 2u) << "only the newest are kept";
    EXPECT_EQ(feed["hits"][0]["status"], 503);
    EXPECT_EQ(answered, 0) << "each waits its delay";
    running.Stop();
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(answered, 6) << "stopping cut the delay short";
    const auto blocks = running.out.Lines();
    ASSERT_EQ(blocks.size(), 6u);
    for (std::size_t i = 0; i < blocks.size(); ++i) EXPECT_EQ(blocks[i].rfind("hit #" + std::to_string(i + 1), 0), 0u);
    EXPECT_EQ(blocks[0].substr(blocks[0].find(" UTC")),
              " UTC  answered 503\n"
              "  report suite demo.rsid  (WINU-4.0.0, s1)\n"
              "  ts           1714564800 (2024-05-01 12:00:00 UTC)\n"
              "  variables\n"
              "    pageName = a\\x1B[2J\\nb\n"
              "    ts       = 1714564800\n"
              "  context data\n"
              "    k\xC3\xBC   = v\xEF\xBF\xBD\n"
              "    long = w\n");
}

TEST(CollectorServer, AnswersIdentifierOfferAndAudienceRequests) {
    CollectorOptions options;
    options.destinations = {"http://127.0.0.1:1/dest?a=1"};
    RunningCollector running(options);
    EXPECT_EQ(Get(running, "/id"), (json{{"id", options.aid}}));
    // A visitor that brings its identifiers keeps them.
    for (auto [cookie, pc, session] : {std::tuple{"", "collector-pc-0001", "collector-session-0001"},
                                       {"mboxPC=pc-7; mboxSession=s-9", "pc-7", "s-9"}}) {
        auto offer = running.Client()->Get("/m2/client/ubox/raw?mbox=home", {{"Cookie", cookie}});
        ASSERT_TRUE(offer);
        EXPECT_EQ(offer->body, options.offerContent);
        EXPECT_EQ(offer->get_header_value("Set-Cookie", 0), "mboxPC=" + std::string(pc) + "; Path=/");
        EXPECT_EQ(offer->get_header_value("Set-Cookie", 1), "mboxSession=" + std::string(session) + "; Path=/");
    }
    EXPECT_EQ(Get(running, "/event?c_a_b=1&c_x=y%20z&d_uuid=old&d_ptfm=win8&d_dst=1&d_rtbd=json"),
              (json{{"uuid", options.uuid},
                    {"dests", json::array({{{"c", "http://127.0.0.1:1/dest?a=1"}}})},
                    {"stuff", json::array({{{"cn", "a_b"}, {"cv", "1"}}, {{"cn", "x"}, {"cv", "y z"}}})}}));
    EXPECT_EQ(Get(running, "/event?d_ptfm=win8")["stuff"], json::array());
    EXPECT_TRUE(running.err.Lines().empty());
}

}  // namespace
}  // namespace velmora::collector

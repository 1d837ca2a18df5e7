#include "analytics/hit_builder.h"
#include "analytics/hit_queue.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>

namespace velmora {
namespace {

TEST(Builder, AddsTheStandardVariablesAndMergesTheDeviceContext) {
    const std::string head = "s1949254?AQB=1&ndh=1&aid=AID-1&ce=UTF-8&t=00%2F00%2F0000%2000%3A00%3A00%200%20300";
    const std::string device = "&c.&aDeviceName=Acme%20Phone&aOSVersion=Linux";
    const std::vector<std::tuple<StringMap, std::function<void(HitFacts&)>, std::string>> cases = {
        {{}, [](HitFacts& f) { f.offlineEnabled = true; f.visitorId = "me"; }, "&ts=1400000000&vid=me" + device},
        {{{"a.privacy.mode", "mine"}}, [](HitFacts& f) { f.privacyStatus = kPrivacyUnknown; },
         device + "&aprivacymode=mine"},
        {{{"", "x"}}, [](HitFacts& f) { f.deviceContext.clear(); }, ""},  // no context left: no group
    };
    for (const auto& [context, adjust, body] : cases) {
        HitFacts facts;
        facts.deviceContext = {{"a.DeviceName", "Acme Phone"}, {"a.OSVersion", "Linux"}};
        facts.aid = "AID-1";
        facts.charset = "UTF-8";
        adjust(facts);
        EXPECT_EQ(HitBuilder(300).Build(context, {}, 1400000000, facts),
                  head + body + (body.empty() ? "" : "&.c") + "&AQE=1");
    }
}

// The cache busters are glibc's rand() seeded 1, 2, 3, ...; the application's own rand() goes on
// as if no hit had been built.
TEST(Builder, CacheBustersFollowSeededRandAndLeaveTheApplicationsRandAlone) {
    std::srand(42);
    const int before = std::rand();
    HitBuilder builder(0);
    std::vector<std::string> hits;
    for (int i = 0; i < 3; ++i) hits.push_back(builder.Build({}, {}, 0, {}));
    const int after = std::rand();
    std::srand(42);
    EXPECT_EQ(before, std::rand());
    EXPECT_EQ(after, std::rand()) << "building hits reseeded or advanced rand()";
    for (unsigned n = 1; n <= 3; ++n) {
        std::srand(n);
        const std::uint64_t a = std::rand(), b = std::rand();
        EXPECT_EQ(hits[n - 1].substr(0, hits[n - 1].find('?')), "s" + std::to_string(((a << 32) + b) % 10'000'000));
    }
}

TEST(QueueFile, AnyValidJsonReadsLikeTheFilesThisLibraryWritesAndDamageKeepsTheEntriesBefore) {
    EXPECT_EQ(QueueFileMember("s1?a=\"q\"\\\t%20/", -1), R"({"T":-1,"H":"s1?a=\"q\"\\\t%20/"})");
    using Hits = std::vector<std::pair<std::int32_t, std::string>>;
    const std::string big(70000, 'x');  // longer than one read of the file
    const struct {
        std::string text;
        Hits hits;
        bool damaged;
    } cases[] = {
        {"", {}, false},
        {R"({"Hits":[]})", {}, false},
        {R"({"Hits":[{"T":1,"H":"a"},{"T":-2,"H":"b"},{"T":0,"H":""}]})", {{1, "a"}, {-2, "b"}, {0, ""}}, false},
        {R"({"Hits":[{"T":1,"H":")" + big + R"("}]})", {{1, big}}, false},
        {R"({"Hits":[{"T":99999999999,"H":"a"},{"T":-99999999999,"H":"b"},{"T":1e3,"H":"c"}]})",
         {{INT32_MAX, "a"}, {INT32_MIN, "b"}, {1000, "c"}}, false},
        {R"({ "Hits" : [ {"H":"a\"b\u00e9","X":{"T":"x"},"T":5} ], "Y":[1] })", {{5, "a\"b\xC3\xA9"}}, false},
        {R"({"Hits":[{"T":1,"H":"a"},{"T":01,"H":"b"}]})", {{1, "a"}}, true},
        {R"({"Hits":[{"T":1,"H":"a"},{"T":2,"H":"b)", {{1, "a"}}, true},
        {R"({"Hits":[{"T":1,"H":"a"}]}x)", {{1, "a"}}, true},
        {"{\"Hits\":[{\"T\":1,\"H\":\"a\"},{\"T\":2,\"H\":\"b\x01\"}]}", {{1, "a"}}, true},
    };
    for (const auto& c : cases) {
        std::vector<QueuedHit> parsed;
        bool damaged = false;
        try {
            ParseQueueFile(c.text, parsed);
        } catch (const std::exception&) {
            damaged = true;
        }
        Hits hits;
        for (const auto& hit : parsed) {
            hits.emplace_back(hit.timestamp, hit.hit);
            EXPECT_EQ(*hit.json, QueueFileMember(hit.hit, hit.timestamp));
        }
        EXPECT_EQ(hits, c.hits) << c.text.substr(0, 80);
        EXPECT_EQ(damaged, c.damaged) << c.text.substr(0, 80);
    }
}

}  // namespace
}  // namespace velmora

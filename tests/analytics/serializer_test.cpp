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
    EXPECT_EQ(hits[0].rfind("s1949254?", 0), 0u);
}

TEST(QueueFile, MembersRoundTripAndADamagedEntryKeepsWhatCameBefore) {
    EXPECT_EQ(QueueFileMember("s1?a=\"q\"\\\t%20/", -1), R"({"T":-1,"H":"s1?a=\"q\"\\\t%20/"})");
    std::vector<QueuedHit> hits;
    // Unknown members are skipped; "T" is read as whole seconds within 32 bits.
    ParseQueueFile(R"({"Hits":[{"H":"s\u00e9\"","X":{"T":"x"},"T":1.4e9},{"T":99999999999,"H":"s2"}],"N":[1]})", hits);
    ASSERT_EQ(hits.size(), 2u);
    EXPECT_EQ(std::make_pair(hits[0].timestamp, hits[0].hit), std::make_pair(1400000000, std::string("s\xC3\xA9\"")));
    EXPECT_EQ(*hits[0].json, QueueFileMember(hits[0].hit, 1400000000));
    EXPECT_EQ(hits[1].timestamp, 2147483647);
    hits.clear();
    EXPECT_ANY_THROW(ParseQueueFile(R"({"Hits":[{"T":1,"H":"s1"},{"T":2,"H":"s2")", hits));  // truncated
    EXPECT_EQ(hits.size(), 1u);
}

}  // namespace
}  // namespace velmora

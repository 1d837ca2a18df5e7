#include "analytics/hit_builder.h"
#include "analytics/hit_queue.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace velmora {
namespace {

TEST(KeyCleaning, RemovesNonWordCharactersAndDotsBeforeLookingAtDots) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},           {"plain_Key9", "plain_Key9"}, {"my key!", "mykey"},
        {"a.action", "aaction"}, {"..a...b..", "ab"},    {"&&", ""},
        {"&&pe", "pe"},     {"caf\xC3\xA9-bar", "cafbar"}, {"a/b?c=d&e", "abcde"},
    };
    KeyCleaner cleaner;
    for (int round = 0; round < 2; ++round) {  // the second round comes from what was remembered
        for (const auto& [key, cleaned] : cases) EXPECT_EQ(cleaner.Clean(key), cleaned) << key << " round " << round;
    }
}

TEST(ContextTree, DottedKeysNestAndEmptySegmentsStopTheWalk) {
    struct Case {
        StringMap cleaned;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {{{"a", "1"}, {"b", "x y"}}, "&a=1&b=x%20y"},
        {{{"a", ""}, {"b", "2"}}, "&b=2"},
        {{{"", "lost"}, {"k", "v"}}, "&k=v"},
        {{{"a.b", "1"}, {"a.c", "2"}, {"d", "3"}}, "&a.&b=1&c=2&.a&d=3"},
        // A node with both a value and children writes the value first.
        {{{"a", "top"}, {"a.b", "1"}}, "&a=top&a.&b=1&.a"},
        {{{"a.b.c", "deep"}}, "&a.&b.&c=deep&.b&.a"},
        // The walk creates "a" and "b" and then stops at the empty segment.
        {{{"a.b.", "dropped"}}, "&a.&.a"},
        {{{".a", "dropped"}}, ""},
        {{{"x y.z", "v&w"}}, "&x%20y.&z=v%26w&.x%20y"},
    };
    for (const auto& c : cases) EXPECT_EQ(SerializeContextTree(c.cleaned), c.expected);
}

TEST(Body, VariablesInKeyOrderThenTheCleanedContextGroup) {
    KeyCleaner cleaner;
    StringMap variables{{"pev2", "AMACTION:Buy now"}, {"aid", "A1"}, {"pageName", "Home"}, {"empty", ""}};
    EXPECT_EQ(SerializeBody(variables, {}, cleaner),
              "&aid=A1&empty=&pageName=Home&pev2=AMACTION%3ABuy%20now");
    // "a.b" and "ab" clean to the same key: the first in key order wins.
    StringMap context{{"a.b", "first"}, {"ab", "second"}, {"my key!", "1"}, {"&&", "gone"}, {"\xC3\xA9", "x"}};
    EXPECT_EQ(SerializeBody({{"aid", "A1"}}, context, cleaner), "&aid=A1&c.&ab=first&mykey=1&.c");
}

HitFacts Facts() {
    HitFacts facts;
    facts.deviceContext = {{"a.DeviceName", "Acme Phone"}, {"a.OSVersion", "Linux"}};
    facts.aid = "AID-1";
    facts.charset = "UTF-8";
    return facts;
}

std::string BodyOf(const std::string& hit) {
    const std::string start = "?AQB=1&ndh=1", end = "&AQE=1";
    auto from = hit.find(start);
    EXPECT_NE(from, std::string::npos) << hit;
    EXPECT_EQ(hit.compare(hit.size() - end.size(), end.size(), end), 0) << hit;
    return hit.substr(from + start.size(), hit.size() - end.size() - from - start.size());
}

TEST(Builder, AddsTheStandardVariablesAndMergesTheDeviceContext) {
    struct Case {
        const char* name;
        StringMap context;
        StringMap variables;
        std::function<void(HitFacts&)> adjust;
        std::string body;
    };
    const std::string t = "&t=00%2F00%2F0000%2000%3A00%3A00%200%20300";
    const std::string device = "&aDeviceName=Acme%20Phone&aOSVersion=Linux";
    const std::vector<Case> cases = {
        {"plain state", {}, {{"pageName", "Home"}}, nullptr,
         "&aid=AID-1&ce=UTF-8&pageName=Home" + t + "&c." + device + "&.c"},
        {"caller key wins over the device", {{"a.OSVersion", "Mine"}}, {}, nullptr,
         "&aid=AID-1&ce=UTF-8" + t + "&c.&aDeviceName=Acme%20Phone&aOSVersion=Mine&.c"},
        {"offline adds ts, a visitor id adds vid", {}, {},
         [](HitFacts& f) {
             f.offlineEnabled = true;
             f.visitorId = "me";
         },
         "&aid=AID-1&ce=UTF-8" + t + "&ts=1400000000&vid=me&c." + device + "&.c"},
        {"empty aid is still sent, empty vid is not", {}, {},
         [](HitFacts& f) {
             f.aid.clear();
             f.visitorId.clear();
         },
         "&aid=&ce=UTF-8" + t + "&c." + device + "&.c"},
        {"unknown privacy marks the hit", {}, {}, [](HitFacts& f) { f.privacyStatus = kPrivacyUnknown; },
         "&aid=AID-1&ce=UTF-8" + t + "&c." + device + "&aprivacymode=unknown&.c"},
        {"a caller's privacy mode wins", {{"a.privacy.mode", "mine"}}, {},
         [](HitFacts& f) { f.privacyStatus = kPrivacyUnknown; },
         "&aid=AID-1&ce=UTF-8" + t + "&c." + device + "&aprivacymode=mine&.c"},
        {"&& keys become variables and overwrite", {{"&&pe", "m_s"}, {"&&pageName", "Moved"}, {"&&", "stays"}},
         {{"pageName", "Home"}}, nullptr,
         "&aid=AID-1&ce=UTF-8&pageName=Moved&pe=m_s" + t + "&c." + device + "&.c"},
        {"no context at all: no group", {}, {}, [](HitFacts& f) { f.deviceContext.clear(); },
         "&aid=AID-1&ce=UTF-8" + t},
        {"an empty key is removed", {{"", "x"}}, {}, [](HitFacts& f) { f.deviceContext.clear(); },
         "&aid=AID-1&ce=UTF-8" + t},
    };
    for (const auto& c : cases) {
        HitBuilder builder(300);
        HitFacts facts = Facts();
        if (c.adjust) c.adjust(facts);
        EXPECT_EQ(BodyOf(builder.Build(c.context, c.variables, 1400000000, facts)), c.body) << c.name;
    }
}

TEST(Builder, CacheBustersFollowTheSeededSequenceInEveryInstance) {
    HitBuilder first(0), second(0);
    const HitFacts facts = Facts();
    std::vector<std::string> a, b;
    for (int i = 0; i < 3; ++i) {
        a.push_back(first.Build({}, {}, 1, facts));
        b.push_back(second.Build({}, {}, 1, facts));
    }
    EXPECT_EQ(a, b);
    EXPECT_EQ(a[0].substr(0, a[0].find('?')), "s1949254");
    EXPECT_EQ(a[1].substr(0, a[1].find('?')), "s3442559");
    EXPECT_EQ(a[2].substr(0, a[2].find('?')), "s734801");
    EXPECT_EQ(CacheBuster(0), CacheBuster(1));  // the C library treats seed 0 as 1
}

TEST(Builder, TimeZoneTextComesFromTheStandardOffset) {
    const char* saved = std::getenv("TZ");
    const std::string restore = saved != nullptr ? saved : "";
    const std::vector<std::pair<const char*, long>> zones = {{"UTC0", 0}, {"EST5EDT", 300}, {"CET-1CEST", -60},
                                                             {"IST-5:30", -330}};
    for (const auto& [zone, bias] : zones) {
        ::setenv("TZ", zone, 1);
        EXPECT_EQ(LocalTimeZoneBiasMinutes(), bias) << zone;
        EXPECT_EQ(HitBuilder().TimeZone(), "00/00/0000 00:00:00 0 " + std::to_string(bias)) << zone;
    }
    if (saved != nullptr) ::setenv("TZ", restore.c_str(), 1); else ::unsetenv("TZ");
    tzset();
}

TEST(Builder, BaseUrlFollowsTheSslSwitch) {
    ConfigSettings config;
    config.server = "metrics.example.com";
    config.rsids = "rs1,rs2";
    EXPECT_EQ(BaseUrl(config), "http://metrics.example.com/b/ss/rs1,rs2/0/WINU-4.0.0/");
    config.ssl = true;
    EXPECT_EQ(BaseUrl(config), "https://metrics.example.com/b/ss/rs1,rs2/0/WINU-4.0.0/");
}

TEST(QueueFile, MembersRoundTripAndBadEntriesKeepWhatCameBefore) {
    EXPECT_EQ(QueueFileMember("s1?a=\"q\"\\", 7), R"({"T":7,"H":"s1?a=\"q\"\\"})");
    EXPECT_EQ(QueueFileMember("s1?AQB=1&x=%20/", -1), R"({"T":-1,"H":"s1?AQB=1&x=%20/"})");
    EXPECT_EQ(QueueFileMember("tab\there", 1), R"({"T":1,"H":"tab\there"})");
    struct Case {
        std::string text;
        std::vector<std::pair<std::int32_t, std::string>> hits;
        bool throws;
    };
    const std::vector<Case> cases = {
        {"", {}, false},
        {R"({"Hits":[]})", {}, false},
        {R"({"Hits":[{"T":100,"H":"s1"},{"T":99,"H":"s2"}]})", {{100, "s1"}, {99, "s2"}}, false},
        {R"({"Hits":[{"T":1.4e9,"H":"s1"}]})", {{1400000000, "s1"}}, false},
        {R"({"Hits":[{"T":1,"H":"s1"},{"T":"2","H":"s2"},{"T":3,"H":"s3"}]})", {{1, "s1"}}, true},
        {R"({"Hits":[{"T":1,"H":"s1"},{"H":"s2"}]})", {{1, "s1"}}, true},
        {R"({"Hits":{"T":1}})", {}, true},
        {R"([{"T":1,"H":"s1"}])", {}, true},
        {R"({"Hits":[{"T":1,"H":"s1"},{"T":2,"H":"s2")", {{1, "s1"}}, true},
        {R"({"Hits":[{"T":1,"H":"s1","X":{"T":"x","H":[1]}}],"Other":[{"T":"x"}],"N":5})", {{1, "s1"}}, false},
        {R"({"Hits":[{"H":"s\u00e9\"","Y":9,"T":-5}]})", {{-5, "s\xC3\xA9\""}}, false},
        {R"({"Hits":[{"T":99999999999,"H":"s1"}]})", {{2147483647, "s1"}}, false},
        {"garbage", {}, true},
    };
    for (const auto& c : cases) {
        std::vector<QueuedHit> hits;
        if (c.throws) {
            EXPECT_ANY_THROW(ParseQueueFile(c.text, hits)) << c.text;
        } else {
            EXPECT_NO_THROW(ParseQueueFile(c.text, hits)) << c.text;
        }
        ASSERT_EQ(hits.size(), c.hits.size()) << c.text;
        for (std::size_t i = 0; i < hits.size(); ++i) {
            EXPECT_EQ(hits[i].timestamp, c.hits[i].first);
            EXPECT_EQ(hits[i].hit, c.hits[i].second);
            EXPECT_EQ(*hits[i].json, QueueFileMember(c.hits[i].second, c.hits[i].first));
        }
    }
}

}  // namespace
}  // namespace velmora

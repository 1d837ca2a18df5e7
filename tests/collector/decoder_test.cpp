#include "core/escape.h"
#include "hit_decoder.h"
#include "hit_store.h"
#include "options.h"
#include "render.h"

#include <gtest/gtest.h>

namespace velmora::collector {
namespace {

const std::string kPrefix = "/b/ss/rs1,rs2/0/WINU-4.0.0/s4218470?AQB=1&ndh=1";

struct DecodeCase {
    const char* name;
    std::string body;  // between the opening and "&AQE=1"
    StringMap variables;
    StringMap contextData;
};

void PrintTo(const DecodeCase& c, std::ostream* os) { *os << c.name; }

class DecodeTable : public testing::TestWithParam<DecodeCase> {};

TEST_P(DecodeTable, GivesBackVariablesAndDottedContextKeys) {
    const DecodeCase& c = GetParam();
    Hit hit = DecodeHit(kPrefix + c.body + "&AQE=1");
    EXPECT_EQ(hit.variables, c.variables);
    EXPECT_EQ(hit.contextData, c.contextData);
    EXPECT_EQ(hit.reportSuites, "rs1,rs2");
    EXPECT_EQ(hit.platform, "WINU-4.0.0");
    EXPECT_EQ(hit.cacheBuster, "4218470");
}

INSTANTIATE_TEST_SUITE_P(
    Collector, DecodeTable,
    testing::Values(
        DecodeCase{"Plain", "&aid=A1&pageName=Home", {{"aid", "A1"}, {"pageName", "Home"}}, {}},
        DecodeCase{"Reserved", "&pageName=a%20b%26c%3Dd%25e%2Bf", {{"pageName", "a b&c=d%e+f"}}, {}},
        DecodeCase{"PlusIsNoBlank", "&q=a+b", {{"q", "a+b"}}, {}},
        DecodeCase{"NonAscii", "&n=%C3%BC%E2%82%AC%F0%9F%98%80", {{"n", "\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80"}}, {}},
        DecodeCase{"EmptyValues", "&vid=&c.&k=&.c", {{"vid", ""}}, {{"k", ""}}},
        DecodeCase{"NestedGroups", "&c.&a.&b=1&.a&.c", {}, {{"a.b", "1"}}},
        DecodeCase{"ValueAndChildrenOnOneSegment", "&c.&a=x&a.&b=1&c.&d=2&.c&.a&z=9&.c",
                   {}, {{"a", "x"}, {"a.b", "1"}, {"a.c.d", "2"}, {"z", "9"}}},
        DecodeCase{"EscapedKeysAndGroupNames", "&c.&my%20group.&k%26=v%3D&.my%20group&key%20x=a%26b&.c",
                   {}, {{"my group.k&", "v="}, {"key x", "a&b"}}},
        DecodeCase{"VariablesAroundTheGroup", "&aid=1&c.&x=2&.c&t=3", {{"aid", "1"}, {"t", "3"}}, {{"x", "2"}}},
        DecodeCase{"OtherTopLevelGroupIsVariables", "&list.&x=1&.list", {{"list.x", "1"}}, {}},
        DecodeCase{"DottedVariableName", "&a.b=1", {{"a.b", "1"}}, {}},
        DecodeCase{"NothingInside", "", {}, {}}),
    [](const testing::TestParamInfo<DecodeCase>& info) { return std::string(info.param.name); });

struct MalformedCase {
    const char* name;
    std::string target;
    const char* reason;  // part of the message
};

void PrintTo(const MalformedCase& c, std::ostream* os) { *os << c.target; }

class MalformedTable : public testing::TestWithParam<MalformedCase> {};

TEST_P(MalformedTable, IsRejectedWithAReason) {
    try {
        DecodeHit(GetParam().target);
        FAIL() << "accepted " << GetParam().target;
    } catch (const MalformedRequest& e) {
        EXPECT_NE(std::string(e.what()).find(GetParam().reason), std::string::npos) << e.what();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Collector, MalformedTable,
    testing::Values(
        MalformedCase{"BadHexDigits", kPrefix + "&x=%zz&AQE=1", "percent-encoding"},
        MalformedCase{"CutEscapeAtEnd", kPrefix + "&x=%4&AQE=1", "percent-encoding"},
        MalformedCase{"LonePercentInKey", kPrefix + "&%=1&AQE=1", "percent-encoding"},
        MalformedCase{"NotUtf8", kPrefix + "&x=%FF&AQE=1", "UTF-8"},
        MalformedCase{"OverlongUtf8", kPrefix + "&x=%C0%AF&AQE=1", "UTF-8"},
        MalformedCase{"Surrogate", kPrefix + "&x=%ED%A0%80&AQE=1", "UTF-8"},
        MalformedCase{"CutUtf8", kPrefix + "&x=%E2%82&AQE=1", "UTF-8"},
        MalformedCase{"NoQuery", "/b/ss/r/0/WINU-4.0.0/s1", "query"},
        MalformedCase{"NoOpening", "/b/ss/r/0/WINU-4.0.0/s1?ndh=1&x=1&AQE=1", "AQB=1"},
        MalformedCase{"NoClosing", "/b/ss/r/0/WINU-4.0.0/s1?AQB=1&ndh=1&x=1", "AQE=1"},
        MalformedCase{"ClosingNotLast", "/b/ss/r/0/WINU-4.0.0/s1?AQB=1&AQE=1&x=1", "AQE=1"},
        MalformedCase{"GroupNeverClosed", kPrefix + "&c.&a=1&AQE=1", "never closed"},
        MalformedCase{"GroupsCrossed", kPrefix + "&c.&a.&b=1&.c&.a&AQE=1", "closes group \"a\""},
        MalformedCase{"CloseWithoutOpen", kPrefix + "&.c&AQE=1", "never opened"},
        MalformedCase{"EmptyParameter", kPrefix + "&&x=1&AQE=1", "empty parameter"},
        MalformedCase{"NoEquals", kPrefix + "&flag&AQE=1", "without \"=\""},
        MalformedCase{"EmptyName", kPrefix + "&=1&AQE=1", "empty name"},
        MalformedCase{"NoReportSuite", "/b/ss//0/WINU-4.0.0/s1?AQB=1&AQE=1", "path"},
        MalformedCase{"WrongVersionSegment", "/b/ss/r/1/WINU-4.0.0/s1?AQB=1&AQE=1", "path"},
        MalformedCase{"ExtraSegment", "/b/ss/r/0/x/WINU-4.0.0/s1?AQB=1&AQE=1", "path"},
        MalformedCase{"NoCacheBuster", "/b/ss/r/0/WINU-4.0.0/s?AQB=1&AQE=1", "s<number>"},
        MalformedCase{"LetterInCacheBuster", "/b/ss/r/0/WINU-4.0.0/s12x?AQB=1&AQE=1", "s<number>"}),
    [](const testing::TestParamInfo<MalformedCase>& info) { return std::string(info.param.name); });

// Keys and values escaped the way the library escapes them come back byte for byte.
TEST(CollectorDecoder, RoundTripsEveryCharacterTheLibraryEscapes) {
    std::string everyAscii;
    for (int c = 0; c < 128; ++c) everyAscii.push_back(static_cast<char>(c));
    const std::vector<std::string> texts = {everyAscii, "a b&c=d", "%41", "&c.", "&.c", "\xE6\x97\xA5\xE6\x9C\xAC",
                                            "x\xF0\x9F\x8E\x89y", "..", "="};
    for (const std::string& text : texts) {
        const std::string e = EscapeComponent(text);
        std::string body = "&" + e + "=" + e + "&c.&" + e + "=" + e + "&" + e + ".&inner=" + e + "&." + e + "&.c";
        Hit hit = DecodeHit(kPrefix + body + "&AQE=1");
        EXPECT_EQ(hit.variables, (StringMap{{text, text}}));
        EXPECT_EQ(hit.contextData, (StringMap{{text, text}, {text + ".inner", text}}));
    }
}

TEST(CollectorDecoder, AudienceQueryKeepsOrderAndSkipsEmptyParameters) {
    QueryPairs expected{{"c_a_b", "1"}, {"c_x", "y z"}, {"flag", ""}, {"d_ptfm", "win8"}};
    EXPECT_EQ(ParseQuery("c_a_b=1&&c_x=y%20z&flag&d_ptfm=win8"), expected);
    EXPECT_THROW(ParseQuery("c_a=%G1"), MalformedRequest);
}

TEST(CollectorHitStore, KeepsTheNewestAndNumbersEveryArrival) {
    HitStore store(3);
    for (int i = 0; i < 5; ++i) store.Add(ReceivedHit{0, 0, 200, "/hit" + std::to_string(i), {}});
    EXPECT_EQ(store.TotalReceived(), 5u);
    EXPECT_EQ(store.Size(), 3u);
    std::vector<std::string> urls;
    for (const auto& hit : store.NewestFirst()) urls.push_back(std::to_string(hit.id) + hit.url);
    EXPECT_EQ(urls, (std::vector<std::string>{"5/hit4", "4/hit3", "3/hit2"}));
    ASSERT_EQ(store.NewestFirst(4).size(), 1u);
    EXPECT_EQ(store.NewestFirst(4)[0].id, 5u);
    EXPECT_TRUE(store.NewestFirst(5).empty());
}

TEST(CollectorRender, TerminalBlockCannotBeSteeredByValues) {
    ReceivedHit hit{7, 1714564800123, 500, "/x", {}};
    hit.hit.reportSuites = "rs";
    hit.hit.platform = "WINU-4.0.0";
    hit.hit.cacheBuster = "1";
    hit.hit.variables = {{"ts", "1714564800"}, {"pageName", "a\x1B[2J\nb"}};
    hit.hit.contextData = {{"k\xC3\xBC", "v"}, {"long", "w"}};
    EXPECT_EQ(HitBlock(hit),
              "hit #7  received 2024-05-01 12:00:00 UTC  answered 500\n"
              "  report suite rs  (WINU-4.0.0, s1)\n"
              "  ts           1714564800 (2024-05-01 12:00:00 UTC)\n"
              "  variables\n"
              "    pageName = a\\x1B[2J\\nb\n"
              "    ts       = 1714564800\n"
              "  context data\n"
              "    k\xC3\xBC   = v\n"
              "    long = w\n"
              "\n");
    EXPECT_EQ(HitJson(hit)["ts"], 1714564800);
    hit.hit.variables["ts"] = "12a";
    EXPECT_FALSE(HitJson(hit).contains("ts"));
}

TEST(CollectorOptions, ReadsFlagsAndRefusesBadOnes) {
    CollectorOptions options = ParseArguments({"--port", "0", "--json", "--status", "503", "--delay-ms", "250",
                                               "--aid", "X", "--dest", "http://a/", "--dest", "http://b/",
                                               "--keep", "5", "--host", "::1"});
    EXPECT_EQ(options.port, 0);
    EXPECT_TRUE(options.json);
    EXPECT_EQ(options.hitStatus, 503);
    EXPECT_EQ(options.hitDelayMillis, 250);
    EXPECT_EQ(options.aid, "X");
    EXPECT_EQ(options.destinations, (std::vector<std::string>{"http://a/", "http://b/"}));
    EXPECT_EQ(options.keep, 5u);
    EXPECT_EQ(options.host, "::1");
    for (const auto& bad : std::vector<std::vector<std::string>>{
             {"--port"}, {"--port", "65536"}, {"--port", "8x"}, {"--status", "99"}, {"--delay-ms", "-1"},
             {"--keep", "0"}, {"--host", ""}, {"--verbose"}}) {
        EXPECT_THROW(ParseArguments(bad), UsageError) << bad[0];
    }
}

}  // namespace
}  // namespace velmora::collector

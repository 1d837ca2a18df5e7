// The collector's hit decoder, which the suite reads hits back with, and its terminal block. The
// program itself, its server and its JSON lines, runs in the demo and package tests.
#include "analytics/hit_builder.h"
#include "core/escape.h"
#include "hit_decoder.h"
#include "render.h"

#include <velmora/Version.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace velmora::collector {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

const std::string kPlatform = "WINU-" VELMORA_VERSION_STRING;

// What the library writes comes back byte for byte; groups nested in the context group (which
// other senders write) give dotted keys.
TEST(CollectorDecoder, ReadsBackTrickyKeysAndValuesAsTheLibraryWritesThem) {
    std::string ascii;
    for (int c = 0; c < 128; ++c) ascii.push_back(static_cast<char>(c));
    StringMap variables, context;
    std::string group;
    for (const std::string& text : {ascii, std::string("a b&c=d"), std::string("%41+"), std::string("&c."),
                                    std::string("&.c"), std::string("K\xC3\xB6ln \xE6\x97\xA5\xF0\x9F\x8E\x89")}) {
        std::string segment = "k" + text;  // its dots would start groups of their own
        segment.erase(std::remove(segment.begin(), segment.end(), '.'), segment.end());
        variables[text] = text;
        context[segment] = context["group." + segment] = text;
        group += "&" + EscapeComponent(segment) + "=" + EscapeComponent(text);
    }
    HitBuilder builder(0);
    Hit hit = DecodeHit("/b/ss/rs/0/" + kPlatform + "/" + builder.Build({}, variables, 0, HitFacts{}));
    for (const auto& [key, value] : variables) EXPECT_EQ(hit.variables[key], value);
    hit = DecodeHit("/b/ss/rs/0/" + kPlatform + "/s1?AQB=1&ndh=1&c." + group + "&group." + group + "&.group&.c&AQE=1");
    EXPECT_EQ(hit.contextData, context);
}

// Either the values read or, for a malformed hit, words of the reason it is refused.
TEST(CollectorDecoder, ReadsThePathOtherGroupsAndEmptyValuesAndRefusesMalformedHitsWithTheReason) {
    const std::string p = "/b/ss/rs1,rs2/0/" + kPlatform + "/s4218470?AQB=1&ndh=1";
    struct Case { std::string target; StringMap variables, context; const char* reason = nullptr; };
    const Case cases[] = {
        {p + "&q=a+b&AQE=1", {{"q", "a+b"}}, {}},  // the library writes a blank as "%20"
        {p + "&vid=&c.&k=&.c&AQE=1", {{"vid", ""}}, {{"k", ""}}},
        {p + "&aid=1&c.&x=2&.c&list.&x=1&.list&a.b=3&AQE=1", {{"aid", "1"}, {"list.x", "1"}, {"a.b", "3"}}, {{"x", "2"}}},
        {p + "&AQE=1", {}, {}},
        // Bytes that are not UTF-8 are kept as sent; only what is shown replaces them.
        {p + "&x=%FF%C0%AF&c.&k%ED%A0%80=%E2%82&.c&AQE=1", {{"x", "\xFF\xC0\xAF"}}, {{"k\xED\xA0\x80", "\xE2\x82"}}},
        {p + "&x=%zz&AQE=1", {}, {}, "percent-encoding"}, {p + "&x=%4&AQE=1", {}, {}, "percent-encoding"},
        {"/b/ss/r/0/" + kPlatform + "/s1", {}, {}, "query"}, {"/b/ss/r/0/" + kPlatform + "/s1?ndh=1&AQE=1", {}, {}, "AQB=1"},
        {p + "&x=1", {}, {}, "AQE=1"}, {p + "&AQE=1&x=1", {}, {}, "AQE=1"}, {p + "&c.&a=1&AQE=1", {}, {}, "never closed"},
        {p + "&c.&a.&b=1&.c&.a&AQE=1", {}, {}, "closes group \"a\""}, {p + "&.c&AQE=1", {}, {}, "never opened"},
        {p + "&&x=1&AQE=1", {}, {}, "empty parameter"}, {p + "&flag&AQE=1", {}, {}, "without \"=\""},
        {p + "&=1&AQE=1", {}, {}, "empty name"}, {"/b/ss//0/" + kPlatform + "/s1?AQB=1&AQE=1", {}, {}, "path"},
        {"/b/ss/r/1/" + kPlatform + "/s1?AQB=1&AQE=1", {}, {}, "path"}, {"/b/ss/r/0/" + kPlatform + "/s12x?AQB=1&AQE=1", {}, {}, "s<number>"}};
    for (const Case& c : cases) {
        if (c.reason) {
            EXPECT_THAT([&] { DecodeHit(c.target); }, ThrowsMessage<MalformedRequest>(HasSubstr(c.reason))) << c.target;
            continue;
        }
        Hit hit = DecodeHit(c.target);
        EXPECT_EQ(std::tie(hit.variables, hit.contextData), std::tie(c.variables, c.context)) << c.target;
        EXPECT_EQ(hit.reportSuites + " " + hit.platform + " " + hit.cacheBuster, "rs1,rs2 " + kPlatform + " 4218470");
    }
}

// The block a terminal shows: a value cannot move the cursor or split the block.
TEST(CollectorRender, PrintsAHitAsABlockThatItsValuesCannotSteer) {
    const std::string target = "/b/ss/demo.rsid/0/" + kPlatform + "/s1?AQB=1&ndh=1&ts=1714564800&pageName=a%1B%5B2J%0Ab"
                               "&c.&k%C3%BC=v%E2%82&long=w&.c&AQE=1";
    EXPECT_EQ(HitBlock({7, 1714564800000, 503, target, DecodeHit(target)}),
              "hit #7  received 2024-05-01 12:00:00 UTC  answered 503\n"
              "  report suite demo.rsid  (" + kPlatform + ", s1)\n"
              "  ts           1714564800 (2024-05-01 12:00:00 UTC)\n"
              "  variables\n"
              "    pageName = a\\x1B[2J\\nb\n"
              "    ts       = 1714564800\n"
              "  context data\n"
              "    k\xC3\xBC   = v\xEF\xBF\xBD\n"
              "    long = w\n\n");
}

}  // namespace
}  // namespace velmora::collector

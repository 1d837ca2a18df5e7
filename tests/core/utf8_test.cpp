#include "analytics/values.h"
#include "core/utf8.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

// Each maximal ill-formed part becomes one U+FFFD; what is valid stays as it is.
TEST(Utf8, ReplacesEachIllFormedPartAndKeepsValidText) {
    const std::string r = "\xEF\xBF\xBD", valid = "\xC3\xA9 \xE2\x82\xAC \xEF\xBF\xBF \xF0\x9F\x8E\x89 \xF4\x8F\xBF\xBF";
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {std::string("ascii ~\x7F\0", 9), std::string("ascii ~\x7F\0", 9)},
        {valid, valid},
        {"\xC0\xAF|\xC1\xBF", r + r + "|" + r + r},               // overlong two-byte forms
        {"\xE0\x80\xAF|\xF0\x8F\xBF\xBF", r + r + r + "|" + r + r + r + r},  // overlong three- and four-byte
        {"\xED\xA0\x80|\xED\xBF\xBF|\xED\x9F\xBF", r + r + r + "|" + r + r + r + "|\xED\x9F\xBF"},  // surrogates
        {"a\xE2\x82", "a" + r}, {"a\xF0\x9F\x8E", "a" + r}, {"\xC3", r},  // cut short at the end
        {"\xF0\x9F\x8Ex\xE2\x82\xC3\xA9", r + "x" + r + "\xC3\xA9"},  // cut short before another character
        {"\x80x\xBF\xBF", r + "x" + r + r},                      // lone continuation bytes
        {"\xF4\x90\x80\x80|\xF5\x80|\xFF\xFE", r + r + r + r + "|" + r + r + "|" + r + r},  // above U+10FFFF
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(ToValidUtf8(text), expected) << text;
        EXPECT_EQ(IsValidUtf8(text), text == expected) << text;
    }
    // Context data enters through the value translation: keys and string values alike.
    EXPECT_EQ(TranslateContextData({{"k\xFF", std::string("v\xC0")}, {"n", 2}}, Logger()),
              (StringMap{{"k" + r, "v" + r}, {"n", "2"}}));
}

}  // namespace
}  // namespace velmora

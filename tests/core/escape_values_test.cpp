#include "analytics/values.h"
#include "core/escape.h"

#include <gtest/gtest.h>

#include <limits>

namespace velmora {
namespace {

TEST(EscapeComponent, KeepsOnlyUnreservedCharacters) {
    EXPECT_EQ(EscapeComponent("AZaz09-._~"), "AZaz09-._~");
    EXPECT_EQ(EscapeComponent("x y&z=1/2?#+"), "x%20y%26z%3D1%2F2%3F%23%2B");
    EXPECT_EQ(EscapeComponent("AMACTION:Buy"), "AMACTION%3ABuy");
    EXPECT_EQ(EscapeComponent("\xC3\xBC"), "%C3%BC");
    EXPECT_EQ(EscapeComponent(std::string("a\0b", 3)), "a%00b");
}

TEST(ValueTranslation, WritesEachAcceptedTypeAndSkipsTheRest) {
    Logger log;
    Velmora::ObjectMap input{
        {"string", std::string("text")},
        {"int16", std::int16_t{-7}},
        {"int32", std::int32_t{2147483647}},
        {"int64", std::int64_t{-9007199254740993}},
        {"uint16", std::uint16_t{65535}},
        {"uint32", std::uint32_t{4294967295u}},
        {"uint64", std::numeric_limits<std::uint64_t>::max()},
        {"float", 0.1f},
        {"double", 1.5},
        {"double-long", 0.1 + 0.2},
        {"true", true},
        {"false", false},
        {"null", nullptr},
        {"date", Velmora::DateTime{}},
    };
    StringMap expected{
        {"string", "text"},         {"int16", "-7"},        {"int32", "2147483647"},
        {"int64", "-9007199254740993"}, {"uint16", "65535"}, {"uint32", "4294967295"},
        {"uint64", "18446744073709551615"}, {"float", "0.1"}, {"double", "1.5"},
        {"double-long", "0.30000000000000004"}, {"true", "true"}, {"false", "false"},
    };
    EXPECT_EQ(TranslateContextData(input, log), expected);
}

TEST(ValueTranslation, AStringLiteralStaysAString) {
    Velmora::Object value = "yes";
    EXPECT_TRUE(std::holds_alternative<std::string>(value));
    EXPECT_EQ(ValueText(value), "yes");
    Velmora::ObjectMap map{{"k", "literal"}};
    EXPECT_TRUE(std::holds_alternative<std::string>(map["k"]));
    EXPECT_EQ(ValueText(Velmora::Object{std::in_place_type<bool>, true}), "true");
}

}  // namespace
}  // namespace velmora

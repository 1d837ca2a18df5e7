#include "core/log.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using test::LogCapture;

TEST(Logger, GatesDebugAndWarningButNeverErrors) {
    LogCapture capture;
    Logger log(capture.Sink());
    log.Debug("Config - Analytics not configured");
    log.Warning("Analytics - Invalid privacy status was ignored (%d)", 7);
    log.Error("Config - Unable to parse local config file (empty or malformed json)");
    EXPECT_EQ(capture.Lines(),
              std::vector<std::string>{"Velmora Error:Config - Unable to parse local config file (empty or malformed json)"});

    capture.Clear();
    log.SetDebugEnabled(true);
    log.Debug("Config - Analytics not configured");
    log.Warning("Analytics - Invalid privacy status was ignored (%d)", 7);
    EXPECT_EQ(capture.Lines(), (std::vector<std::string>{
                                   "Velmora Debug:Config - Analytics not configured",
                                   "Velmora Warning:Analytics - Invalid privacy status was ignored (7)"}));
}

TEST(Logger, HandsEachLineOverInOneCallWithALineFeed) {
    std::vector<std::string> calls;
    Logger log([&](std::string_view line) { calls.emplace_back(line); });
    log.Error("A - %s and %ld", "x", 5L);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0], "Velmora Error:A - x and 5\n");
}

TEST(Logger, TruncatesLongMessagesWithoutSplittingACharacter) {
    std::vector<std::string> calls;
    Logger log([&](std::string_view line) { calls.emplace_back(line); });
    std::string ascii(20000, 'x');
    log.Error("%s", ascii.c_str());
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].size(), std::string("Velmora Error:").size() + Logger::kMaxMessage - 1 + 1);

    std::string wide;
    while (wide.size() < 20000) wide += "\xC3\xBC";  // ü
    calls.clear();
    log.Error("x%s", wide.c_str());
    std::string message = calls[0].substr(14, calls[0].size() - 15);
    EXPECT_LT(message.size(), Logger::kMaxMessage);
    EXPECT_EQ(message.back(), '\xBC') << "a truncated line ends on a whole character";
}

TEST(Logger, FormatMapForLog) {
    EXPECT_EQ(FormatMapForLog({}), "");
    EXPECT_EQ(FormatMapForLog({{"b", "2"}, {"a", "1"}}), "\n    a = 1\n    b = 2");
}

TEST(Logger, SinkThatThrowsIsContained) {
    Logger log([](std::string_view) { throw std::runtime_error("sink down"); });
    EXPECT_NO_THROW(log.Error("Config - anything"));
}

}  // namespace
}  // namespace velmora

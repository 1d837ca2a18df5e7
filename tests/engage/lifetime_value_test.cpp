#include "engage_support.h"
#include "lifecycle/lifetime_value.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <optional>

namespace velmora {
namespace {

using test::LogCapture;
using test::RecordingTracker;
using test::TempDir;

struct LifetimeValueTest : ::testing::Test {
    LifetimeValueTest() { log.SetDebugEnabled(true); }
    TempDir dir;
    LogCapture capture;
    Logger log{capture.Sink()};
    SettingsStore settings{dir.path(), log};
    RecordingTracker tracker;
    LifetimeValue value{settings, tracker, log};
};

TEST_F(LifetimeValueTest, AccumulatesInSinglePrecisionFromTheRoundedStoredText) {
    struct Step {
        float amount;
        std::optional<std::string> sent;  // "a.ltv.amount" of the hit; none: no hit
        std::string stored;
        std::vector<std::string> lines;
    };
    const Step steps[] = {
        {12.5f, "12.50", "12.50", {}},
        {0.004f, "12.50", "12.50", {}},  // 12.504 is stored, and sent, rounded
        {0.0f, "12.50", "12.50", {}},    // zero is accepted
        {-1.0f, std::nullopt, "12.50",
         {"Velmora Warning:Analytics - TrackLifetimeValueIncrease failed.  Amount must be positive, invalid amount "
          "specified '-1.00'"}},
        {0.006f, "12.51", "12.51", {}},  // continues from 12.50, not from 12.504
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.amount);
        tracker.Clear();
        capture.Clear();
        value.Increase(step.amount, {{"shop", "main"}, {"a.ltv.amount", "caller"}});
        const auto hits = tracker.Hits();
        if (step.sent) {
            ASSERT_EQ(hits.size(), 1u);
            EXPECT_TRUE(hits[0].internal);
            EXPECT_EQ(hits[0].name, "LifetimeValueIncrease");
            EXPECT_EQ(hits[0].timestamp, 0);
            EXPECT_EQ(hits[0].data, (StringMap{{"a.ltv.amount", *step.sent}, {"shop", "main"}}));
        } else {
            EXPECT_TRUE(hits.empty());
        }
        EXPECT_EQ(settings.Lookup(kLifetimeValueKey), SettingValue(step.stored));
        EXPECT_EQ(capture.Lines(), step.lines);
    }
    EXPECT_EQ(value.GetLifetimeValue(), 12.51f);
    EXPECT_EQ(value.GetLifetimeValueAsDouble(), 12.51);
}

TEST_F(LifetimeValueTest, AddsInSinglePrecision) {
    // 2^24 + 1 is not a float: the sum stays at 2^24, where double arithmetic would not.
    settings.Insert(kLifetimeValueKey, std::string("16777216.00"));
    value.Increase(1.0f, {});
    EXPECT_EQ(settings.Lookup(kLifetimeValueKey), SettingValue(std::string("16777216.00")));
}

TEST_F(LifetimeValueTest, StoredTextIsReadAsItsNumericPrefix) {
    struct Row {
        std::optional<SettingValue> stored;
        float read;
        std::string afterIncrease;
    };
    const Row rows[] = {
        {std::nullopt, 0.0f, "1.00"},
        {SettingValue(std::string("abc")), 0.0f, "1.00"},
        {SettingValue(std::string("3.5xyz")), 3.5f, "4.50"},
        {SettingValue(std::string("")), 0.0f, "1.00"},
        {SettingValue(std::int32_t{9}), 0.0f, "1.00"},  // not a text
    };
    for (const auto& [stored, expected, afterIncrease] : rows) {
        settings.Remove(kLifetimeValueKey);
        if (stored) settings.Insert(kLifetimeValueKey, *stored);
        EXPECT_EQ(value.GetLifetimeValue(), expected);
        tracker.Clear();
        value.Increase(1.0f, {});
        ASSERT_EQ(tracker.Hits().size(), 1u);
        EXPECT_EQ(tracker.Hits()[0].data.at("a.ltv.amount"), afterIncrease);
    }
}

}  // namespace
}  // namespace velmora

#include "engage_support.h"
#include "lifecycle/lifetime_value.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(LifetimeValue, AccumulatesInSinglePrecisionFromTheRoundedStoredText) {
    test::TempDir dir;
    test::LogCapture capture;
    Logger log(capture.Sink());
    log.SetDebugEnabled(true);
    SettingsStore settings(dir.path(), log);
    test::RecordingTracker tracker;
    LifetimeValue value(settings, tracker, log);

    // amount, "a.ltv.amount" sent ("" = no hit), stored text
    const std::tuple<float, std::string, std::string> steps[] = {
        {12.5f, "12.50", "12.50"},
        {0.004f, "12.50", "12.50"},  // 12.504 is stored, and sent, rounded
        {0.0f, "12.50", "12.50"},    // zero is accepted
        {-1.0f, "", "12.50"},
        {0.006f, "12.51", "12.51"},  // continues from 12.50, not from 12.504
    };
    for (const auto& [amount, sent, stored] : steps) {
        tracker.hits.clear();
        capture.Clear();
        value.Increase(amount, {{"shop", "main"}, {"a.ltv.amount", "caller"}});
        if (sent.empty()) {
            EXPECT_TRUE(tracker.Hits().empty());
            EXPECT_EQ(capture.Lines(), std::vector<std::string>{
                                           "Velmora Warning:Analytics - TrackLifetimeValueIncrease failed.  Amount "
                                           "must be positive, invalid amount specified '-1.00'"});
        } else {
            ASSERT_EQ(tracker.Hits().size(), 1u);
            const auto hit = tracker.Hits()[0];
            EXPECT_TRUE(hit.internal);
            EXPECT_EQ(hit.name, "LifetimeValueIncrease");
            EXPECT_EQ(hit.timestamp, 0);
            EXPECT_EQ(hit.data, (StringMap{{"a.ltv.amount", sent}, {"shop", "main"}}));
        }
        EXPECT_EQ(settings.Lookup(kLifetimeValueKey), SettingValue(stored)) << amount;
    }
    EXPECT_EQ(value.GetLifetimeValue(), 12.51f);
    EXPECT_EQ(value.GetLifetimeValueAsDouble(), 12.51);

    // 2^24 + 1 is no float: the total stays where double arithmetic would move on.
    settings.Insert(kLifetimeValueKey, std::string("16777216.00"));
    value.Increase(1.0f, {});
    EXPECT_EQ(settings.Lookup(kLifetimeValueKey), SettingValue(std::string("16777216.00")));
    // Unreadable totals count as their numeric prefix, or 0.
    for (const auto& [stored, read] : {std::pair<SettingValue, float>{std::string("3.5xyz"), 3.5f},
                                       {std::string("abc"), 0.0f}, {std::int32_t{9}, 0.0f}}) {
        settings.Insert(kLifetimeValueKey, stored);
        EXPECT_EQ(value.GetLifetimeValue(), read);
    }
}

}  // namespace
}  // namespace velmora

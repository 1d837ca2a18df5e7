#include "lifetime_value/lifetime_value.h"
#include "support/application.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velmora::test {
namespace {

TEST_F(Application, LifetimeValueAccumulatesInSinglePrecisionFromTheRoundedStoredText) {
    const char *kSent = "LifetimeValueIncrease", *kAmount = "a.ltv.amount";
    Launch();
    LifetimeValue value(Settings(), tracker, env.runtime->Log());
    // amount, then the total stored and sent as "a.ltv.amount"; 12.504 is stored rounded
    for (const auto& [amount, total] : {std::pair<float, std::string>{12.5f, "12.50"}, {0.004f, "12.50"},
                                        {0.0f, "12.50"}, {-1.0f, "12.50"}, {0.006f, "12.51"}}) {
        if (amount >= 0) EXPECT_CALL(tracker, TrackInternalAction(kSent, StringMap{{kAmount, total}, {"s", "m"}}, 0));
        value.Increase(amount, {{"s", "m"}, {kAmount, "caller"}});
        EXPECT_EQ(LookupText(Settings(), kLifetimeValueKey), total) << amount;
    }
    EXPECT_EQ(env.log.Lines(), std::vector<std::string>{"Velmora Warning:Analytics - TrackLifetimeValueIncrease failed."
                                                        "  Amount must be positive, invalid amount specified '-1.00'"});
    EXPECT_EQ(value.GetLifetimeValueAsDouble(), 12.51);
    // 2^24 + 1 is no float: the total stays where double arithmetic would move on.
    Settings().Insert(kLifetimeValueKey, std::string("16777216.00"));
    EXPECT_CALL(tracker, TrackInternalAction(kSent, StringMap{{kAmount, "16777216.00"}}, 0));
    value.Increase(1.0f, {});
    EXPECT_EQ(LookupText(Settings(), kLifetimeValueKey), "16777216.00");
    Settings().Insert(kLifetimeValueKey, std::int32_t{9});  // unreadable: 0
    EXPECT_EQ(value.GetLifetimeValue(), 0.0f);
}

}  // namespace
}  // namespace velmora::test

#include "media/media_item.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

namespace velmora {
namespace {

TEST(MediaMilestones, ParseOrRaiseTheStandardConversionError) {
    // `error`: what() of the std::invalid_argument or std::out_of_range raised instead.
    struct Case { const char* text; bool offsets; double length; std::vector<std::int32_t> list; const char* error; };
    const Case cases[] = {
        {"25,50,25,150,0", false, 100, {0, 25, 50}, nullptr},
        {" 75, 10x,+5,100,101,-1", false, 100, {0, 5, 10, 75, 100}, nullptr},
        {"10,20,999", true, 60, {0, 10, 20}, nullptr},
        {"10,20,999", true, -1, {0, 10, 20, 999}, nullptr},
        {"60,61,0,-4", true, 60, {0, 60}, nullptr},
        {"31,30", true, 30.5, {0, 30}, nullptr},
        {"2147483647", true, -1, {0, 2147483647}, nullptr},
        {"25,,50", true, -1, {}, "invalid stoi argument"},
        {"10,2147483648", true, -1, {}, "stoi argument out of range"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        try {
            EXPECT_EQ(c.offsets ? ParseOffsetMilestones(c.text, c.length) : ParseMilestones(c.text), c.list);
            EXPECT_EQ(c.error, nullptr);
        } catch (const std::logic_error& e) {  // the base of both
            EXPECT_STREQ(e.what(), c.error);
        }
    }
}

// A play at 0 s, then a click five seconds later at `offset`.
TEST(MediaSegments, FollowThePositionAndTheFlags) {
    struct Case {
        double length; const char *milestones, *offsets; bool byMilestones, byOffsets; double offset;
        std::string segment; std::int32_t segmentNum; bool complete; double played;
    };
    const Case cases[] = {
        {100, "25,50", "", true, false, 30, "M:25-50", 2, false, 30},
        {100, "25,50", "", true, false, 60, "M:50-100", 3, false, 60},
        {-1, "", "10,20", false, true, 25, "O:20-E", 3, false, 25},
        {30.5, "", "10", false, true, 15, "O:10-30", 2, false, 15},
        {100, "50", "10", true, true, 20, "M:0-50", 1, false, 20},  // the percentage wins
        {100, "25,50", "", true, false, 150, "M:50-100", 3, true, 150},
        {100, "", "10", false, true, -5, "O:0-10", 1, false, 5},  // negative: where the clock says
        {-1, "25", "", true, false, 50, "", 0, false, 50},          // no percentage without a length
        {100, "25", "10", true, true, std::nan(""), "", 0, false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.length) + c.milestones + "/" + c.offsets + " at " + std::to_string(c.offset));
        MediaItem item;
        item.length = c.length;
        item.milestones = ParseMilestones(c.milestones);
        item.offsetMilestones = ParseOffsetMilestones(c.offsets, c.length);
        item.segmentByMilestones = c.byMilestones;
        item.segmentByOffsetMilestones = c.byOffsets;
        NewSnapshot(item, 1000);
        UpdateState(item, kMediaPlay, 0);
        NewSnapshot(item, 1005);
        UpdateState(item, kMediaClick, c.offset);
        const MediaState& s = *item.current;
        EXPECT_EQ(std::tie(s.segment, s.segmentNum, s.complete, s.timePlayed),
                  std::tie(c.segment, c.segmentNum, c.complete, c.played));
    }
}

}  // namespace
}  // namespace velmora

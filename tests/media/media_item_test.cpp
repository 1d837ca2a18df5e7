#include "media/media_item.h"
#include "media/media_text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

namespace velmora {
namespace {

// ---------------------------------------------------------------- milestone lists

enum class Failure { kNone, kInvalid, kRange };

struct MilestoneCase {
    const char* name;
    const char* text;
    bool offsets;
    double length;
    std::vector<std::int32_t> expected;
    Failure failure = Failure::kNone;
};

void PrintTo(const MilestoneCase& c, std::ostream* os) { *os << c.name; }

class MilestoneParsing : public ::testing::TestWithParam<MilestoneCase> {};

TEST_P(MilestoneParsing, GivesTheAcceptedValuesOrTheConversionError) {
    const auto& c = GetParam();
    auto parse = [&] { return c.offsets ? ParseOffsetMilestones(c.text, c.length) : ParseMilestones(c.text); };
    try {
        EXPECT_EQ(parse(), c.expected);
        EXPECT_EQ(c.failure, Failure::kNone);
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(c.failure, Failure::kInvalid);
        EXPECT_STREQ(e.what(), "invalid stoi argument");
    } catch (const std::out_of_range& e) {
        EXPECT_EQ(c.failure, Failure::kRange);
        EXPECT_STREQ(e.what(), "stoi argument out of range");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lists, MilestoneParsing,
    ::testing::Values(
        MilestoneCase{"RepeatsZeroAndAboveHundredDropped", "25,50,25,150,0", false, 100, {0, 25, 50}},
        MilestoneCase{"EmptyTextEmptyList", "", false, 100, {}},
        MilestoneCase{"BlanksSignsAndTrailingText", " 75, 10x,+5,100,101,-1", false, 100, {0, 5, 10, 75, 100}},
        MilestoneCase{"OffsetsWithinKnownLength", "10,20,999", true, 60, {0, 10, 20}},
        MilestoneCase{"OffsetsWithUnknownLength", "10,20,999", true, -1, {0, 10, 20, 999}},
        MilestoneCase{"OffsetAtLengthKeptZeroAndNegativeDropped", "60,61,0,-4", true, 60, {0, 60}},
        MilestoneCase{"OffsetAgainstFractionalLength", "31,30", true, 30.5, {0, 30}},
        MilestoneCase{"LargestOffset", "2147483647", true, -1, {0, 2147483647}},
        MilestoneCase{"LettersFail", "50,25,abc", false, 100, {}, Failure::kInvalid},
        MilestoneCase{"EmptyPieceFails", "25,,50", true, -1, {}, Failure::kInvalid},
        MilestoneCase{"BeyondThirtyTwoBits", "99999999999", false, 100, {}, Failure::kRange},
        MilestoneCase{"JustAboveInt32", "10,2147483648", true, -1, {}, Failure::kRange}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------- names

TEST(MediaNameCleaner, RemovesLineBreaksAndTheMarkerOnly) {
    const MediaNameCleaner cleaner;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"a\r\nb--**--c", "abc"},
        {"", ""},
        {"\n\r--**--", ""},
        {"a--**--**--b", "a**--b"},  // replacements do not overlap
        {"a--*--b-**-c", "a--*--b-**-c"},
        {"Mov ie\t", "Mov ie\t"},
        {"Fil\xC3\xA9\n", "Fil\xC3\xA9"},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(cleaner.Clean(in), out) << in;
}

TEST(MediaText, WholeNumbersRoundDownWithoutSignOrExponent) {
    for (auto [value, text] : {std::pair{15.99, "15"}, {-0.0, "0"}, {-2.5, "-3"}, {1e15 + 0.5, "1000000000000000"}}) {
        EXPECT_EQ(WholeNumberText(value), text);
    }
}

// ---------------------------------------------------------------- state updates

MediaItem MakeItem(double length, const char* milestones, const char* offsets, bool byMilestones, bool byOffsets,
                   std::int32_t trackSeconds = 0) {
    MediaItem item;
    item.name = "Movie";
    item.playerName = "Player";
    item.length = length;
    item.milestones = ParseMilestones(milestones);
    item.offsetMilestones = ParseOffsetMilestones(offsets, length);
    item.segmentByMilestones = byMilestones && !item.milestones.empty();
    item.segmentByOffsetMilestones = byOffsets && !item.offsetMilestones.empty();
    item.trackSeconds = trackSeconds;
    return item;
}

struct SegmentCase {
    const char* name;
    double length;
    const char* milestones;
    const char* offsets;
    bool byMilestones, byOffsets;
    double offset;
    std::string segment;
    std::int32_t segmentNum, milestone, offsetMilestone;
    double percent;
    bool complete;
};

void PrintTo(const SegmentCase& c, std::ostream* os) { *os << c.name; }

class Segments : public ::testing::TestWithParam<SegmentCase> {};

TEST_P(Segments, FollowThePositionAndTheFlags) {
    const auto& c = GetParam();
    MediaItem item = MakeItem(c.length, c.milestones, c.offsets, c.byMilestones, c.byOffsets);
    NewSnapshot(item, 1000);
    UpdateState(item, kMediaPlay, c.offset);
    const MediaState& s = *item.current;
    EXPECT_EQ(s.segment, c.segment);
    EXPECT_EQ(s.segmentNum, c.segmentNum);
    EXPECT_EQ(s.milestone, c.milestone);
    EXPECT_EQ(s.offsetMilestone, c.offsetMilestone);
    EXPECT_DOUBLE_EQ(s.percent, c.percent);
    EXPECT_EQ(s.complete, c.complete);
    EXPECT_EQ(s.offset, c.offset);  // the reported position, never clamped
}

INSTANTIATE_TEST_SUITE_P(
    Names, Segments,
    ::testing::Values(
        SegmentCase{"PercentInMiddle", 100, "25,50", "", true, false, 30, "M:25-50", 2, 25, 0, 30, false},
        SegmentCase{"PercentLastSegment", 100, "25,50", "", true, false, 60, "M:50-100", 3, 50, 0, 60, false},
        SegmentCase{"OffsetsUnknownLength", -1, "", "10,20", false, true, 25, "O:20-E", 3, 0, 20, 0, false},
        SegmentCase{"OffsetsFractionalLength", 30.5, "", "10", false, true, 15, "O:10-30", 2, 0, 10,
                    15 / 30.5 * 100, false},
        SegmentCase{"PercentWinsOverOffsets", 100, "50", "10", true, true, 20, "M:0-50", 1, 0, 10, 20, false},
        SegmentCase{"PastTheEnd", 100, "25,50", "", true, false, 150, "M:50-100", 3, 50, 0, 100, true},
        SegmentCase{"NegativePositionHasNoOffsetMilestone", 100, "", "10", false, true, -5, "", 0, 0, 0, 0, false},
        SegmentCase{"UnknownLengthHasNoPercent", -1, "25", "", true, false, 50, "", 0, 0, 0, 0, false},
        SegmentCase{"MilestonesWithoutSegments", 100, "25", "10", false, false, 30, "", 0, 25, 10, 30, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(UpdateState, EventsAdvanceTimeAndNameWhatHappened) {
    MediaItem item = MakeItem(100, "50", "10,20", false, false, /*trackSeconds=*/20);
    struct Step {
        std::int32_t at;
        std::int32_t event;
        double offset;
        double expectOffset, expectPlayed;
        const char* expectEvent;
    };
    const std::vector<Step> steps = {
        {1000, kMediaPlay, 0, 0, 0, "PLAY"},
        {1012, kMediaMonitor, -1, 12, 12, "OFFSET_MILESTONE"},
        {1013, kMediaMonitor, -1, 13, 13, "MONITOR"},
        {1013, kMediaPlay, 60, 60, 13, "MILESTONE"},  // a seek is not time played
        {1014, kMediaStop, 30, 30, 13, "STOP"},       // going back neither
        {1020, kMediaClose, -1, 36, 19, "CLOSE"},     // the wall clock moves a stopped item on
        {1021, kMediaMonitor, -1, 37, 20, "SECONDS"},
        {1022, kMediaClick, 120, 120, 103, "CLOSE"},  // at the end every event is a close
    };
    for (const auto& step : steps) {
        NewSnapshot(item, step.at);
        UpdateState(item, step.event, step.offset);
        const MediaState& s = *item.current;
        SCOPED_TRACE(step.at);
        EXPECT_EQ(s.offset, step.expectOffset);
        EXPECT_EQ(s.timePlayed, step.expectPlayed);
        EXPECT_EQ(s.timePlayedSinceTrack, step.expectPlayed);  // nothing sent, so nothing reset
        EXPECT_EQ(s.mediaEvent, step.expectEvent);
        EXPECT_EQ(s.eventType, step.event);
        EXPECT_EQ(s.clicked, step.event == kMediaClick);
        EXPECT_EQ(s.timestamp, step.at);
    }
    EXPECT_TRUE(item.current->complete);
    EXPECT_EQ(item.previous->eventType, kMediaMonitor);
    EXPECT_TRUE(item.trackedEventKeys.empty());
}

TEST(UpdateState, NotANumberPositionNeitherCompletesNorCountsTime) {
    MediaItem item = MakeItem(100, "25", "10", true, true);
    NewSnapshot(item, 1000);
    UpdateState(item, kMediaPlay, 0);
    NewSnapshot(item, 1005);
    UpdateState(item, kMediaClick, std::nan(""));
    const MediaState& s = *item.current;
    EXPECT_FALSE(s.complete);
    EXPECT_EQ(s.timePlayed, 0);
    EXPECT_EQ(s.milestone, 0);
    EXPECT_EQ(s.segmentNum, 0);
    EXPECT_EQ(s.mediaEvent, "CLICK");
}

}  // namespace
}  // namespace velmora

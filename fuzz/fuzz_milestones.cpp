// Media milestone lists and the playback state built on them: any settings text and any sequence
// of events give ordered lists (or the conversion error), well-formed segments and no crash.
#include "media/media_item.h"
#include "numbers.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Ascending without repeats, opened by the 0 that only a non-empty text adds.
bool WellFormed(const std::vector<std::int32_t>& list, const std::string& text) {
    if (text.empty()) return list.empty();
    if (list.empty() || list.front() != 0) return false;
    return std::adjacent_find(list.begin(), list.end(), std::greater_equal<>()) == list.end();
}

bool SegmentWellFormed(const std::string& segment) {
    if (segment.empty()) return true;
    return segment.rfind("M:", 0) == 0 || segment.rfind("O:", 0) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const double settingsLength = ConsumeAnyFloat<double>(input);
    const std::string milestones = input.ConsumeRandomLengthString(64);
    const std::string offsets = input.ConsumeRandomLengthString(64);

    velmora::MediaItem item;
    item.name = "item";
    item.length = settingsLength > 0 ? settingsLength : -1;
    try {
        item.milestones = velmora::ParseMilestones(milestones);
        item.offsetMilestones = velmora::ParseOffsetMilestones(offsets, item.length);
    } catch (const std::invalid_argument&) {
        return 0;  // the open is refused with the conversion error
    } catch (const std::out_of_range&) {
        return 0;
    }
    if (!WellFormed(item.milestones, milestones) || !WellFormed(item.offsetMilestones, offsets)) __builtin_trap();
    if (!item.milestones.empty() && item.milestones.back() > 100) __builtin_trap();
    if (item.length != -1 && !item.offsetMilestones.empty() && item.offsetMilestones.back() > item.length) {
        __builtin_trap();
    }

    item.segmentByMilestones = input.ConsumeBool() && !item.milestones.empty();
    item.segmentByOffsetMilestones = input.ConsumeBool() && !item.offsetMilestones.empty();
    item.trackSeconds = input.ConsumeIntegralInRange<std::int32_t>(0, 100);
    // Clock readings of one run: never negative, so their differences fit.
    std::int32_t now = input.ConsumeIntegralInRange<std::int32_t>(0, std::numeric_limits<std::int32_t>::max());
    static constexpr std::int32_t kEvents[] = {velmora::kMediaClose,    velmora::kMediaPlay,  velmora::kMediaStop,
                                               velmora::kMediaMonitor,  velmora::kMediaTrack, velmora::kMediaComplete,
                                               velmora::kMediaClick};
    for (int event = 0; event < 32 && input.remaining_bytes() > 0; ++event) {
        const std::int32_t type = input.PickValueInArray(kEvents);
        const double offset = input.ConsumeBool() ? -1 : ConsumeAnyFloat<double>(input);
        const auto step = input.ConsumeIntegralInRange<std::int32_t>(0, 4000);
        now = now > std::numeric_limits<std::int32_t>::max() - step ? now : now + step;
        velmora::NewSnapshot(item, now);
        velmora::UpdateState(item, type, offset);
        const auto& current = *item.current;
        if (!SegmentWellFormed(current.segment)) __builtin_trap();
        if (current.percent < 0 || current.percent > 100) __builtin_trap();  // NaN compares false
        if (current.segmentNum < 0) __builtin_trap();
        (void)velmora::IsPlaying(item);
    }
    return 0;
}

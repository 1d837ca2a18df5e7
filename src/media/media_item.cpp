#include "media/media_item.h"

#include "media/media_text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace velmora {
namespace {

template <class Accept>
std::vector<std::int32_t> ParseList(const std::string& text, Accept accept) {
    std::vector<std::int32_t> list;
    if (text.empty()) return list;
    list.push_back(0);
    std::istringstream pieces(text);
    std::string piece;
    while (std::getline(pieces, piece, ',')) {
        const std::int32_t value = ParseLeadingInt32(piece);
        if (accept(value) && std::find(list.begin(), list.end(), value) == list.end()) list.push_back(value);
    }
    std::sort(list.begin(), list.end());
    return list;
}

}  // namespace

// Plain string work, not patterns: the application's thread cleans an ad's parent name, and
// compiling patterns there would cost more than the whole call may.
std::string CleanMediaName(const std::string& text) {
    std::string lines;
    lines.reserve(text.size());
    for (char c : text) {
        if (c != '\n' && c != '\r') lines += c;
    }
    static constexpr std::string_view kMarker = "--**--";
    std::string cleaned;
    cleaned.reserve(lines.size());
    for (std::size_t at = 0; at < lines.size();) {
        if (lines.compare(at, kMarker.size(), kMarker) == 0) {
            at += kMarker.size();
        } else {
            cleaned += lines[at++];
        }
    }
    return cleaned;
}

std::int32_t ParseLeadingInt32(const std::string& piece) {
    const char* begin = piece.c_str();
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(begin, &end, 10);
    if (end == begin) throw std::invalid_argument("invalid stoi argument");
    if (errno == ERANGE || value < std::numeric_limits<std::int32_t>::min() ||
        value > std::numeric_limits<std::int32_t>::max()) {
        throw std::out_of_range("stoi argument out of range");
    }
    return static_cast<std::int32_t>(value);
}

std::vector<std::int32_t> ParseMilestones(const std::string& text) {
    return ParseList(text, [](std::int32_t value) { return value >= 1 && value <= 100; });
}

std::vector<std::int32_t> ParseOffsetMilestones(const std::string& text, double length) {
    return ParseList(text, [length](std::int32_t value) { return value > 0 && (length == -1 || value <= length); });
}

std::optional<std::size_t> MilestoneIndex(const std::vector<std::int32_t>& milestones, double value) {
    std::optional<std::size_t> index;
    for (std::size_t i = 0; i < milestones.size(); ++i) {
        if (value >= milestones[i]) index = i;
    }
    return index;
}

bool IsPlaying(const MediaItem& item) {
    return item.current && item.current->eventType != kMediaClose && item.current->eventType != kMediaStop;
}

void NewSnapshot(MediaItem& item, std::int32_t nowSeconds) {
    item.previous = std::move(item.current);
    MediaState state;
    state.name = item.name;
    state.playerName = item.playerName;
    state.length = item.length;
    state.timestamp = nowSeconds;
    item.current = std::move(state);
}

void UpdateState(MediaItem& item, std::int32_t eventType, double offset) {
    MediaState& current = *item.current;
    const MediaState* previous = item.previous ? &*item.previous : nullptr;

    current.clicked = eventType == kMediaClick;
    current.ad = item.isAd;

    if (offset < 0 && previous != nullptr) {
        offset = previous->offset + static_cast<double>(current.timestamp - previous->timestamp);
    }

    // The snapshot keeps the reported position; only the percentage is taken from the clamped one.
    current.offset = offset;
    if (item.length != -1) {
        current.percent = std::clamp(offset / item.length * 100.0, 0.0, 100.0);
        if (current.percent >= 100) current.complete = true;
    } else {
        current.complete = false;
    }

    if (!item.offsetMilestones.empty()) {
        const auto& list = item.offsetMilestones;
        if (auto i = MilestoneIndex(list, current.offset)) {
            current.offsetMilestone = list[*i];
            if (item.segmentByOffsetMilestones) {
                current.segmentNum = static_cast<std::int32_t>(*i + 1);
                std::string end;
                if (*i + 1 < list.size()) {
                    end = std::to_string(list[*i + 1]);
                } else if (item.length == -1) {
                    end = "E";
                } else {
                    end = WholeNumberText(item.length);
                }
                current.segment = "O:" + std::to_string(list[*i]) + "-" + end;
            }
        }
    }

    // Runs after the offset segment so that the percentage segment wins when both are on.
    if (item.length != -1 && !item.milestones.empty()) {
        const auto& list = item.milestones;
        if (auto i = MilestoneIndex(list, current.percent)) {
            current.milestone = list[*i];
            if (item.segmentByMilestones) {
                current.segmentNum = static_cast<std::int32_t>(*i + 1);
                const std::string end = *i + 1 < list.size() ? std::to_string(list[*i + 1]) : "100";
                current.segment = "M:" + std::to_string(list[*i]) + "-" + end;
            }
        }
    }

    if (previous != nullptr) {
        // A play reports where playback starts, not what was watched to get there.
        const double moved = current.offset - previous->offset;
        const double delta = (moved > 0 && eventType != kMediaPlay) ? moved : 0;
        current.timePlayed = previous->timePlayed + delta;
        current.timePlayedSinceTrack = previous->timePlayedSinceTrack + delta;
    }

    current.eventType = eventType;
}

}  // namespace velmora

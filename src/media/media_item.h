#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace velmora {

class Timer;

// What produced a snapshot. 6 has no name of its own.
enum MediaEventType : std::int32_t {
    kMediaClose = 0,
    kMediaPlay = 1,
    kMediaStop = 2,
    kMediaMonitor = 3,
    kMediaTrack = 4,
    kMediaComplete = 5,
    kMediaClick = 7,
};

// Playback as seen at one event.
struct MediaState {
    std::string name;
    std::string segment;  // empty when not segmenting
    std::string playerName;
    std::int32_t eventType = kMediaClose;
    std::int32_t offsetMilestone = 0;
    std::int32_t segmentNum = 0;  // 1-based, 0 when none
    std::int32_t milestone = 0;
    double length = 0;  // -1: unknown
    double offset = 0;
    double percent = 0;
    double timePlayed = 0;
    double reserved = 0;
    bool complete = false;
    bool clicked = false;
    bool ad = false;
    std::int32_t timestamp = 0;  // seconds since the epoch
    double timePlayedSinceTrack = 0;
};

// The once-a-second timer of a playing item. `cancelled` is read and written only under the media
// module's monitor lock; a tick that finds it set does nothing.
struct MonitorRecord {
    explicit MonitorRecord(std::string itemName) : name(std::move(itemName)) {}
    const std::string name;
    bool cancelled = false;
    std::shared_ptr<Timer> timer;
};

// One open media item. Only the media module touches it, under its media lock.
struct MediaItem {
    std::shared_ptr<MonitorRecord> monitor;
    std::optional<MediaState> current;
    std::optional<MediaState> previous;
    std::string name;
    std::string playerName;
    std::string playerID;
    std::string parentName;
    std::string parentPod;
    std::string CPM;
    std::string channel;
    double parentPodPosition = 0;
    double length = -1;
    double openTime = 0;
    std::int32_t lastSegmentNum = 0;
    bool isAd = false;
    bool skipNextMonitor = false;  // nothing sets it today; the monitor tick still honours it
    std::vector<std::int32_t> milestones;
    std::vector<std::int32_t> offsetMilestones;
    bool completeSent = false;
    bool segmentByMilestones = false;
    bool segmentByOffsetMilestones = false;
    std::int32_t completeCloseOffsetThreshold = 1;
    std::int32_t trackSeconds = 0;
};

// `text` without line feeds and carriage returns, then without each "--**--" marker, the markers
// found left to right without overlap in one pass (so "--*--**--*--" keeps "--**--").
std::string CleanMediaName(const std::string& text);

// A base-10 integer at the start of `piece` (leading blanks allowed, the rest ignored). Throws
// std::invalid_argument without a leading number and std::out_of_range outside 32 bits.
std::int32_t ParseLeadingInt32(const std::string& piece);

// Percentages 1..100 with a leading 0, ascending, no duplicates; empty text gives an empty list.
// A bad piece throws as ParseLeadingInt32 does.
std::vector<std::int32_t> ParseMilestones(const std::string& text);

// Offsets in seconds above 0 (and not beyond a known `length`; -1 is unknown) with a leading 0.
std::vector<std::int32_t> ParseOffsetMilestones(const std::string& text, double length);

// The last index whose milestone `value` has reached; none for an empty list or a value below 0.
std::optional<std::size_t> MilestoneIndex(const std::vector<std::int32_t>& milestones, double value);

// Playing: an event other than close and stop is the latest snapshot.
bool IsPlaying(const MediaItem& item);

// Moves current to previous and starts a blank current snapshot taken at `nowSeconds`.
void NewSnapshot(MediaItem& item, std::int32_t nowSeconds);

// Fills the new current snapshot for `eventType` at `offset` (negative: advance the previous
// position by the seconds between the two snapshots).
void UpdateState(MediaItem& item, std::int32_t eventType, double offset);

}  // namespace velmora

#include "media/media_hits.h"

#include "media/media_text.h"

namespace velmora {
namespace {

// "a.media.<field>" for content, "a.media.ad.<field>" for an ad.
std::string Key(const MediaItem& item, const char* field) {
    return std::string(item.isAd ? "a.media.ad." : "a.media.") + field;
}

// `viewHit` selects the first-play variant: "m_s" and the ad's CPM.
void AddContentFields(const MediaItem& item, StringMap& data, bool viewHit) {
    data["&&pe"] = viewHit ? "m_s" : "m_i";
    if (!item.isAd || item.parentName.empty()) {
        data["&&pev3"] = "video";
        data["a.contentType"] = "video";
        data["a.media.name"] = item.name;
        data["a.media.playerName"] = item.playerName;
        if (item.length != -1) data["a.media.length"] = WholeNumberText(item.length);
    } else {
        data["&&pev3"] = "videoAd";
        data["a.contentType"] = "videoAd";
        data["a.media.ad.name"] = item.name;
        data["a.media.ad.playerName"] = item.playerName;
        data["a.media.name"] = item.parentName;
        if (item.length != -1) data["a.media.ad.length"] = WholeNumberText(item.length);
        if (!item.parentPod.empty()) data["a.media.ad.pod"] = item.parentPod;
        if (item.parentPodPosition > 0) data["a.media.ad.podPosition"] = WholeNumberText(item.parentPodPosition);
        if (viewHit && !item.CPM.empty()) data["a.media.ad.CPM"] = item.CPM;
    }
    if (!item.channel.empty()) data["a.media.channel"] = item.channel;
}

void AddSegmentFields(MediaItem& item, StringMap& data) {
    const MediaState& current = *item.current;
    if (!item.segmentByMilestones && !item.segmentByOffsetMilestones) {
        item.lastSegmentNum = current.segmentNum;
        return;
    }
    const MediaState* reported = &current;
    if (item.previous) {
        if (current.segmentNum != item.lastSegmentNum || current.complete) data[Key(item, "segmentView")] = "true";
        // Leaving a segment reports the one just left.
        if (current.segmentNum != item.previous->segmentNum) reported = &*item.previous;
    }
    if (reported->segmentNum > 0) data[Key(item, "segmentNum")] = std::to_string(reported->segmentNum);
    if (!reported->segment.empty()) data[Key(item, "segment")] = reported->segment;
    item.lastSegmentNum = current.segmentNum;
}

}  // namespace

StringMap BuildViewHit(MediaItem& item) {
    StringMap data;
    data[Key(item, "view")] = "true";
    AddContentFields(item, data, true);
    AddSegmentFields(item, data);
    return data;
}

std::optional<StringMap> BuildProgressHit(MediaItem& item, StringMap data, bool force) {
    AddContentFields(item, data, false);
    AddSegmentFields(item, data);
    const MediaState& current = *item.current;
    if (!item.previous) {
        data["&&pe"] = "m_s";
        data[Key(item, "view")] = "true";
        return data;
    }
    const MediaState& previous = *item.previous;
    if (current.complete && !item.completeSent) {
        data[Key(item, "complete")] = "true";
        item.completeSent = true;
        force = true;
    }
    if (current.clicked) {
        data[Key(item, "clicked")] = "true";
        force = true;
    }
    if (current.offsetMilestone > previous.offsetMilestone) {
        data[Key(item, "offsetMilestone")] = std::to_string(current.offsetMilestone);
        force = true;
    }
    if (current.milestone > previous.milestone) {
        data[Key(item, "milestone")] = std::to_string(current.milestone);
        force = true;
    }
    if (item.trackSeconds > 0) {
        if (current.timePlayedSinceTrack < item.trackSeconds && !force) return std::nullopt;
    } else if (!force) {
        return std::nullopt;
    }
    if (current.timePlayedSinceTrack > 0) data[Key(item, "timePlayed")] = WholeNumberText(current.timePlayedSinceTrack);
    return data;
}

}  // namespace velmora

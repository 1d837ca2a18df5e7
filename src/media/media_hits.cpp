#include "media/media_hits.h"

#include "media/media_text.h"

namespace velmora {
namespace {

// "a.media.<field>" for content, "a.media.ad.<field>" for an ad.
std::string Key(const MediaItem& item, const char* field) {
    return std::string(item.isAd ? "a.media.ad." : "a.media.") + field;
}

// `viewHit` selects the first-play variant: "m_s" and the ad's CPM. Like every field of a media hit
// but the view markers, they are added only where the caller's track data has no value of its own.
void AddContentFields(const MediaItem& item, StringMap& data, bool viewHit) {
    data.emplace("&&pe", viewHit ? "m_s" : "m_i");
    if (!item.isAd || item.parentName.empty()) {
        data.emplace("&&pev3", "video");
        data.emplace("a.contentType", "video");
        data.emplace("a.media.name", item.name);
        data.emplace("a.media.playerName", item.playerName);
        if (item.length != -1) data.emplace("a.media.length", WholeNumberText(item.length));
    } else {
        data.emplace("&&pev3", "videoAd");
        data.emplace("a.contentType", "videoAd");
        data.emplace("a.media.ad.name", item.name);
        data.emplace("a.media.ad.playerName", item.playerName);
        data.emplace("a.media.name", item.parentName);
        if (item.length != -1) data.emplace("a.media.ad.length", WholeNumberText(item.length));
        if (!item.parentPod.empty()) data.emplace("a.media.ad.pod", item.parentPod);
        if (item.parentPodPosition > 0) data.emplace("a.media.ad.podPosition", WholeNumberText(item.parentPodPosition));
        if (viewHit && !item.CPM.empty()) data.emplace("a.media.ad.CPM", item.CPM);
    }
    if (!item.channel.empty()) data.emplace("a.media.channel", item.channel);
}

void AddSegmentFields(MediaItem& item, StringMap& data) {
    const MediaState& current = *item.current;
    if (!item.segmentByMilestones && !item.segmentByOffsetMilestones) {
        item.lastSegmentNum = current.segmentNum;
        return;
    }
    const MediaState* reported = &current;
    if (item.previous) {
        if (current.segmentNum != item.lastSegmentNum || current.complete) data.emplace(Key(item, "segmentView"), "true");
        // Leaving a segment reports the one just left.
        if (current.segmentNum != item.previous->segmentNum) reported = &*item.previous;
    }
    if (reported->segmentNum > 0) data.emplace(Key(item, "segmentNum"), std::to_string(reported->segmentNum));
    if (!reported->segment.empty()) data.emplace(Key(item, "segment"), reported->segment);
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
        data.emplace(Key(item, "complete"), "true");
        item.completeSent = true;
        force = true;
    }
    if (current.clicked) {
        data.emplace(Key(item, "clicked"), "true");
        force = true;
    }
    if (current.offsetMilestone > previous.offsetMilestone) {
        data.emplace(Key(item, "offsetMilestone"), std::to_string(current.offsetMilestone));
        force = true;
    }
    if (current.milestone > previous.milestone) {
        data.emplace(Key(item, "milestone"), std::to_string(current.milestone));
        force = true;
    }
    if (item.trackSeconds > 0) {
        if (current.timePlayedSinceTrack < item.trackSeconds && !force) return std::nullopt;
    } else if (!force) {
        return std::nullopt;
    }
    if (current.timePlayedSinceTrack > 0) data.emplace(Key(item, "timePlayed"), WholeNumberText(current.timePlayedSinceTrack));
    return data;
}

}  // namespace velmora

#pragma once

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Velmora {

// Describes one media item (content, or an ad played inside content). A plain value holder: nothing
// is checked until the item is opened, and the open item keeps its own copy.
struct MediaSettings {
    std::string Name, PlayerName, PlayerID;
    double Length = 0;  // seconds; 0 or less: unknown
    std::string Channel, Milestones, OffsetMilestones;  // milestones: comma-separated percentages / seconds
    bool SegmentByMilestones = false, SegmentByOffsetMilestones = false;
    std::int32_t TrackSeconds = 0, CompleteCloseOffsetThreshold = 1;
    std::string ParentName, ParentPod, CPM;  // ads only
    double ParentPodPosition = 0;
    bool IsMediaAd = false;
};

// Media playback measurement. Every operation returns at once; the work runs in the background.
class VELMORA_API Media {
public:
    static std::shared_ptr<MediaSettings> SettingsWith(const std::string& name, double length,
        const std::string& playerName, const std::string& playerID);
    static std::shared_ptr<MediaSettings> AdSettingsWith(const std::string& name, double length,
        const std::string& playerName, const std::string& parentName, const std::string& parentPod,
        double parentPodPosition, const std::string& CPM);
    static void Open(std::shared_ptr<MediaSettings> settings);
    static void Close(const std::string& name);
    static void Play(const std::string& name, double offset);
    static void Complete(const std::string& name, double offset);
    static void Stop(const std::string& name, double offset);
    static void Click(const std::string& name, double offset);
    static void Track(const std::string& name, const ObjectMap& contextData);
};

}  // namespace Velmora

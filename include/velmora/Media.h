#pragma once

/// @file
/// Media playback measurement: items, their settings, and playback events.

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Velmora {

/// Describes one media item (content, or an ad played inside content). A plain value holder: nothing
/// is checked until the item is opened, and the open item keeps its own copy.
struct MediaSettings {
    /// @var Name
    /// The item's name, required; every other Media call names the item by it. Line feeds,
    /// carriage returns and "--**--" are removed. Sent as "a.media.name" ("a.media.ad.name" for an
    /// ad).
    /// @var PlayerName
    /// The player's name, sent as "a.media.playerName"; empty: "Not_Specified".
    /// @var PlayerID
    /// The player instance. A player plays one item at a time: opening an item with the same
    /// PlayerID closes the item that player had open. Empty: no such rule.
    std::string Name, PlayerName, PlayerID;
    double Length = 0;  ///< Length in seconds; 0 or less: unknown (no percentages, no percentage milestones).
    /// @var Channel
    /// The content channel, sent as "a.media.channel" when not empty.
    /// @var Milestones
    /// Comma-separated percentages of the length, 1 to 100 ("25,50,75"); passing one sends a hit
    /// with "a.media.milestone". Needs a known Length. A piece that is not a number makes Open()
    /// fail with an error line.
    /// @var OffsetMilestones
    /// Comma-separated offsets in seconds ("10,30,60"), above 0 and, with a known Length, not
    /// beyond it; passing one sends a hit with "a.media.offsetMilestone".
    std::string Channel, Milestones, OffsetMilestones;  // milestones: comma-separated percentages / seconds
    /// @var SegmentByMilestones
    /// Reports the stretch between two percentage milestones as a segment ("a.media.segment" =
    /// "M:25-50", "a.media.segmentNum"). Needs Milestones.
    /// @var SegmentByOffsetMilestones
    /// Reports the stretch between two offset milestones as a segment ("O:10-30"). Needs
    /// OffsetMilestones; with both set, percentage segments win.
    bool SegmentByMilestones = false, SegmentByOffsetMilestones = false;
    /// @var TrackSeconds
    /// Sends a progress hit after every this many seconds played ("a.media.timePlayed"); 0 or
    /// less: never.
    /// @var CompleteCloseOffsetThreshold
    /// Seconds before the end within which Media::Close() counts the item as complete; values
    /// below 1 count as 1.
    std::int32_t TrackSeconds = 0, CompleteCloseOffsetThreshold = 1;
    /// @var ParentName
    /// For an ad: the name of the content it plays in, sent as "a.media.name"; required for an ad.
    /// @var ParentPod
    /// For an ad: the ad break it belongs to, sent as "a.media.ad.pod".
    /// @var CPM
    /// For an ad: cost per thousand views, sent unchanged as "a.media.ad.CPM" with the first hit.
    std::string ParentName, ParentPod, CPM;  // ads only
    double ParentPodPosition = 0;  ///< For an ad: its position in the break, sent rounded down when above 0.
    bool IsMediaAd = false;        ///< The item is an ad: its hits use the "a.media.ad." keys.
};

/// Media playback measurement. Every operation returns at once; the work runs in the background.
///
/// Any thread may call these; none of them throws. An item is opened, played, maybe stopped,
/// clicked or completed, and closed; while it plays, the library advances its position once a
/// second and sends hits at milestones, segment changes and every TrackSeconds. Offsets are
/// seconds from the start of the item. A call that names an item that is not open is ignored (a
/// debug line). Nothing is tracked, with a warning line, when the configuration does not set up
/// analytics ("rsids" and "server").
class VELMORA_API Media {
public:
    /// Settings for a content item.
    /// @param name the item's name (MediaSettings::Name).
    /// @param length the length in seconds; 0 or less: unknown.
    /// @param playerName the player's name.
    /// @param playerID the player instance.
    /// @return a new settings object to adjust and pass to Open(); null only when the library
    ///   cannot allocate one.
    static std::shared_ptr<MediaSettings> SettingsWith(const std::string& name, double length,
        const std::string& playerName, const std::string& playerID);
    /// Settings for an ad played inside a content item (IsMediaAd set).
    /// @param name the ad's name.
    /// @param length the ad's length in seconds; 0 or less: unknown.
    /// @param playerName the player's name.
    /// @param parentName the name of the content the ad plays in; required.
    /// @param parentPod the ad break it belongs to.
    /// @param parentPodPosition its position in the break.
    /// @param CPM cost per thousand views, sent unchanged.
    /// @return a new settings object to pass to Open(); null only when the library cannot allocate
    ///   one.
    static std::shared_ptr<MediaSettings> AdSettingsWith(const std::string& name, double length,
        const std::string& playerName, const std::string& parentName, const std::string& parentPod,
        double parentPodPosition, const std::string& CPM);
    /// Opens an item; nothing is sent until it plays. An item of the same name, or the item of the
    /// same player, is closed first (with its closing hit). The library copies the settings, so
    /// later changes to the object have no effect. A null pointer, an empty name or an ad without
    /// a parent name is refused with a warning. When an ad opens, its cleaned parent name (the
    /// name as hits carry it) is written back into `settings`' ParentName, on a library thread once
    /// the configuration is known to set up analytics; it shows there after Host::Flush(). Returns
    /// at once; the work is queued.
    /// @param settings the item's settings.
    static void Open(std::shared_ptr<MediaSettings> settings);
    /// Closes an item: sends its last hit (with the seconds played) when it has played, counting
    /// it complete when its position is within CompleteCloseOffsetThreshold seconds of the end
    /// (always when the length is unknown), and forgets it.
    /// @param name the item's name.
    static void Close(const std::string& name);
    /// Starts or resumes playing. The first play sends the view hit ("a.media.view").
    /// @param name the item's name.
    /// @param offset the position in seconds from the start of the item.
    static void Play(const std::string& name, double offset);
    /// Marks the item complete ("a.media.complete"), once.
    /// @param name the item's name.
    /// @param offset the position in seconds.
    static void Complete(const std::string& name, double offset);
    /// Stops (pauses) playing; the once-a-second tracking stops until the next Play().
    /// @param name the item's name.
    /// @param offset the position in seconds.
    static void Stop(const std::string& name, double offset);
    /// Records a click on the playing item ("a.media.clicked").
    /// @param name the item's name.
    /// @param offset the position in seconds.
    static void Click(const std::string& name, double offset);
    /// Sends a hit with the item's current state and extra values, without changing the state.
    /// Only after the item's first Play(); entries with an empty value are left out.
    /// @param name the item's name.
    /// @param contextData the values to send (see ObjectMap).
    static void Track(const std::string& name, const ObjectMap& contextData);
};

}  // namespace Velmora

// The C interface's media tracking: settings handles over the C++ settings object.
#include "api/c_api_support.h"

using velmora::c_api::Objects;
using velmora::c_api::Text;

namespace {

velmora_media_settings_t* Wrap(std::shared_ptr<Velmora::MediaSettings> settings) {
    return settings ? new velmora_media_settings{std::move(settings)} : nullptr;
}

template <class F>
void Change(velmora_media_settings_t* settings, F change) noexcept {
    if (settings != nullptr) velmora::Guard([&] { change(*settings->settings); });
}

}  // namespace

extern "C" {

velmora_media_settings_t* velmora_media_settings_new(const char* name, double length, const char* player_name,
                                                     const char* player_id) {
    return velmora::Guard(static_cast<velmora_media_settings_t*>(nullptr), [&] {
        return Wrap(Velmora::Media::SettingsWith(Text(name), length, Text(player_name), Text(player_id)));
    });
}

velmora_media_settings_t* velmora_media_ad_settings_new(const char* name, double length, const char* player_name,
                                                        const char* parent_name, const char* parent_pod,
                                                        double parent_pod_position, const char* cpm) {
    return velmora::Guard(static_cast<velmora_media_settings_t*>(nullptr), [&] {
        return Wrap(Velmora::Media::AdSettingsWith(Text(name), length, Text(player_name), Text(parent_name),
                                                   Text(parent_pod), parent_pod_position, Text(cpm)));
    });
}

void velmora_media_settings_free(velmora_media_settings_t* settings) { delete settings; }

void velmora_media_settings_set_channel(velmora_media_settings_t* settings, const char* channel) {
    Change(settings, [&](Velmora::MediaSettings& s) { s.Channel = Text(channel); });
}

void velmora_media_settings_set_milestones(velmora_media_settings_t* settings, const char* milestones) {
    Change(settings, [&](Velmora::MediaSettings& s) { s.Milestones = Text(milestones); });
}

void velmora_media_settings_set_offset_milestones(velmora_media_settings_t* settings, const char* offsets) {
    Change(settings, [&](Velmora::MediaSettings& s) { s.OffsetMilestones = Text(offsets); });
}

void velmora_media_settings_set_segment_by_milestones(velmora_media_settings_t* settings, int enabled) {
    Change(settings, [&](Velmora::MediaSettings& s) { s.SegmentByMilestones = enabled != 0; });
}

void velmora_media_settings_set_segment_by_offset_milestones(velmora_media_settings_t* settings, int enabled) {
    Change(settings, [&](Velmora::MediaSettings& s) { s.SegmentByOffsetMilestones = enabled != 0; });
}

void velmora_media_settings_set_track_seconds(velmora_media_settings_t* settings, int32_t seconds) {
    Change(settings, [&](Velmora::MediaSettings& s) { s.TrackSeconds = seconds; });
}

void velmora_media_settings_set_complete_close_offset_threshold(velmora_media_settings_t* settings, int32_t seconds) {
    Change(settings, [&](Velmora::MediaSettings& s) { s.CompleteCloseOffsetThreshold = seconds; });
}

void velmora_media_open(velmora_media_settings_t* settings) {
    Velmora::Media::Open(settings != nullptr ? settings->settings : nullptr);
}

void velmora_media_close(const char* name) {
    velmora::Guard([&] { Velmora::Media::Close(Text(name)); });
}

void velmora_media_play(const char* name, double offset) {
    velmora::Guard([&] { Velmora::Media::Play(Text(name), offset); });
}

void velmora_media_complete(const char* name, double offset) {
    velmora::Guard([&] { Velmora::Media::Complete(Text(name), offset); });
}

void velmora_media_stop(const char* name, double offset) {
    velmora::Guard([&] { Velmora::Media::Stop(Text(name), offset); });
}

void velmora_media_click(const char* name, double offset) {
    velmora::Guard([&] { Velmora::Media::Click(Text(name), offset); });
}

void velmora_media_track(const char* name, const velmora_map_t* context_data) {
    velmora::Guard([&] { Velmora::Media::Track(Text(name), Objects(context_data)); });
}

}  // extern "C"

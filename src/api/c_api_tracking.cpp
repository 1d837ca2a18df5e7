// The C interface's switches, lifecycle, privacy, identifiers and tracking calls.
#include "api/c_api_support.h"

#include "analytics/tracker.h"

using velmora::Runtime;
using velmora::c_api::Continue;
using velmora::c_api::Objects;
using velmora::c_api::Text;

namespace {

velmora::SerialQueue& TrackerQueue(Runtime& runtime) { return runtime.GetAnalyticsTracker().Queue(); }

}  // namespace

extern "C" {

int velmora_get_debug_logging(void) { return Velmora::Config::GetDebugLogging() ? 1 : 0; }

void velmora_set_debug_logging(int enabled) { Velmora::Config::SetDebugLogging(enabled != 0); }

void velmora_collect_lifecycle_data(void) { Velmora::Config::CollectLifecycleData(); }

void velmora_pause_collecting_lifecycle_data(void) { Velmora::Config::PauseCollectingLifecycleData(); }

double velmora_get_lifetime_value(void) { return Velmora::Config::GetLifetimeValue(); }

void velmora_get_privacy_status(void (*done)(velmora_privacy_t status, void* user_data), void* user_data) {
    velmora::Guard([&] {
        auto status = Velmora::Config::GetPrivacyStatusAsync();
        if (done == nullptr) return;
        // Answered on the general queue itself.
        Continue<Velmora::VelmoraPrivacyStatus>(std::move(status), {}, nullptr, [done, user_data](auto value) {
            done(static_cast<velmora_privacy_t>(value), user_data);
        });
    });
}

void velmora_set_privacy_status(velmora_privacy_t status) {
    Velmora::Config::SetPrivacyStatus(static_cast<Velmora::VelmoraPrivacyStatus>(status));
}

char* velmora_get_user_identifier(void) { return velmora::c_api::Copy(Velmora::Config::GetUserIdentifier()); }

void velmora_set_user_identifier(const char* identifier) {
    velmora::Guard([&] { Velmora::Config::SetUserIdentifier(Text(identifier)); });
}

void velmora_track_state(const char* state, const velmora_map_t* context_data) {
    velmora::Guard([&] { Velmora::Analytics::TrackState(Text(state), Objects(context_data)); });
}

void velmora_track_action(const char* action, const velmora_map_t* context_data) {
    velmora::Guard([&] { Velmora::Analytics::TrackAction(Text(action), Objects(context_data)); });
}

void velmora_track_location(double latitude, double longitude, double horizontal_accuracy,
                            const velmora_map_t* context_data) {
    velmora::Guard([&] {
        Velmora::Analytics::TrackLocation(latitude, longitude, horizontal_accuracy, Objects(context_data));
    });
}

void velmora_track_lifetime_value_increase(float amount, const velmora_map_t* context_data) {
    velmora::Guard([&] { Velmora::Analytics::TrackLifetimeValueIncrease(amount, Objects(context_data)); });
}

void velmora_track_timed_action_start(const char* action, const velmora_map_t* context_data) {
    velmora::Guard([&] { Velmora::Analytics::TrackTimedActionStart(Text(action), Objects(context_data)); });
}

void velmora_track_timed_action_update(const char* action, const velmora_map_t* context_data) {
    velmora::Guard([&] { Velmora::Analytics::TrackTimedActionUpdate(Text(action), Objects(context_data)); });
}

void velmora_track_timed_action_end(const char* action) {
    velmora::Guard([&] { Velmora::Analytics::TrackTimedActionEnd(Text(action)); });
}

void velmora_tracking_timed_action_exists(const char* action, void (*done)(int exists, void* user_data),
                                          void* user_data) {
    velmora::Guard([&] {
        auto exists = Velmora::Analytics::TrackingTimedActionExistsAsync(Text(action));
        if (done == nullptr) return;
        // Answered on the general queue itself.
        Continue<bool>(std::move(exists), false, nullptr,
                       [done, user_data](bool value) { done(value ? 1 : 0, user_data); });
    });
}

void velmora_get_tracking_identifier(void (*done)(const char* identifier, void* user_data), void* user_data) {
    velmora::Guard([&] {
        auto identifier = Velmora::Analytics::GetTrackingIdentifierAsync();
        if (done == nullptr) return;
        Continue<std::string>(std::move(identifier), "", TrackerQueue,
                              [done, user_data](const std::string& value) { done(value.c_str(), user_data); });
    });
}

void velmora_clear_queue(void) { Velmora::Analytics::ClearQueue(); }

uint32_t velmora_get_queue_size(void) { return Velmora::Analytics::GetQueueSize(); }

}  // extern "C"

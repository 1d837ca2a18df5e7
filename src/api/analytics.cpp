#include <velmora/Analytics.h>

#include "analytics/hit_queue.h"
#include "analytics/tracker.h"
#include "analytics/values.h"
#include "api/guard.h"
#include "core/device.h"
#include "core/library_thread.h"

namespace Velmora {

using velmora::AnalyticsTracker;
using velmora::Runtime;

namespace {

// The window size is the application's to read, so it is read on the calling thread.
void ReadDisplayInformation(Runtime& runtime) { runtime.GetDeviceContext().GetResolution(); }

}  // namespace

void Analytics::TrackState(const std::string& state, const ObjectMap& contextData) {
    velmora::Call([&](Runtime& runtime) {
        auto translated = velmora::TranslateContextData(contextData, runtime.Log());
        ReadDisplayInformation(runtime);
        runtime.GeneralQueue().Post("Analytics", [&runtime, state = velmora::ToValidUtf8(state),
                                     translated = std::move(translated)]() mutable {
            runtime.GetAnalyticsTracker().GatedTrackState(state, std::move(translated));
        });
    });
}

void Analytics::TrackAction(const std::string& action, const ObjectMap& contextData) {
    velmora::Call([&](Runtime& runtime) {
        auto translated = velmora::TranslateContextData(contextData, runtime.Log());
        ReadDisplayInformation(runtime);
        runtime.GeneralQueue().Post("Analytics", [&runtime, action = velmora::ToValidUtf8(action),
                                     translated = std::move(translated)]() mutable {
            runtime.GetAnalyticsTracker().GatedTrackAction(action, std::move(translated));
        });
    });
}

std::future<std::string> Analytics::GetTrackingIdentifierAsync() {
    return velmora::PostForResult<std::string>("", [](Runtime& runtime, auto completion) {
        auto& tracker = runtime.GetAnalyticsTracker();
        velmora::CompleteAfter(tracker.Queue(), tracker.TrackingIdentifierAsync(), completion);
    });
}

void Analytics::ClearQueue() {
    velmora::Post([](Runtime& runtime) { runtime.GetHitQueue().ClearQueue(); });
}

std::uint32_t Analytics::GetQueueSize() {
    return velmora::Call(std::uint32_t{0}, [](Runtime& runtime) {
        // The tracker (and with it the configuration) is made on the general queue, never here; a
        // host callback already on a library thread must not wait for that queue.
        if (velmora::OnLibraryThread()) return runtime.GetAnalyticsTracker().QueueSize();
        auto tracker = runtime.GeneralQueue().Submit([&runtime] { return &runtime.GetAnalyticsTracker(); }).get();
        return tracker != nullptr ? tracker->QueueSize() : 0;
    });
}

}  // namespace Velmora

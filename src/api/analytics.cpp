#include <velmora/Analytics.h>

#include "analytics/hit_queue.h"
#include "analytics/tracker.h"
#include "analytics/values.h"
#include "api/guard.h"
#include "core/device.h"
#include "core/runtime.h"

namespace Velmora {

using velmora::AnalyticsTracker;
using velmora::Runtime;

namespace {

// The window size is the application's to read, so it is read on the calling thread.
void ReadDisplayInformation(Runtime& runtime) { runtime.Get<velmora::DeviceContext>().GetResolution(); }

}  // namespace

void Analytics::TrackState(const std::string& state, const ObjectMap& contextData) {
    velmora::Guard([&] {
        auto& runtime = Runtime::Process();
        auto translated = velmora::TranslateContextData(contextData, runtime.Log());
        ReadDisplayInformation(runtime);
        runtime.Get<AnalyticsTracker>().GatedTrackState(state, std::move(translated));
    });
}

void Analytics::TrackAction(const std::string& action, const ObjectMap& contextData) {
    velmora::Guard([&] {
        auto& runtime = Runtime::Process();
        auto translated = velmora::TranslateContextData(contextData, runtime.Log());
        ReadDisplayInformation(runtime);
        runtime.Get<AnalyticsTracker>().GatedTrackAction(action, std::move(translated));
    });
}

std::future<std::string> Analytics::GetTrackingIdentifierAsync() {
    return velmora::GuardFuture<std::string>(
        [] { return Runtime::Process().Get<AnalyticsTracker>().TrackingIdentifierAsync(); });
}

void Analytics::ClearQueue() {
    velmora::Guard([] {
        auto& runtime = Runtime::Process();
        auto& hits = runtime.Get<velmora::HitQueue>();
        runtime.GeneralQueue().Post([&hits] { hits.ClearQueue(); });
    });
}

std::uint32_t Analytics::GetQueueSize() {
    return velmora::Guard(std::uint32_t{0}, [] { return Runtime::Process().Get<AnalyticsTracker>().QueueSize(); });
}

}  // namespace Velmora

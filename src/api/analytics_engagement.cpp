#include <velmora/Analytics.h>

#include "analytics/tracker.h"
#include "analytics/values.h"
#include "api/guard.h"
#include "core/device.h"
#include "lifetime_value/lifetime_value.h"
#include "location/location.h"
#include "timed_actions/timed_actions.h"

namespace Velmora {
namespace {

using velmora::Runtime;

// The analytics gate, run on the general queue before the work of a tracking call.
bool AnalyticsAllowed(Runtime& runtime) { return runtime.GetAnalyticsTracker().PassesGate(); }

// The display size can only be read where the application's window is reachable: here, on the
// caller's thread, before the work is posted.
void ReadDisplayOnCallingThread(Runtime& runtime) { runtime.GetDeviceContext().GetResolution(); }

// Converts the context data and reads the display on the caller's thread, then runs `work` with
// the converted data on the general queue behind the analytics gate.
template <class Work>
void PostTracking(const ObjectMap& contextData, bool readDisplay, Work work) {
    velmora::Call([&](Runtime& runtime) {
        auto data = velmora::TranslateContextData(contextData, runtime.Log());
        if (readDisplay) ReadDisplayOnCallingThread(runtime);
        runtime.GeneralQueue().Post("Analytics", [&runtime, data = std::move(data), work = std::move(work)]() mutable {
            if (AnalyticsAllowed(runtime)) work(runtime, std::move(data));
        });
    });
}

}  // namespace

void Analytics::TrackLocation(double latitude, double longitude, double horizontalAccuracy,
                              const ObjectMap& contextData) {
    PostTracking(contextData, true, [=](Runtime& runtime, velmora::StringMap data) {
        runtime.GetLocationTracker().TrackLocation(latitude, longitude, horizontalAccuracy, data);
    });
}

void Analytics::TrackLifetimeValueIncrease(float amount, const ObjectMap& contextData) {
    PostTracking(contextData, true, [amount](Runtime& runtime, velmora::StringMap data) {
        runtime.GetLifetimeValue().Increase(amount, std::move(data));
    });
}

void Analytics::TrackTimedActionStart(const std::string& action, const ObjectMap& contextData) {
    PostTracking(contextData, false, [action = velmora::ToValidUtf8(action)](Runtime& runtime, velmora::StringMap data) {
        runtime.GetTimedActionStore().Start(action, std::move(data));
    });
}

void Analytics::TrackTimedActionUpdate(const std::string& action, const ObjectMap& contextData) {
    PostTracking(contextData, false, [action = velmora::ToValidUtf8(action)](Runtime& runtime, velmora::StringMap data) {
        runtime.GetTimedActionStore().Update(action, data);
    });
}

void Analytics::TrackTimedActionEnd(const std::string& action) {
    PostTracking({}, true, [action = velmora::ToValidUtf8(action)](Runtime& runtime, velmora::StringMap) {
        runtime.GetTimedActionStore().End(action);
    });
}

std::future<bool> Analytics::TrackingTimedActionExistsAsync(const std::string& action) {
    // Through the general queue, so that the answer sees the starts and ends called before it.
    return velmora::PostForResult<bool>(false, [action = velmora::ToValidUtf8(action)](Runtime& runtime, auto completion) {
        completion->Set(runtime.GetTimedActionStore().Exists(action));
    });
}

}  // namespace Velmora

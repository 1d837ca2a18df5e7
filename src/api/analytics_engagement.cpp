#include <velmora/Analytics.h>

#include "analytics/tracker.h"
#include "analytics/values.h"
#include "api/guard.h"
#include "core/device.h"
#include "core/runtime.h"
#include "lifecycle/lifetime_value.h"
#include "lifecycle/location.h"
#include "lifecycle/timed_actions.h"

namespace Velmora {
namespace {

using velmora::Runtime;

// The analytics gate, run on the general queue before the work of a tracking call.
bool AnalyticsAllowed(Runtime& runtime) { return runtime.Get<velmora::AnalyticsTracker>().PassesGate(); }

// The display size can only be read where the application's window is reachable: here, on the
// caller's thread, before the work is posted.
void ReadDisplayOnCallingThread(Runtime& runtime) { runtime.Get<velmora::DeviceContext>().GetResolution(); }

}  // namespace

void Analytics::TrackLocation(double latitude, double longitude, double horizontalAccuracy,
                              const ObjectMap& contextData) {
    velmora::Guard([&] {
        auto& runtime = Runtime::Process();
        auto data = velmora::TranslateContextData(contextData, runtime.Log());
        ReadDisplayOnCallingThread(runtime);
        runtime.GeneralQueue().Post([&runtime, latitude, longitude, horizontalAccuracy, data = std::move(data)] {
            if (AnalyticsAllowed(runtime)) {
                runtime.Get<velmora::LocationTracker>().TrackLocation(latitude, longitude, horizontalAccuracy, data);
            }
        });
    });
}

void Analytics::TrackLifetimeValueIncrease(float amount, const ObjectMap& contextData) {
    velmora::Guard([&] {
        auto& runtime = Runtime::Process();
        auto data = velmora::TranslateContextData(contextData, runtime.Log());
        ReadDisplayOnCallingThread(runtime);
        runtime.GeneralQueue().Post([&runtime, amount, data = std::move(data)]() mutable {
            if (AnalyticsAllowed(runtime)) runtime.Get<velmora::LifetimeValue>().Increase(amount, std::move(data));
        });
    });
}

void Analytics::TrackTimedActionStart(const std::string& action, const ObjectMap& contextData) {
    velmora::Guard([&] {
        auto& runtime = Runtime::Process();
        auto data = velmora::TranslateContextData(contextData, runtime.Log());
        runtime.GeneralQueue().Post([&runtime, action, data = std::move(data)]() mutable {
            if (AnalyticsAllowed(runtime)) runtime.Get<velmora::TimedActionStore>().Start(action, std::move(data));
        });
    });
}

void Analytics::TrackTimedActionUpdate(const std::string& action, const ObjectMap& contextData) {
    velmora::Guard([&] {
        auto& runtime = Runtime::Process();
        auto data = velmora::TranslateContextData(contextData, runtime.Log());
        runtime.GeneralQueue().Post([&runtime, action, data = std::move(data)]() mutable {
            if (AnalyticsAllowed(runtime)) runtime.Get<velmora::TimedActionStore>().Update(action, std::move(data));
        });
    });
}

void Analytics::TrackTimedActionEnd(const std::string& action) {
    velmora::Guard([&] {
        auto& runtime = Runtime::Process();
        ReadDisplayOnCallingThread(runtime);
        runtime.GeneralQueue().Post([&runtime, action] {
            if (AnalyticsAllowed(runtime)) runtime.Get<velmora::TimedActionStore>().End(action);
        });
    });
}

std::future<bool> Analytics::TrackingTimedActionExistsAsync(const std::string& action) {
    return velmora::GuardFuture<bool>([&] {
        auto& runtime = Runtime::Process();
        // Through the general queue, so that the answer sees the starts and ends called before it.
        // The store's queue never waits for the general queue, so waiting here cannot deadlock.
        return runtime.GeneralQueue().Submit(
            [&runtime, action] { return runtime.Get<velmora::TimedActionStore>().Exists(action).get(); });
    });
}

}  // namespace Velmora

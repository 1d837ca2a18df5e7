#include <velmora/Config.h>

#include "api/guard.h"
#include "core/device.h"
#include "lifecycle/lifecycle.h"
#include "lifetime_value/lifetime_value.h"

namespace Velmora {

using velmora::Runtime;

void Config::CollectLifecycleData() {
    velmora::Call([](Runtime& runtime) {
        runtime.GeneralQueue().Post("Analytics", [&runtime] { runtime.Sessions().Start(); });
        // Needs the application's window, which only the calling thread can reach.
        runtime.Device().GetResolution();
    });
}

void Config::PauseCollectingLifecycleData() {
    velmora::Post("Analytics", [](Runtime& runtime) { runtime.Sessions().Pause(); });
}

double Config::GetLifetimeValue() {
    return velmora::Call(0.0, [](Runtime& runtime) { return velmora::StoredLifetimeValue(runtime.Settings()); });
}

}  // namespace Velmora

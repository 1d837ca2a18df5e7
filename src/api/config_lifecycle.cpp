#include <velmora/Config.h>

#include "api/guard.h"
#include "core/device.h"
#include "lifecycle/lifecycle.h"
#include "lifetime_value/lifetime_value.h"

namespace Velmora {

using velmora::Runtime;

void Config::CollectLifecycleData() {
    velmora::Call([](Runtime& runtime) {
        runtime.GeneralQueue().Post("Lifecycle", [&runtime] { runtime.GetLifecycle().Start(); });
        // Needs the application's window, which only the calling thread can reach.
        runtime.GetDeviceContext().GetResolution();
    });
}

void Config::PauseCollectingLifecycleData() {
    velmora::Post("Lifecycle", [](Runtime& runtime) { runtime.GetLifecycle().Pause(); });
}

double Config::GetLifetimeValue() {
    return velmora::Call(0.0, [](Runtime& runtime) { return velmora::StoredLifetimeValue(runtime.GetSettingsStore()); });
}

}  // namespace Velmora

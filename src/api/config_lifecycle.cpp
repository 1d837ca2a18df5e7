#include <velmora/Config.h>

#include "api/guard.h"
#include "core/device.h"
#include "lifecycle/lifecycle.h"
#include "lifecycle/lifetime_value.h"

namespace Velmora {

using velmora::Runtime;

void Config::CollectLifecycleData() {
    velmora::Call([](Runtime& runtime) {
        runtime.GeneralQueue().Post([&runtime] { runtime.Get<velmora::Lifecycle>().Start(); });
        // Needs the application's window, which only the calling thread can reach.
        runtime.Get<velmora::DeviceContext>().GetResolution();
    });
}

void Config::PauseCollectingLifecycleData() {
    velmora::Post([](Runtime& runtime) { runtime.Get<velmora::Lifecycle>().Pause(); });
}

double Config::GetLifetimeValue() {
    return velmora::Call(0.0, [](Runtime& runtime) { return velmora::StoredLifetimeValue(runtime.Settings()); });
}

}  // namespace Velmora

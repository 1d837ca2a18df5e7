#include <velmora/Config.h>

#include "api/guard.h"
#include "core/device.h"
#include "core/runtime.h"
#include "lifecycle/lifecycle.h"
#include "lifecycle/lifetime_value.h"

namespace Velmora {

using velmora::Runtime;

void Config::CollectLifecycleData() {
    velmora::Guard([] {
        auto& runtime = Runtime::Process();
        runtime.GeneralQueue().Post([&runtime] { runtime.Get<velmora::Lifecycle>().Start(); });
        // Needs the application's window, which only the calling thread can reach.
        runtime.Get<velmora::DeviceContext>().GetResolution();
    });
}

void Config::PauseCollectingLifecycleData() {
    velmora::Guard([] {
        auto& runtime = Runtime::Process();
        runtime.GeneralQueue().Post([&runtime] { runtime.Get<velmora::Lifecycle>().Pause(); });
    });
}

double Config::GetLifetimeValue() {
    return velmora::Guard(0.0, [] { return Runtime::Process().Get<velmora::LifetimeValue>().GetLifetimeValueAsDouble(); });
}

}  // namespace Velmora

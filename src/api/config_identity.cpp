#include <velmora/Config.h>

#include "api/guard.h"
#include "core/device.h"
#include "core/runtime.h"

namespace Velmora {

using velmora::DeviceContext;
using velmora::Runtime;

std::string Config::GetUserIdentifier() {
    return velmora::Guard(std::string(), [] { return Runtime::Process().Get<DeviceContext>().GetVisitorId(); });
}

void Config::SetUserIdentifier(const std::string& identifier) {
    velmora::Guard([&identifier] {
        auto& runtime = Runtime::Process();
        runtime.GeneralQueue().Post(
            [&runtime, identifier] { runtime.Get<DeviceContext>().SetVisitorId(identifier); });
    });
}

}  // namespace Velmora

#include <velmora/Config.h>

#include "api/guard.h"
#include "core/device.h"

namespace Velmora {

using velmora::DeviceContext;
using velmora::Runtime;

// Reads only the stored value: the device context, which reaches the network for other values,
// is not made on the application's thread.
std::string Config::GetUserIdentifier() {
    return velmora::Call(std::string(), [](Runtime& runtime) {
        if (auto* device = runtime.DeviceContextIfCreated()) return device->GetVisitorId();
        return velmora::LookupText(runtime.GetSettingsStore(), velmora::kVisitorIdKey).value_or("");
    });
}

void Config::SetUserIdentifier(const std::string& identifier) {
    velmora::Post([identifier = velmora::ToValidUtf8(identifier)](Runtime& runtime) { runtime.GetDeviceContext().SetVisitorId(identifier); });
}

}  // namespace Velmora

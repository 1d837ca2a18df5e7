#include <velmora/Config.h>

#include "api/guard.h"
#include "core/runtime.h"
#include "core/version.h"

namespace Velmora {

using velmora::Runtime;

bool Config::GetDebugLogging() {
    return velmora::Guard(false, [] { return Runtime::Process().Log().DebugEnabled(); });
}

void Config::SetDebugLogging(bool enabled) {
    velmora::Guard([enabled] {
        auto& runtime = Runtime::Process();
        runtime.GeneralQueue().Post([&runtime, enabled] { runtime.Log().SetDebugEnabled(enabled); });
    });
}

std::future<VelmoraPrivacyStatus> Config::GetPrivacyStatusAsync() {
    return velmora::GuardFuture<VelmoraPrivacyStatus>([] {
        auto& runtime = Runtime::Process();
        return runtime.GeneralQueue().Submit(
            [&runtime] { return static_cast<VelmoraPrivacyStatus>(runtime.Config().Privacy()); });
    });
}

void Config::SetPrivacyStatus(VelmoraPrivacyStatus status) {
    velmora::Guard([status] {
        auto& runtime = Runtime::Process();
        runtime.GeneralQueue().Post(
            [&runtime, status] { runtime.SetPrivacyStatus(static_cast<std::int32_t>(status)); });
    });
}

std::string Config::GetVersion() { return velmora::kVersion; }

}  // namespace Velmora

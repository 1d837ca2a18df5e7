#include <velmora/Config.h>

#include "api/guard.h"
#include "core/version.h"

// Analytics: the privacy setter reaches the hit queue.
#include "analytics/hit_queue.h"

namespace Velmora {

using velmora::Runtime;

bool Config::GetDebugLogging() {
    return velmora::Call(false, [](Runtime& runtime) { return runtime.Log().DebugEnabled(); });
}

void Config::SetDebugLogging(bool enabled) {
    velmora::Post([enabled](Runtime& runtime) { runtime.Log().SetDebugEnabled(enabled); });
}

std::future<VelmoraPrivacyStatus> Config::GetPrivacyStatusAsync() {
    return velmora::PostForResult(VelmoraPrivacyStatus{}, [](Runtime& runtime, auto completion) {
        completion->Set(static_cast<VelmoraPrivacyStatus>(runtime.GetConfigSettings().Privacy()));
    });
}

void Config::SetPrivacyStatus(VelmoraPrivacyStatus status) {
    velmora::Post([status](Runtime& runtime) {
        // The hit queue must exist so that an opt-out also empties hits queued by earlier runs.
        runtime.GetHitQueue();
        runtime.SetPrivacyStatus(static_cast<std::int32_t>(status));
    });
}

std::string Config::GetVersion() { return velmora::kVersion; }

}  // namespace Velmora

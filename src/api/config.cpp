#include <velmora/Config.h>

#include "api/guard.h"
#include "core/runtime.h"
#include "core/version.h"

// Analytics: the privacy setter reaches the hit queue.
#include "analytics/hit_queue.h"

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
        // The hit queue must exist so that an opt-out also empties hits queued by earlier runs.
        runtime.Get<velmora::HitQueue>();
        runtime.GeneralQueue().Post(
            [&runtime, status] { runtime.SetPrivacyStatus(static_cast<std::int32_t>(status)); });
    });
}

std::string Config::GetVersion() { return velmora::kVersion; }

}  // namespace Velmora

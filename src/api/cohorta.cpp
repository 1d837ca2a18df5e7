#include <velmora/Cohorta.h>

#include "analytics/values.h"
#include "api/guard.h"
#include "cohorta/cohorta.h"
#include "core/runtime.h"

namespace Velmora {

using velmora::CohortaClient;
using velmora::Runtime;

std::optional<StringMap> Cohorta::GetVisitorProfile() {
    return velmora::Guard(std::optional<StringMap>(),
                          [] { return Runtime::Process().Get<CohortaClient>().GetVisitorProfile(); });
}

std::string Cohorta::GetDpuuid() {
    return velmora::Guard(std::string(), [] { return Runtime::Process().Get<CohortaClient>().GetDpuuid(); });
}

std::string Cohorta::GetDpid() {
    return velmora::Guard(std::string(), [] { return Runtime::Process().Get<CohortaClient>().GetDpid(); });
}

void Cohorta::SetDpidAndDpuuid(const std::string& dpid, const std::string& dpuuid) {
    velmora::Guard([&] { Runtime::Process().Get<CohortaClient>().SetDpidAndDpuuid(dpid, dpuuid); });
}

std::future<std::optional<StringMap>> Cohorta::SubmitSignal(const ObjectMap& traits) {
    return velmora::GuardFuture<std::optional<StringMap>>([&] {
        auto& runtime = Runtime::Process();
        return runtime.Get<CohortaClient>().SubmitSignal(velmora::TranslateContextData(traits, runtime.Log()));
    });
}

}  // namespace Velmora

#include <velmora/Cohorta.h>

#include "analytics/values.h"
#include "api/guard.h"
#include "cohorta/cohorta.h"

namespace Velmora {

using velmora::CohortaClient;
using velmora::Runtime;

std::optional<StringMap> Cohorta::GetVisitorProfile() {
    return velmora::Call(std::optional<StringMap>(),
                         [](Runtime& runtime) { return CohortaClient::GetVisitorProfile(runtime.GetSettingsStore()); });
}

// The identifiers live in the module; before it exists none has been set in this run.
std::string Cohorta::GetDpuuid() {
    return velmora::Call(std::string(), [](Runtime& runtime) {
        auto* client = runtime.CohortaClientIfCreated();
        return client != nullptr ? client->GetDpuuid() : std::string();
    });
}

std::string Cohorta::GetDpid() {
    return velmora::Call(std::string(), [](Runtime& runtime) {
        auto* client = runtime.CohortaClientIfCreated();
        return client != nullptr ? client->GetDpid() : std::string();
    });
}

void Cohorta::SetDpidAndDpuuid(const std::string& dpid, const std::string& dpuuid) {
    velmora::Post([dpid = velmora::ToValidUtf8(dpid), dpuuid = velmora::ToValidUtf8(dpuuid)](Runtime& runtime) { runtime.GetCohortaClient().SetDpidAndDpuuid(dpid, dpuuid); });
}

std::future<std::optional<StringMap>> Cohorta::SubmitSignal(const ObjectMap& traits) {
    std::optional<velmora::StringMap> translated;
    velmora::Call([&](Runtime& runtime) { translated = velmora::TranslateContextData(traits, runtime.Log()); });
    if (!translated) return velmora::ReadyFuture<std::optional<StringMap>>(std::nullopt);
    return velmora::PostForResult<std::optional<StringMap>>(
        std::nullopt, [traits = std::move(*translated)](Runtime& runtime, auto completion) mutable {
            auto& client = runtime.GetCohortaClient();
            velmora::CompleteAfter(client.Queue(), client.SubmitSignal(std::move(traits)), completion);
        });
}

}  // namespace Velmora

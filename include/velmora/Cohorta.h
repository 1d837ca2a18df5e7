#pragma once

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <future>
#include <optional>
#include <string>

namespace Velmora {

// The audience service: signals with the user's traits, the segment profile it answers with, and
// the data-provider identifiers sent along with each signal.
class VELMORA_API Cohorta {
public:
    static std::optional<StringMap> GetVisitorProfile();
    static std::string GetDpuuid();
    static std::string GetDpid();
    static void SetDpidAndDpuuid(const std::string& dpid, const std::string& dpuuid);
    static std::future<std::optional<StringMap>> SubmitSignal(const ObjectMap& traits);
};

}  // namespace Velmora

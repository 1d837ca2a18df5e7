#pragma once

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <future>
#include <string>

namespace Velmora {

class VELMORA_API Config {
public:
    static bool GetDebugLogging();
    static void SetDebugLogging(bool enabled);
    static std::future<VelmoraPrivacyStatus> GetPrivacyStatusAsync();
    static void SetPrivacyStatus(VelmoraPrivacyStatus status);
    static std::string GetVersion();
};

}  // namespace Velmora

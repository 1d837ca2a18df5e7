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

    // The visitor identifier: Get answers at once, Set stores it in the background.
    static std::string GetUserIdentifier();
    static void SetUserIdentifier(const std::string& identifier);

    static std::string GetVersion();
};

}  // namespace Velmora

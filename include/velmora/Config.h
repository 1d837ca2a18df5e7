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

    // Lifecycle: call when the application comes to the foreground (from the thread that owns its
    // window) and when it goes to the background.
    static void CollectLifecycleData();
    static void PauseCollectingLifecycleData();
    static double GetLifetimeValue();

    static std::future<VelmoraPrivacyStatus> GetPrivacyStatusAsync();
    static void SetPrivacyStatus(VelmoraPrivacyStatus status);

    // The visitor identifier: Get answers at once, Set stores it in the background.
    static std::string GetUserIdentifier();
    static void SetUserIdentifier(const std::string& identifier);

    static std::string GetVersion();
};

}  // namespace Velmora

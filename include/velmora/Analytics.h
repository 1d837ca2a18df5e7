#pragma once

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <future>
#include <string>

namespace Velmora {

class VELMORA_API Analytics {
public:
    // Lifetime value and timed actions.
    static void TrackLifetimeValueIncrease(float amount, const ObjectMap& contextData = {});
    static void TrackTimedActionStart(const std::string& action, const ObjectMap& contextData = {});
    static void TrackTimedActionUpdate(const std::string& action, const ObjectMap& contextData = {});
    static void TrackTimedActionEnd(const std::string& action);
    static std::future<bool> TrackingTimedActionExistsAsync(const std::string& action);
};

}  // namespace Velmora

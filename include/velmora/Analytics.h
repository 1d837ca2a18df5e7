#pragma once

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <cstdint>
#include <future>
#include <string>

namespace Velmora {

// States and actions of the application. Every call returns at once: the work runs on the
// library's queues, and hits wait in a persistent queue until they can be sent.
class VELMORA_API Analytics {
public:
    static void TrackState(const std::string& state, const ObjectMap& contextData = {});
    static void TrackAction(const std::string& action, const ObjectMap& contextData = {});
    // Position in degrees and its horizontal accuracy in metres.
    static void TrackLocation(double latitude, double longitude, double horizontalAccuracy,
                              const ObjectMap& contextData = {});

    // Lifetime value and timed actions.
    static void TrackLifetimeValueIncrease(float amount, const ObjectMap& contextData = {});
    static void TrackTimedActionStart(const std::string& action, const ObjectMap& contextData = {});
    static void TrackTimedActionUpdate(const std::string& action, const ObjectMap& contextData = {});
    static void TrackTimedActionEnd(const std::string& action);
    static std::future<bool> TrackingTimedActionExistsAsync(const std::string& action);

    static std::future<std::string> GetTrackingIdentifierAsync();
    static void ClearQueue();
    // Waits until the calls made before it have reached the queue; the number of hits waiting.
    // From a host callback (a library thread) it does not wait and counts the queue as it stands.
    static std::uint32_t GetQueueSize();
};

}  // namespace Velmora

#pragma once

#include "core/log.h"

#include <cstdint>
#include <string>

namespace velmora {

// The analytics side that other modules send their hits through. Both operations post the hit to
// the analytics queue and return; the callers have already applied whatever gate they need.
class ActionTracker {
public:
    virtual ~ActionTracker() = default;
    // An ordinary action hit ("AMACTION:" + name), timestamped now.
    virtual void TrackAction(const std::string& name, const StringMap& contextData) = 0;
    // A library-internal action hit ("VLMINTERNAL:" + name); a timestamp below 1 means now.
    virtual void TrackInternalAction(const std::string& name, const StringMap& contextData,
                                     std::int32_t timestamp) = 0;
};

}  // namespace velmora

#pragma once

#include "core/config.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace velmora {

// Moments and durations are whole seconds in a signed 32-bit integer. Sums and differences wrap
// the way 32-bit arithmetic does instead of being undefined when a clock jumps far.
inline std::int32_t AddSeconds(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

inline std::int32_t SubtractSeconds(std::int32_t later, std::int32_t earlier) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(later) - static_cast<std::uint32_t>(earlier));
}

}  // namespace velmora

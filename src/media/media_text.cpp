#include "media/media_text.h"

#include <cmath>
#include <cstdio>

namespace velmora {

std::string WholeNumberText(double value) {
    // "%.0f" prints huge values in full, where a cast to an integer type would be undefined.
    const double whole = std::floor(value) + 0.0;  // + 0.0 turns -0 into 0
    char buffer[400];
    std::snprintf(buffer, sizeof buffer, "%.0f", whole);
    return buffer;
}

}  // namespace velmora

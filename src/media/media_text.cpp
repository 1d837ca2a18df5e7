#include "media/media_text.h"

#include "core/number_text.h"

#include <cmath>

namespace velmora {

std::string WholeNumberText(double value) {
    // Printed in full: a cast of a huge value to an integer type would be undefined.
    return FixedText(std::floor(value) + 0.0, 0);  // + 0.0 turns -0 into 0
}

}  // namespace velmora

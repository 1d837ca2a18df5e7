#pragma once

#include <string>

namespace velmora {

// `value` rounded down, as a plain decimal integer ("100", "-3"); any magnitude, no exponent.
std::string WholeNumberText(double value);

}  // namespace velmora

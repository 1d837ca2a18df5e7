#include "core/number_text.h"

#include <charconv>

namespace velmora {

std::string FixedText(double value, int decimals) {
    char buffer[400];  // the largest double has 309 digits before the point
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, decimals);
    return result.ec == std::errc() ? std::string(buffer, result.ptr) : std::string();
}

}  // namespace velmora

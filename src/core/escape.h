#pragma once

#include <string>
#include <string_view>

namespace velmora {

// Percent-encodes every UTF-8 octet outside "A-Z a-z 0-9 - . _ ~", with upper-case hex digits.
std::string EscapeComponent(std::string_view text);

}  // namespace velmora

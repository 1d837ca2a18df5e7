#pragma once

#include <string>
#include <string_view>

namespace velmora {

// True when `text` is well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF,
// no sequence cut short.
bool IsValidUtf8(std::string_view text);

// `text` with every ill-formed part replaced by U+FFFD, one replacement for each maximal subpart
// of an ill-formed sequence (the practice Unicode and WHATWG recommend). Text that is already valid
// comes back unchanged, without a copy.
std::string ToValidUtf8(std::string text);

}  // namespace velmora

#pragma once

#include <velmora/Version.h>

namespace velmora {
inline constexpr const char* kVersion = VELMORA_VERSION_STRING;
}

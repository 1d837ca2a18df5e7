#pragma once

namespace velmora {
inline constexpr const char* kVersion = "4.0.0";
}

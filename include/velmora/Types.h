#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <variant>

namespace Velmora {

enum class VelmoraPrivacyStatus : std::int32_t { OptIn = 1, OptOut = 2, Unknown = 3 };

using DateTime = std::chrono::system_clock::time_point;

// Context-data values. Null and dates are accepted by the API but skipped when a hit is built.
using Object = std::variant<std::nullptr_t, std::string, std::int16_t, std::int32_t, std::int64_t,
                            std::uint16_t, std::uint32_t, std::uint64_t, float, double, bool, DateTime>;
using ObjectMap = std::map<std::string, Object>;
using StringMap = std::map<std::string, std::string>;

}  // namespace Velmora

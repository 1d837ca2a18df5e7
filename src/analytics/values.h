#pragma once

#include "core/log.h"

#include <velmora/Types.h>

#include <optional>
#include <string>

namespace velmora {

// The text of one context-data value: integers in decimal, floating-point numbers in their shortest
// round-trip form, booleans as "true" / "false"; strings made valid UTF-8. Null and dates have no
// text and are skipped.
std::optional<std::string> ValueText(const Velmora::Object& value);

// The caller's context data as the internal string map, keys made valid UTF-8; values without a text
// are skipped silently.
StringMap TranslateContextData(const Velmora::ObjectMap& contextData, const Logger& log);

}  // namespace velmora

#pragma once

#include "recent_hits.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::collector {

// "2024-05-01 12:00:00 UTC" for milliseconds since 1970.
std::string FormatUtc(std::int64_t millis);

// Control characters shown as "\n", "\t" or "\xHH", so that a value cannot move the terminal's
// cursor or split a block; bytes that are not UTF-8 shown as U+FFFD.
std::string Printable(std::string_view text);

// "key = value" lines, keys padded to one width, each line indented by `indent` blanks.
std::string AlignedEntries(const StringMap& entries, std::size_t indent);

// The hit as one JSON object: "kind" "hit", "id", "received", "status", "reportSuites",
// "platform", "cacheBuster", "ts" (when the hit carries a numeric one), "variables",
// "contextData", "url".
nlohmann::json HitJson(const ReceivedHit& hit);

// The hit as a few aligned lines for a terminal, ending with an empty line.
std::string HitBlock(const ReceivedHit& hit);

// One line of JSON text; invalid UTF-8 is replaced instead of throwing.
std::string JsonLine(const nlohmann::json& value);

}  // namespace velmora::collector

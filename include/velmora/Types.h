#pragma once

/// @file
/// The value types of the public API: the privacy status, context-data values and maps.

#if __cplusplus < 201703L
#error "Velmora needs C++17 or later: compile with -std=c++17 (C programs include <velmora.h>)"
#endif

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <variant>

/// In-app measurement for Linux applications.
///
/// Every operation is a static member of one of the classes `Config`, `Analytics`, `Media`,
/// `Vantor`, `Cohorta` and `Host`. Any thread may call any of them, and none of them throws: a
/// problem becomes a log line (see HostOptions::logSink). Work that needs files or the network runs
/// on the library's own threads; a call that returns a `std::future` completes it there.
namespace Velmora {

/// The user's choice about measurement. It is kept in the local directory, so it survives restarts
/// and wins over the configuration's "privacyDefault" once the application has set one.
enum class VelmoraPrivacyStatus : std::int32_t {
    OptIn = 1,    ///< Hits are sent.
    OptOut = 2,   ///< Tracking calls are dropped and the hit queue is emptied; nothing is sent.
    Unknown = 3   ///< Hits are queued (marked "a.privacy.mode" = "unknown") but not sent until OptIn.
};

/// A point in time. Context data of this type is accepted but skipped when a hit is built.
using DateTime = std::chrono::system_clock::time_point;

/// One context-data value. Strings are sent as they are, integers in decimal, `float` and `double`
/// in their shortest round-trip form, `bool` as "true" / "false". Null and DateTime values are
/// accepted but skipped when a hit is built. A string literal becomes a string, never a `bool`.
using Object = std::variant<std::nullptr_t, std::string, std::int16_t, std::int32_t, std::int64_t,
                            std::uint16_t, std::uint32_t, std::uint64_t, float, double, bool, DateTime>;

/// Context data: keys and values that travel with a hit (or an offer request, or an audience
/// signal). Hits carry the keys without their dots ("a.b" arrives as "ab"); a key that begins with
/// "&&" becomes a top-level variable of the hit ("&&pageName" overrides the state name). Keys are
/// ordered by plain byte comparison.
using ObjectMap = std::map<std::string, Object>;

/// A map of texts: an audience profile, segment name to value.
using StringMap = std::map<std::string, std::string>;

}  // namespace Velmora

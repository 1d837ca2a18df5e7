#pragma once

#include <atomic>
#include <cstdarg>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace velmora {

using StringMap = std::map<std::string, std::string>;
using LogSink = std::function<void(std::string_view line)>;

// The library's three-level debug output. Debug and warning lines are written only while the
// debug switch is on, and cost one flag test when it is off; error lines are always written.
// Each line reaches the sink in one call, so lines of different threads never interleave. Formats
// are printf's, converted under the "C" locale whatever locale the application chose.
class Logger {
public:
    static constexpr std::size_t kMaxMessage = 10240;  // characters, terminator included

    explicit Logger(LogSink sink = {});

    void SetDebugEnabled(bool enabled) { debug_.store(enabled, std::memory_order_relaxed); }
    bool DebugEnabled() const { return debug_.load(std::memory_order_relaxed); }

    void Debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Warning(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Error(const char* format, ...) const __attribute__((format(printf, 2, 3)));

private:
    void Write(const char* prefix, const char* format, va_list args) const;

    LogSink sink_;
    std::atomic<bool> debug_{false};
};

// "\n    key = value" per entry, in key order; empty for an empty map.
std::string FormatMapForLog(const StringMap& map);

// Writes to standard error in one call.
void WriteToStandardError(std::string_view line);

}  // namespace velmora

#include "core/log.h"

#include <cstdarg>
#include <cstdio>
#include <locale.h>
#include <memory>

namespace velmora {
namespace {

// The "C" locale, made once and never freed: threads may be formatting with it at exit.
locale_t ClassicLocale() {
    static const locale_t classic = ::newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
    return classic;
}

}  // namespace

Logger::Logger(LogSink sink) : sink_(sink ? std::move(sink) : LogSink(WriteToStandardError)) {}

void Logger::Debug(const char* format, ...) const {
    if (!DebugEnabled()) return;
    va_list args;
    va_start(args, format);
    Write("Velmora Debug:", format, args);
    va_end(args);
}

void Logger::Warning(const char* format, ...) const {
    if (!DebugEnabled()) return;
    va_list args;
    va_start(args, format);
    Write("Velmora Warning:", format, args);
    va_end(args);
}

void Logger::Error(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    Write("Velmora Error:", format, args);
    va_end(args);
}

void Logger::Write(const char* prefix, const char* format, va_list args) const {
    // One byte more than a line keeps: the first byte left out tells whether the cut splits a character.
    auto buffer = std::make_unique<char[]>(kMaxMessage + 1);
    // "%f" writes the same digits whatever locale the application set: this thread formats under
    // the "C" locale for the length of the call.
    const locale_t classic = ClassicLocale();
    const locale_t previous = classic ? ::uselocale(classic) : nullptr;
    int written = std::vsnprintf(buffer.get(), kMaxMessage + 1, format, args);
    if (previous) ::uselocale(previous);
    if (written < 0) return;
    std::size_t length = static_cast<std::size_t>(written);
    if (length >= kMaxMessage) {
        // Truncated: do not leave half of a UTF-8 sequence at the end.
        length = kMaxMessage - 1;
        while (length > 0 && (static_cast<unsigned char>(buffer[length]) & 0xC0) == 0x80) --length;
    }
    std::string line(prefix);
    line.append(buffer.get(), length);
    line.push_back('\n');
    try {
        sink_(line);
    } catch (...) {
        // A failing sink must not take the library down with it.
    }
}

std::string FormatMapForLog(const StringMap& map) {
    std::string text;
    for (const auto& [key, value] : map) {
        text += "\n    ";
        text += key;
        text += " = ";
        text += value;
    }
    return text;
}

void WriteToStandardError(std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace velmora

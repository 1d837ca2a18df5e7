#include "analytics/values.h"

#include "core/utf8.h"

#include <charconv>
#include <type_traits>

namespace velmora {
namespace {

template <class T>
std::string NumberText(T value) {
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

}  // namespace

std::optional<std::string> ValueText(const Velmora::Object& value) {
    return std::visit(
        [](const auto& v) -> std::optional<std::string> {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>) {
                return ToValidUtf8(v);
            } else if constexpr (std::is_same_v<T, bool>) {
                return std::string(v ? "true" : "false");
            } else if constexpr (std::is_arithmetic_v<T>) {
                return NumberText(v);
            } else {
                return std::nullopt;  // null, dates
            }
        },
        value);
}

StringMap TranslateContextData(const Velmora::ObjectMap& contextData, const Logger& log) {
    StringMap translated;
    for (const auto& [key, value] : contextData) {
        std::string name = ToValidUtf8(key);
        try {
            if (auto text = ValueText(value)) translated.emplace(std::move(name), std::move(*text));
        } catch (const std::exception&) {
            log.Debug("Analytics - Unable to translate value for context data key (%s)", name.c_str());
        }
    }
    return translated;
}

}  // namespace velmora

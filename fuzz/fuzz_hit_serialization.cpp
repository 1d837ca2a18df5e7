// Value translation and hit serialization: any context data, variables and identifiers give one
// hit string of the fixed frame whose every character is unreserved or a separator, and the hit
// survives the queue file unchanged.
#include "analytics/hit_builder.h"
#include "analytics/hit_queue.h"
#include "analytics/values.h"
#include "core/utf8.h"
#include "numbers.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <map>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Velmora::Object;

Object ConsumeObject(FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange(0, 11)) {
        case 0: return nullptr;
        case 1: return input.ConsumeRandomLengthString(64);
        case 2: return input.ConsumeIntegral<std::int16_t>();
        case 3: return input.ConsumeIntegral<std::int32_t>();
        case 4: return input.ConsumeIntegral<std::int64_t>();
        case 5: return input.ConsumeIntegral<std::uint16_t>();
        case 6: return input.ConsumeIntegral<std::uint32_t>();
        case 7: return input.ConsumeIntegral<std::uint64_t>();
        case 8: return ConsumeAnyFloat<float>(input);
        case 9: return ConsumeAnyFloat<double>(input);
        case 10: return input.ConsumeBool();
        default: return Velmora::DateTime(std::chrono::seconds(input.ConsumeIntegral<std::int32_t>()));
    }
}

// The text must read back as the same number.
template <class T>
bool ReadsBack(const std::string& text, T value) {
    T parsed{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (error != std::errc() || end != text.data() + text.size()) return false;
    if constexpr (std::is_floating_point_v<T>) {
        if (std::isnan(value)) return std::isnan(parsed);
        return std::memcmp(&parsed, &value, sizeof value) == 0 || (value == 0 && parsed == 0);
    } else {
        return parsed == value;
    }
}

bool MatchesValue(const std::string& text, const Object& value) {
    return std::visit(
        [&](const auto& v) {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>) {
                return text == velmora::ToValidUtf8(v);
            } else if constexpr (std::is_same_v<T, bool>) {
                return text == (v ? "true" : "false");
            } else if constexpr (std::is_arithmetic_v<T>) {
                return ReadsBack(text, v);
            } else {
                return false;  // null and dates have no text
            }
        },
        value);
}

bool Unreserved(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~';
}

bool UpperHex(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

// Frame and alphabet of a hit string.
bool WellFormedHit(const std::string& hit) {
    static const std::string kOpen = "?AQB=1&ndh=1";
    static const std::string kClose = "&AQE=1";
    if (hit.size() < 2 || hit[0] != 's') return false;
    std::size_t i = 1;
    while (i < hit.size() && hit[i] >= '0' && hit[i] <= '9') ++i;
    if (i == 1 || hit.compare(i, kOpen.size(), kOpen) != 0) return false;
    if (hit.size() < i + kOpen.size() + kClose.size()) return false;
    if (hit.compare(hit.size() - kClose.size(), kClose.size(), kClose) != 0) return false;
    for (std::size_t j = i + kOpen.size(); j < hit.size(); ++j) {
        const char c = hit[j];
        if (c == '%') {
            if (j + 2 >= hit.size() || !UpperHex(hit[j + 1]) || !UpperHex(hit[j + 2])) return false;
            j += 2;
        } else if (!Unreserved(c) && c != '&' && c != '=') {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static velmora::Logger log([](std::string_view) {});
    static velmora::HitBuilder builder(300);
    FuzzedDataProvider input(data, size);

    Velmora::ObjectMap contextData;
    const int entries = input.ConsumeIntegralInRange(0, 12);
    for (int i = 0; i < entries; ++i) {
        std::string key = input.ConsumeRandomLengthString(24);
        contextData[std::move(key)] = ConsumeObject(input);
    }
    const velmora::StringMap translated = velmora::TranslateContextData(contextData, log);
    for (const auto& [key, text] : translated) {
        if (!velmora::IsValidUtf8(key) || !velmora::IsValidUtf8(text)) __builtin_trap();
    }
    // Keys that become the same valid text share one entry; the others each keep theirs.
    std::map<std::string, int> names;
    for (const auto& entry : contextData) ++names[velmora::ToValidUtf8(entry.first)];
    for (const auto& [key, value] : contextData) {
        if (names[velmora::ToValidUtf8(key)] > 1) continue;
        auto it = translated.find(velmora::ToValidUtf8(key));
        const bool hasText = velmora::ValueText(value).has_value();
        if (hasText != (it != translated.end())) __builtin_trap();
        if (hasText && !MatchesValue(it->second, value)) __builtin_trap();
    }

    velmora::StringMap variables;
    const int variableCount = input.ConsumeIntegralInRange(0, 4);
    for (int i = 0; i < variableCount; ++i) {
        std::string key = input.ConsumeRandomLengthString(16);
        variables[std::move(key)] = input.ConsumeRandomLengthString(32);
    }
    velmora::HitFacts facts;
    facts.aid = input.ConsumeRandomLengthString(40);
    facts.visitorId = input.ConsumeRandomLengthString(40);
    facts.charset = input.ConsumeRandomLengthString(16);
    facts.offlineEnabled = input.ConsumeBool();
    facts.privacyStatus = input.ConsumeIntegralInRange<std::int32_t>(0, 4);
    facts.deviceContext = {{"a.DeviceName", input.ConsumeRandomLengthString(32)}, {"a.OSVersion", "Windows Phone 8.1"}};
    const auto timestamp = input.ConsumeIntegral<std::int32_t>();

    const std::string hit = builder.Build(translated, variables, timestamp, facts);
    if (!WellFormedHit(hit)) __builtin_trap();
    if (facts.offlineEnabled && !variables.count("ts") &&
        hit.find("&ts=" + std::to_string(timestamp)) == std::string::npos) {
        // Only a context key "&&ts" may take the variable's place.
        if (!translated.count("&&ts")) __builtin_trap();
    }

    std::vector<velmora::QueuedHit> reread;
    velmora::ParseQueueFile("{\"Hits\":[" + velmora::QueueFileMember(hit, timestamp) + "]}", reread);
    if (reread.size() != 1 || reread[0].hit != hit || reread[0].timestamp != timestamp) __builtin_trap();
    return 0;
}

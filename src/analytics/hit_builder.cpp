#include "analytics/hit_builder.h"

#include "core/escape.h"
#include "core/version.h"

#include <cstdlib>
#include <ctime>
#include <locale>
#include <memory>
#include <vector>

namespace velmora {
namespace {

// Classic locale on purpose: what counts as a word character must not depend on the application's
// global locale.
std::regex Compile(const char* pattern) {
    std::regex regex;
    regex.imbue(std::locale::classic());
    regex.assign(pattern, std::regex::ECMAScript | std::regex::optimize);
    return regex;
}

void AppendPair(std::string& out, const std::string& key, const std::string& value) {
    out += '&';
    out += EscapeComponent(key);
    out += '=';
    out += EscapeComponent(value);
}

}  // namespace

KeyCleaner::KeyCleaner() : nonWordOrDot_(Compile(R"([\W.])")) {}

const std::string& KeyCleaner::Clean(const std::string& key) {
    auto found = remembered_.find(key);
    if (found != remembered_.end()) return found->second;
    if (remembered_.size() >= kMaxRemembered) remembered_.clear();
    std::string cleaned = std::regex_replace(key, nonWordOrDot_, "");
    return remembered_.emplace(key, std::move(cleaned)).first->second;
}

std::string SerializeBody(const StringMap& variables, const StringMap& contextData, KeyCleaner& cleaner) {
    std::string out;
    out.reserve(512);
    for (const auto& [key, value] : variables) AppendPair(out, key, value);
    if (!contextData.empty()) {
        StringMap cleaned;
        for (const auto& [key, value] : contextData) cleaned.emplace(cleaner.Clean(key), value);
        out += "&c.";
        for (const auto& [key, value] : cleaned) {
            if (!key.empty() && !value.empty()) AppendPair(out, key, value);
        }
        out += "&.c";
    }
    return out;
}

std::string TimeZoneText(long biasMinutes) { return "00/00/0000 00:00:00 0 " + std::to_string(biasMinutes); }

long LocalTimeZoneBiasMinutes() {
    tzset();
    return timezone / 60;
}

std::uint64_t CacheBuster(std::uint32_t counter) {
    // The C library's rand() is random() on a 128-byte state of type 3; the reentrant functions on
    // a state of our own draw the same numbers and leave the application's rand() where it was.
    alignas(std::int32_t) char state[128];
    random_data generator{};
    std::int32_t a = 0, b = 0;
    ::initstate_r(counter, state, sizeof state, &generator);
    ::random_r(&generator, &a);
    ::random_r(&generator, &b);
    return ((static_cast<std::uint64_t>(a) << 32) + static_cast<std::uint64_t>(b)) % 10'000'000;
}

std::string BaseUrl(const ConfigSettings& config) {
    return std::string(config.ssl ? "https" : "http") + "://" + config.server + "/b/ss/" + config.rsids + "/0/WINU-" +
           kVersion + "/";
}

HitBuilder::HitBuilder() : HitBuilder(LocalTimeZoneBiasMinutes()) {}

HitBuilder::HitBuilder(long timeZoneBiasMinutes) : timeZone_(TimeZoneText(timeZoneBiasMinutes)) {}

std::string HitBuilder::Build(StringMap contextData, StringMap variables, std::int32_t timestamp,
                              const HitFacts& facts) {
    // Insert-if-absent throughout: what the caller supplied wins.
    for (const auto& entry : facts.deviceContext) contextData.insert(entry);
    if (facts.privacyStatus == kPrivacyUnknown) contextData.emplace("a.privacy.mode", "unknown");

    variables.emplace("aid", facts.aid);
    if (!facts.visitorId.empty()) variables.emplace("vid", facts.visitorId);
    variables.emplace("ce", facts.charset);
    if (facts.offlineEnabled) variables.emplace("ts", std::to_string(static_cast<long>(timestamp)));
    variables.emplace("t", timeZone_);

    // "&&name" context entries are how other modules set top-level variables; they overwrite.
    for (auto it = contextData.begin(); it != contextData.end();) {
        const std::string& key = it->first;
        if (key.empty()) {
            it = contextData.erase(it);
        } else if (key.size() >= 3 && key[0] == '&' && key[1] == '&') {
            variables[key.substr(2)] = std::move(it->second);
            it = contextData.erase(it);
        } else {
            ++it;
        }
    }

    ++counter_;
    std::string hit = "s" + std::to_string(CacheBuster(counter_)) + "?AQB=1&ndh=1";
    hit += SerializeBody(variables, contextData, cleaner_);
    hit += "&AQE=1";
    return hit;
}

}  // namespace velmora

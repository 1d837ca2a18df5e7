#pragma once

#include "core/config.h"
#include "core/log.h"

#include <cstdint>
#include <regex>
#include <string>
#include <unordered_map>

namespace velmora {

// Makes context-data keys safe for the context group: every non-word character and every dot is
// removed, so a key never opens a nested group. Results are remembered: the same few keys come back
// in almost every hit. Not thread-safe; one hit builder owns one cleaner.
class KeyCleaner {
public:
    KeyCleaner();
    const std::string& Clean(const std::string& key);

private:
    static constexpr std::size_t kMaxRemembered = 4096;

    std::regex nonWordOrDot_;
    std::unordered_map<std::string, std::string> remembered_;
};

// Everything between "?AQB=1&ndh=1" and "&AQE=1": the variables, then the context group when there
// is context data, its entries in cleaned-key order; an entry whose key cleans to nothing, or whose
// value is empty, is left out.
std::string SerializeBody(const StringMap& variables, const StringMap& contextData, KeyCleaner& cleaner);

// What every hit carries besides its own variables and context data.
struct HitFacts {
    StringMap deviceContext;
    std::string aid;
    std::string visitorId;
    std::string charset;
    bool offlineEnabled = false;
    std::int32_t privacyStatus = kPrivacyOptIn;
};

// "00/00/0000 00:00:00 0 " followed by the zone's standard offset in minutes west of UTC.
std::string TimeZoneText(long biasMinutes);
long LocalTimeZoneBiasMinutes();  // from tzset() and timezone; daylight saving is ignored

// The cache buster for the n-th hit: the first two numbers of the C library's rand() seeded with the
// counter, on purpose, so that every run of the process produces the same sequence. They come from
// a generator state of the library's own; the application's rand() is never reseeded or advanced.
std::uint64_t CacheBuster(std::uint32_t counter);

// "http(s)://" + server + "/b/ss/" + rsids + "/0/WINU-" + version + "/".
std::string BaseUrl(const ConfigSettings& config);

// Turns one hit's context data, variables and timestamp into its hit string. Owns the cleaner, the
// cache-buster counter and the time-zone text, which it computes once. Runs on one thread (the
// analytics queue).
class HitBuilder {
public:
    HitBuilder();
    explicit HitBuilder(long timeZoneBiasMinutes);

    // "s" + cache buster + "?AQB=1&ndh=1" + body + "&AQE=1"
    std::string Build(StringMap contextData, StringMap variables, std::int32_t timestamp, const HitFacts& facts);

    const std::string& TimeZone() const { return timeZone_; }

private:
    KeyCleaner cleaner_;
    std::uint32_t counter_ = 0;
    std::string timeZone_;
};

}  // namespace velmora

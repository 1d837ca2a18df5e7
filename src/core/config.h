#pragma once

#include "core/log.h"
#include "core/settings_store.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace velmora {

// A number read from a document or a stored text, truncated toward zero into the 32-bit range.
std::int32_t TruncateToInt32(double value);

enum PrivacyStatus : std::int32_t { kPrivacyOptIn = 1, kPrivacyOptOut = 2, kPrivacyUnknown = 3 };

struct PointOfInterest {
    std::string name;
    double latitude = 0;
    double longitude = 0;
    double radius = 0;
};

// The process's configuration, read once from "VelmoraConfig.json". A missing or unreadable file
// leaves every field at zero: every module then sees itself unconfigured. Only the privacy status
// changes afterwards.
struct ConfigSettings {
    std::string version;
    std::int32_t batchLimit = 0;
    bool offlineEnabled = false;
    bool ssl = false;
    std::int32_t lifecycleTimeout = 0;
    std::string charset;
    std::string rsids;
    std::string server;
    std::atomic<std::int32_t> privacyStatus{0};
    std::vector<PointOfInterest> pointsOfInterest;
    std::int32_t vantorTimeout = 0;
    std::string vantorClientCode;
    std::string cohortaServer;

    // Which module sections were JSON objects.
    bool analyticsSection = false;
    bool vantorSection = false;
    bool cohortaSection = false;

    std::int32_t Privacy() const { return privacyStatus.load(std::memory_order_relaxed); }
};

inline constexpr const char* kConfigFileName = "VelmoraConfig.json";
inline constexpr const char* kPrivacyStatusKey = "PrivacyStatus";

// "optedin", "optedout", "optunknown"; anything else (other case included) is OptIn.
std::int32_t PrivacyStatusFromString(const std::string& text);
// "opted in", "opted out", "unknown", or "invalid" for any other value; for log lines.
const char* PrivacyStatusText(std::int32_t status);

// Parses the config text as the file loader does (logging as it goes); null when unusable.
std::unique_ptr<ConfigSettings> ParseConfig(const std::string& text, SettingsStore& settings, const Logger& log);

// Reads `packageDirectory`/VelmoraConfig.json and builds the record; never null.
std::unique_ptr<ConfigSettings> LoadConfig(const std::filesystem::path& packageDirectory, SettingsStore& settings,
                                           const Logger& log);

// Whether each module is usable. Each answer is decided on first use and kept for the process.
class ModuleGates {
public:
    explicit ModuleGates(const ConfigSettings& config) : config_(config) {}
    bool Analytics();  // report suites and tracking server both set
    bool Vantor();     // client code set
    bool Cohorta();    // audience server set

private:
    const ConfigSettings& config_;
    std::once_flag analyticsOnce_, vantorOnce_, cohortaOnce_;
    bool analytics_ = false, vantor_ = false, cohorta_ = false;
};

// What the privacy setter asks of the hit queue.
class HitQueueControl {
public:
    virtual ~HitQueueControl() = default;
    virtual void ClearQueue() = 0;   // opt-out: empty the queue and its file
    virtual void StartSender() = 0;  // send trigger: applies the start rule
    virtual std::size_t QueuedHits() const = 0;
};

// The run-time change of the privacy status, with its deliberate order: the value reaches memory
// before it is validated.
void SetPrivacyStatus(ConfigSettings& config, std::int32_t status, SettingsStore& settings, const Logger& log,
                      HitQueueControl* hitQueue);

}  // namespace velmora

#include "core/config.h"

#include "core/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <unistd.h>

namespace velmora {
namespace {

using Json = nlohmann::json;

void ReadString(const Json& section, const char* key, std::string& field, const char* fallback) {
    auto it = section.find(key);
    field = (it != section.end() && it->is_string()) ? it->get<std::string>() : fallback;
}

void ReadNumber(const Json& section, const char* key, std::int32_t& field, std::int32_t fallback) {
    auto it = section.find(key);
    field = (it != section.end() && it->is_number()) ? TruncateToInt32(it->get<double>()) : fallback;
}

void ReadBool(const Json& section, const char* key, bool& field, bool fallback) {
    auto it = section.find(key);
    field = (it != section.end() && it->is_boolean()) ? it->get<bool>() : fallback;
}

std::vector<PointOfInterest> ReadPointsOfInterest(const Json& array) {
    std::vector<PointOfInterest> points;
    for (const auto& element : array) {
        if (!element.is_array() || element.size() != 4) continue;
        if (!element[0].is_string() || !element[1].is_number() || !element[2].is_number() ||
            !element[3].is_number()) {
            continue;
        }
        points.push_back({element[0].get<std::string>(), element[1].get<double>(), element[2].get<double>(),
                          element[3].get<double>()});
    }
    return points;
}

void ReadAnalytics(const Json& section, ConfigSettings& config, SettingsStore& settings, const Logger& log) {
    ReadString(section, "rsids", config.rsids, "");
    ReadString(section, "server", config.server, "");
    ReadNumber(section, "batchLimit", config.batchLimit, 0);
    ReadString(section, "charset", config.charset, "UTF-8");
    ReadNumber(section, "lifecycleTimeout", config.lifecycleTimeout, 300);
    ReadBool(section, "offlineEnabled", config.offlineEnabled, false);
    if (auto poi = section.find("poi"); poi != section.end() && poi->is_array()) {
        config.pointsOfInterest = ReadPointsOfInterest(*poi);
    }

    std::int32_t status = kPrivacyOptIn;
    if (auto stored = LookupInt32(settings, kPrivacyStatusKey)) {
        status = *stored;
    } else if (auto def = section.find("privacyDefault"); def != section.end() && def->is_string()) {
        status = PrivacyStatusFromString(def->get<std::string>());
    }
    if (status == kPrivacyUnknown && !config.offlineEnabled) {
        log.Warning("Analytics - Default privacy status cannot be Unknown when offline tracking is disabled, "
                    "overriding to OptIn");
        status = kPrivacyOptIn;
    }
    config.privacyStatus = status;

    ReadBool(section, "ssl", config.ssl, false);
}

// The whole file, or nothing when there is none. Any other failure (a directory of that name, a
// read error) throws with the system's message.
std::optional<std::string> ReadWholeFile(const std::filesystem::path& path) {
    const Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
        throw std::system_error(errno, std::generic_category());
    }
    std::string text;
    char buffer[16384];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n > 0) {
            text.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0) {
            return text;
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category());
        }
    }
}

std::string StripByteOrderMark(std::string text) {
    if (text.rfind("\xEF\xBB\xBF", 0) == 0) text.erase(0, 3);
    return text;
}

}  // namespace

std::int32_t TruncateToInt32(double value) {
    if (std::isnan(value)) return 0;
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(std::clamp(value, static_cast<double>(Limits::min()), static_cast<double>(Limits::max())));
}

const char* PrivacyStatusText(std::int32_t status) {
    switch (status) {
        case kPrivacyOptIn: return "opted in";
        case kPrivacyOptOut: return "opted out";
        case kPrivacyUnknown: return "unknown";
        default: return "invalid";
    }
}

std::int32_t PrivacyStatusFromString(const std::string& text) {
    if (text == "optedin") return kPrivacyOptIn;
    if (text == "optedout") return kPrivacyOptOut;
    if (text == "optunknown") return kPrivacyUnknown;
    return kPrivacyOptIn;
}

std::unique_ptr<ConfigSettings> ParseConfig(const std::string& text, SettingsStore& settings, const Logger& log) {
    auto root = Json::parse(StripByteOrderMark(text), nullptr, false);
    if (!root.is_object()) {
        log.Error("Config - Unable to parse local config file (empty or malformed json)");
        return nullptr;
    }
    auto config = std::make_unique<ConfigSettings>();
    ReadString(root, "version", config->version, "1.0");

    if (auto analytics = root.find("analytics"); analytics != root.end() && analytics->is_object()) {
        config->analyticsSection = true;
        ReadAnalytics(*analytics, *config, settings, log);
    } else {
        log.Debug("Config - Analytics not configured");
    }
    if (auto vantor = root.find("vantor"); vantor != root.end() && vantor->is_object()) {
        config->vantorSection = true;
        ReadString(*vantor, "clientCode", config->vantorClientCode, "");
        ReadNumber(*vantor, "timeout", config->vantorTimeout, 2);
    } else {
        log.Debug("Config - Vantor not configured");
    }
    if (auto cohorta = root.find("cohorta"); cohorta != root.end() && cohorta->is_object()) {
        config->cohortaSection = true;
        ReadString(*cohorta, "server", config->cohortaServer, "");
    } else {
        log.Debug("Config - Cohorta not configured");
    }
    return config;
}

std::unique_ptr<ConfigSettings> LoadConfig(const std::filesystem::path& packageDirectory, SettingsStore& settings,
                                           const Logger& log) {
    std::unique_ptr<ConfigSettings> config;
    const std::string name = kConfigFileName;
    try {
        if (auto text = ReadWholeFile(packageDirectory / name)) {
            config = ParseConfig(*text, settings, log);
        } else {
            log.Error("Config - Unable to find local VelmoraConfig.json file");
        }
    } catch (const std::exception& e) {
        log.Error("Config - Unable to load local config file (%s)", e.what());  // `config` is still empty
    }
    if (config) return config;
    // The lines above name the file only by its name; velmora-check explains what is wrong with it.
    log.Error("Config - The config file looked for is %s (velmora-check explains it)",
              (packageDirectory / name).string().c_str());
    return std::make_unique<ConfigSettings>();
}

bool ModuleGates::Analytics() {
    std::call_once(analyticsOnce_, [this] { analytics_ = !config_.rsids.empty() && !config_.server.empty(); });
    return analytics_;
}

bool ModuleGates::Vantor() {
    std::call_once(vantorOnce_, [this] { vantor_ = !config_.vantorClientCode.empty(); });
    return vantor_;
}

bool ModuleGates::Cohorta() {
    std::call_once(cohortaOnce_, [this] { cohorta_ = !config_.cohortaServer.empty(); });
    return cohorta_;
}

void SetPrivacyStatus(ConfigSettings& config, std::int32_t status, SettingsStore& settings, const Logger& log,
                      HitQueueControl* hitQueue) {
    if (status == kPrivacyUnknown && !config.offlineEnabled) {
        log.Warning("Analytics - Cannot set privacy status to unknown when offline tracking is disabled.");
        return;
    }
    config.privacyStatus = status;
    if (status == kPrivacyOptIn || status == kPrivacyUnknown) {
        settings.Insert(kPrivacyStatusKey, status);
    } else if (status == kPrivacyOptOut) {
        settings.Insert(kPrivacyStatusKey, status);
        if (hitQueue != nullptr) hitQueue->ClearQueue();
    } else {
        log.Warning("Analytics - Invalid privacy status was ignored (%d)", status);
    }
    if (hitQueue != nullptr) hitQueue->StartSender();
}

}  // namespace velmora

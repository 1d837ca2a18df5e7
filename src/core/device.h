#pragma once

#include "core/config.h"
#include "core/host.h"
#include "core/http.h"
#include "core/log.h"
#include "core/settings_store.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <regex>
#include <string>

namespace velmora {

inline constexpr const char* kVisitorIdKey = "VLMO_Tallyscope_StoredDefaults_VisitorID";
inline constexpr const char* kAidKey = "VELMORA_STOREDDEFAULTS_AID";

// The identifier in the tracking server's "/id" answer: the "id" string of a body that begins with
// "{" and parses as a JSON object; empty for any other body.
std::string AidFromAnswer(const std::string& body);

// Which device and application this is, and the installation's anonymous identifier (AID).
// Each value is computed once, on first use, and then served from memory.
class DeviceContext {
public:
    // The configuration, the settings store and the HTTP client are reached only when a value
    // needs them, so that reading the resolution on the application's thread never loads a file.
    DeviceContext(const HostOptions& host, std::function<const ConfigSettings&()> config,
                  std::function<SettingsStore&()> settings, std::function<HttpClient&()> http, const Logger& log);
    DeviceContext(const HostOptions& host, const ConfigSettings& config, SettingsStore& settings,
                  HttpClient& http, const Logger& log);

    std::string GetUserAgent();
    StringMap GetContextData();  // "a.DeviceName", "a.Resolution", "a.OSVersion", "a.CarrierName", "a.AppID"
    std::string GetApplicationId();
    std::string GetApplicationName();
    std::string GetApplicationVersion();  // Major.Minor.Revision
    std::string GetApplicationBuild();
    std::string GetResolution();  // from the host's window callback; "Unknown" without one, kept once computed
    std::string GetDeviceName();
    std::string GetOSVersion();  // the host's text, else the platform's
    std::string GetCarrierName();
    std::string GetAid();  // stored, else fetched from the tracking server, else generated; then stored

    std::string GetVisitorId();
    void SetVisitorId(const std::string& identifier);

    std::string LanguageTag() const;  // for "Accept-Language", read anew on each call
    bool InternetAvailable() const;

    // Where the manufacturer and model files are read when the host gives none; call before first
    // use (tests point it at a temporary directory).
    void SetSystemInfoDirectory(std::filesystem::path directory) { systemInfoDirectory_ = std::move(directory); }
    // A new AID built from a new random GUID, and the same rule applied to a given GUID text.
    std::string GenerateAid() const;
    std::string AidFromGuid(const std::string& guid) const;

private:
    struct ApplicationProperties {
        std::string title = "Unknown";
        std::uint16_t major = 0, minor = 0, build = 0, revision = 0;
        void SetVersion(const std::string& text);  // "Major.Minor.Build.Revision"
    };

    void LoadDeviceProperties();
    const ApplicationProperties& Application();
    void ReadManifest();
    std::string FetchAid();
    std::string ComputeAid();

    const HostOptions& host_;
    std::function<const ConfigSettings&()> config_;
    std::function<SettingsStore&()> settings_;
    std::function<HttpClient&()> http_;
    const Logger& log_;
    std::filesystem::path systemInfoDirectory_ = "/sys/class/dmi/id";

    std::once_flag deviceOnce_;
    std::string manufacturer_, model_;
    std::once_flag applicationOnce_;
    ApplicationProperties application_;

    // Lock order: context map first, then the single values; the application id before its parts.
    std::mutex contextMutex_;
    std::optional<StringMap> context_;
    std::mutex userAgentMutex_;
    std::optional<std::string> userAgent_;
    std::mutex deviceNameMutex_;
    std::optional<std::string> deviceName_;
    std::mutex applicationIdMutex_;
    std::optional<std::string> applicationId_;
    std::mutex applicationNameMutex_;
    std::optional<std::string> applicationName_;
    std::mutex applicationVersionMutex_;
    std::optional<std::string> applicationVersion_;
    std::mutex applicationBuildMutex_;
    std::optional<std::string> applicationBuild_;

    std::once_flag resolutionOnce_;
    std::string resolution_;
    std::once_flag aidOnce_;
    std::string aid_;

    std::mutex visitorMutex_;
    std::string visitorId_;

};

}  // namespace velmora

#pragma once

#include "core/config.h"
#include "core/host.h"
#include "core/http.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/settings_store.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>  // std::once_flag
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
// Each value is computed on first use and then served from memory. The host's window callback, the
// manifest, the system files and the AID's lookup are each reached once; the texts built from them
// may be built by two threads at once, and the first one kept.
class DeviceContext {
public:
    // The configuration, the settings store and the HTTP client are reached only when a value
    // needs them, so that reading the resolution on the application's thread never loads a file.
    DeviceContext(const HostOptions& host, std::function<const ConfigSettings&()> config,
                  std::function<SettingsStore&()> settings, std::function<Transport&()> transport, const Logger& log);
    DeviceContext(const HostOptions& host, const ConfigSettings& config, SettingsStore& settings,
                  Transport& transport, const Logger& log);

    std::string GetUserAgent() EXCLUDES(cacheMutex_);
    // "a.DeviceName", "a.Resolution", "a.OSVersion", "a.CarrierName", "a.AppID"
    StringMap GetContextData() EXCLUDES(cacheMutex_);
    std::string GetApplicationId() EXCLUDES(cacheMutex_);
    std::string GetApplicationName() EXCLUDES(cacheMutex_);
    std::string GetApplicationVersion() EXCLUDES(cacheMutex_);  // Major.Minor.Revision
    std::string GetApplicationBuild() EXCLUDES(cacheMutex_);
    std::string GetResolution();  // from the host's window callback; "Unknown" without one, kept once computed
    std::string GetDeviceName() EXCLUDES(cacheMutex_);
    std::string GetOSVersion();  // the host's text, else the platform's
    std::string GetCarrierName();
    std::string GetAid();  // stored, else fetched from the tracking server, else generated; then stored

    // Both hold the visitor lock while they reach the settings.
    std::string GetVisitorId() EXCLUDES(visitorMutex_);
    void SetVisitorId(const std::string& identifier) EXCLUDES(visitorMutex_);

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

    // The texts built from the values below, each kept once built.
    struct Cache {
        std::optional<StringMap> context;
        std::optional<std::string> userAgent;
        std::optional<std::string> deviceName;
        std::optional<std::string> applicationId;
        std::optional<std::string> applicationName;
        std::optional<std::string> applicationVersion;
        std::optional<std::string> applicationBuild;
    };
    // The cached text of `slot`, else `build()`'s, which is then kept.
    template <class Value, class Build>
    Value Cached(std::optional<Value> Cache::*slot, Build build) EXCLUDES(cacheMutex_);

    const HostOptions& host_;
    std::function<const ConfigSettings&()> config_;
    std::function<SettingsStore&()> settings_;
    std::function<Transport&()> transport_;
    const Logger& log_;
    std::filesystem::path systemInfoDirectory_ = "/sys/class/dmi/id";

    std::once_flag deviceOnce_;
    std::string manufacturer_, model_;
    std::once_flag applicationOnce_;
    ApplicationProperties application_;

    // Held only to read or fill a slot, never while a text is built (building may call the host,
    // and the host may call back), so it is never held with another lock.
    Mutex cacheMutex_;
    Cache cache_ GUARDED_BY(cacheMutex_);

    std::once_flag resolutionOnce_;
    std::string resolution_;
    std::once_flag aidOnce_;
    std::string aid_;

    Mutex visitorMutex_;
    std::string visitorId_ GUARDED_BY(visitorMutex_);

};

}  // namespace velmora

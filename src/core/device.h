#pragma once

#include "core/config.h"
#include "core/http.h"
#include "core/log.h"
#include "core/runtime.h"
#include "core/settings_store.h"

#include <mutex>
#include <optional>
#include <string>

namespace velmora {

inline constexpr const char* kVisitorIdKey = "VLMO_Tallyscope_StoredDefaults_VisitorID";
inline constexpr const char* kAidKey = "VELMORA_STOREDDEFAULTS_AID";

// Which device and application this is, and the installation's anonymous identifier (AID).
// Each value is computed once, on first use, and then served from memory.
class DeviceContext : public RuntimeModule {
public:
    DeviceContext(const HostOptions& host, const ConfigSettings& config, SettingsStore& settings,
                  HttpClient& http, const Logger& log);
    static std::unique_ptr<DeviceContext> Create(Runtime& runtime);
    int Stage() const override { return kStageServices; }

    std::string GetUserAgent();
    StringMap GetContextData();  // "a.DeviceName", "a.Resolution", "a.OSVersion", "a.CarrierName", "a.AppID"
    std::string GetApplicationId();
    std::string GetApplicationName();
    std::string GetApplicationVersion();  // Major.Minor.Revision
    std::string GetApplicationBuild();
    std::string GetResolution();  // from the host's window callback; "Unknown" without one, kept once computed
    std::string GetDeviceName();
    std::string GetOSVersion();
    std::string GetCarrierName();
    std::string GetAid();  // stored, else fetched from the tracking server, else generated; then stored

    std::string GetVisitorId();
    void SetVisitorId(const std::string& identifier);

    std::string LanguageTag() const;  // for "Accept-Language", read anew on each call
    bool InternetAvailable() const;

private:
    // implementation-defined members
};

}  // namespace velmora

#include "core/device.h"

#include "core/number_text.h"

#include <nlohmann/json.hpp>
#include <pugixml.hpp>

#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/utsname.h>

namespace velmora {
namespace {

constexpr const char* kManifestFileName = "AppxManifest.xml";
constexpr const char* kOSVersion = "Windows Phone 8.1";
constexpr std::int32_t kAidTimeoutMilliseconds = 500;

// "<osVersion>; <machine>" ("Debian GNU/Linux 12; x86_64"); control characters, which would end the
// header, become spaces.
std::string SystemAgent(std::string osVersion) {
    for (char& c : osVersion) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    }
    struct utsname system {};
    if (::uname(&system) == 0) osVersion += std::string("; ") + system.machine;
    return osVersion;
}

// One line of a sysfs file without its line feed; empty when the file is missing.
std::string ReadSystemValue(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::string value;
    if (!file || !std::getline(file, value)) return "";
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back()))) value.pop_back();
    return value;
}

// "Major.Minor.Build.Revision"; a missing or unreadable part counts as 0.
std::array<std::uint16_t, 4> ParseVersion(const std::string& text) {
    std::array<std::uint16_t, 4> parts{};
    std::stringstream stream(text);
    std::string piece;
    for (int i = 0; i < 4 && std::getline(stream, piece, '.'); ++i) {
        std::uint16_t value = 0;
        auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), value);
        parts[i] = (error == std::errc() && end == piece.data() + piece.size()) ? value : 0;
    }
    return parts;
}

}  // namespace

std::string AidFromAnswer(const std::string& body) {
    if (body.empty() || body.front() != '{') return "";
    const auto json = nlohmann::json::parse(body, nullptr, false);
    if (!json.is_object()) return "";
    const auto id = json.find("id");
    return id != json.end() && id->is_string() ? id->get<std::string>() : "";
}

DeviceContext::DeviceContext(const HostOptions& host, std::function<const ConfigSettings&()> config,
                             std::function<SettingsStore&()> settings, std::function<Transport&()> transport,
                             const Logger& log)
    : host_(host), config_(std::move(config)), settings_(std::move(settings)), transport_(std::move(transport)), log_(log) {}

DeviceContext::DeviceContext(const HostOptions& host, const ConfigSettings& config, SettingsStore& settings,
                             Transport& transport, const Logger& log)
    : DeviceContext(
          host, [&config]() -> const ConfigSettings& { return config; },
          [&settings]() -> SettingsStore& { return settings; }, [&transport]() -> Transport& { return transport; }, log) {}


void DeviceContext::LoadDeviceProperties() {
    std::call_once(deviceOnce_, [this] {
        manufacturer_ = !host_.deviceManufacturer.empty() ? host_.deviceManufacturer
                                                          : ReadSystemValue(systemInfoDirectory_ / "sys_vendor");
        model_ = !host_.deviceModel.empty() ? host_.deviceModel : ReadSystemValue(systemInfoDirectory_ / "product_name");
    });
}

void DeviceContext::ApplicationProperties::SetVersion(const std::string& text) {
    const auto parts = ParseVersion(text);
    major = parts[0], minor = parts[1], build = parts[2], revision = parts[3];
}

// The host's name and version together make the manifest unnecessary, so nothing is read or
// logged. With only one of them the manifest is read (and its failures logged) as without either,
// and the host's value replaces its part: the name, or all four numbers of the version.
const DeviceContext::ApplicationProperties& DeviceContext::Application() {
    std::call_once(applicationOnce_, [this] {
        if (host_.applicationName.empty() || host_.applicationVersion.empty()) ReadManifest();
        if (!host_.applicationName.empty()) application_.title = host_.applicationName;
        if (!host_.applicationVersion.empty()) application_.SetVersion(host_.applicationVersion);
    });
    return application_;
}

void DeviceContext::ReadManifest() {
    pugi::xml_document manifest;
    const auto result = manifest.load_file((host_.packageDirectory / kManifestFileName).c_str());
    if (!result) {
        log_.Error("Analytics - Unable to read AppxManifest file to obtain Application name (%s)", result.description());
        return;
    }
    if (pugi::xml_node identity = manifest.select_node("//Identity").node()) {
        application_.SetVersion(identity.attribute("Version").as_string());
    }
    pugi::xml_node name = manifest.select_node("//Properties/DisplayName").node();
    if (!name) {
        log_.Error("Analytics - Unable to read AppxManifest file to obtain Application name (%s)",
                   "No DisplayName element found");
        return;
    }
    application_.title = name.text().get();
}

template <class Value, class Build>
Value DeviceContext::Cached(std::optional<Value> Cache::*slot, Build build) {
    {
        MutexLock lock(cacheMutex_);
        if (const auto& value = cache_.*slot) return *value;
    }
    // Built unlocked: building may call the host, and the host may call back in.
    Value built = build();
    MutexLock lock(cacheMutex_);
    auto& value = cache_.*slot;
    if (!value) value = std::move(built);
    return *value;
}

std::string DeviceContext::GetUserAgent() {
    return Cached(&Cache::userAgent, [this] {
        LoadDeviceProperties();
        // The phone browser's text, unless the host names the system: then the system and the machine.
        const bool named = !host_.osVersion.empty();
        std::string agent = "Mozilla/5.0 (";
        agent += named ? SystemAgent(host_.osVersion) : "Windows Phone 8.1; ARM; Trident/7.0; Touch; rv:11.0";
        if (!manufacturer_.empty()) {
            agent += "; ";
            agent += manufacturer_ == "Microsoft" ? "Microsoft Corporation" : manufacturer_;
        }
        if (!model_.empty()) {
            agent += "; ";
            agent += model_;
        }
        agent += named ? ")" : ") like Gecko";
        return agent;
    });
}

std::string DeviceContext::GetDeviceName() {
    return Cached(&Cache::deviceName, [this] {
        LoadDeviceProperties();
        return (manufacturer_.empty() ? "Unknown" : manufacturer_) + " " + (model_.empty() ? "Unknown" : model_);
    });
}

std::string DeviceContext::GetApplicationName() {
    return Cached(&Cache::applicationName, [this] { return Application().title; });
}

std::string DeviceContext::GetApplicationVersion() {
    return Cached(&Cache::applicationVersion, [this] {
        // The build number stays out of the version that lifecycle compares.
        const auto& app = Application();
        return std::to_string(app.major) + "." + std::to_string(app.minor) + "." + std::to_string(app.revision);
    });
}

std::string DeviceContext::GetApplicationBuild() {
    return Cached(&Cache::applicationBuild, [this] { return std::to_string(Application().build); });
}

std::string DeviceContext::GetApplicationId() {
    return Cached(&Cache::applicationId, [this] {
        std::string id = GetApplicationName();
        const std::string version = GetApplicationVersion();
        const std::string build = GetApplicationBuild();
        if (!version.empty()) id += " " + version;
        if (!build.empty()) id += " (" + build + ")";
        return id;
    });
}

std::string DeviceContext::GetResolution() {
    std::call_once(resolutionOnce_, [this] {
        resolution_ = "Unknown";
        if (!host_.windowSize) return;
        try {
            if (auto size = host_.windowSize()) {
                resolution_ = FixedText(size->first, 0) + "x" + FixedText(size->second, 0);
            }
        } catch (const std::exception& e) {
            // A failing window callback is the same as having no window.
            log_.Warning("Analytics - The host's window size callback failed (%s)", e.what());
        } catch (...) {
            log_.Warning("Analytics - The host's window size callback failed (%s)", "unknown");
        }
    });
    return resolution_;
}

std::string DeviceContext::GetOSVersion() { return !host_.osVersion.empty() ? host_.osVersion : kOSVersion; }

std::string DeviceContext::GetCarrierName() { return ""; }

StringMap DeviceContext::GetContextData() {
    return Cached(&Cache::context, [this] {
        return StringMap{{"a.DeviceName", GetDeviceName()},
                         {"a.Resolution", GetResolution()},
                         {"a.OSVersion", GetOSVersion()},
                         {"a.CarrierName", GetCarrierName()},
                         {"a.AppID", GetApplicationId()}};
    });
}

std::string DeviceContext::GetAid() {
    std::call_once(aidOnce_, [this] { aid_ = ComputeAid(); });
    return aid_;
}

std::string DeviceContext::ComputeAid() {
    try {
        if (auto stored = LookupText(settings_(), kAidKey)) return *stored;
    } catch (const SettingsError& e) {
        // Unreadable settings: an identifier for this run is better than none.
        log_.Error("Analytics - Unable to read aid (%s)", e.what());
    }
    std::string aid = FetchAid();
    if (aid.empty()) aid = GenerateAid();
    try {
        settings_().Insert(kAidKey, aid);
    } catch (const SettingsError& e) {
        log_.Error("Analytics - Unable to save aid (%s)", e.what());
    }
    return aid;
}

std::string DeviceContext::FetchAid() {
    // An opted-out user's device asks no server for anything; a generated identifier serves.
    if (config_().Privacy() == kPrivacyOptOut) {
        log_.Debug("Analytics - Not retrieving aid from server due to privacy status being opted out");
        return "";
    }
    const std::string url = std::string(config_().ssl ? "https://" : "http://") + config_().server + "/id";
    try {
        RequestHandler request(transport_(), log_, url);
        request.SetTimeout(kAidTimeoutMilliseconds);
        return AidFromAnswer(request.GetResponseText());
    } catch (const std::exception& e) {
        log_.Debug("Analytics - Unable to retrieve aid from server (%s)", e.what());
        return "";
    }
}

std::string DeviceContext::GenerateAid() const {
    std::random_device random;
    const std::uint32_t data1 = random();
    const auto data2 = static_cast<unsigned short>(random());
    const auto data3 = static_cast<unsigned short>(random());
    unsigned char data4[8];
    for (auto& byte : data4) byte = static_cast<unsigned char>(random());
    char guid[40];
    std::snprintf(guid, sizeof(guid), "{%08X-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X}", data1, data2, data3,
                  data4[0], data4[1], data4[2], data4[3], data4[4], data4[5], data4[6], data4[7]);
    return AidFromGuid(guid);
}

std::string DeviceContext::AidFromGuid(const std::string& guid) const {
    // Compiled on first use, on a library thread: compiling them costs more than a whole first
    // call may take on the application's thread. Never destroyed, as threads may outlive statics.
    static const auto* guidSeparators = new std::regex("[-{}]");
    static const auto* highHalfSign = new std::regex("^[89A-F]");
    static const auto* lowHalfVariant = new std::regex("^[4-9A-F]");
    std::string digits = guid;
    for (char& c : digits) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    digits = std::regex_replace(digits, *guidSeparators, "");
    std::string high = digits.substr(0, 16);
    std::string low = digits.size() > 16 ? digits.substr(16) : "";
    // The high half must read as a positive signed 64-bit number, the low half starts with 0 to 3.
    // Drawn from the system, not rand(): the application's rand() sequence is its own.
    std::random_device random;
    high = std::regex_replace(high, *highHalfSign, std::to_string(random() % 8));
    low = std::regex_replace(low, *lowHalfVariant, std::to_string(random() % 4));
    return high + "-" + low;
}

std::string DeviceContext::GetVisitorId() {
    MutexLock lock(visitorMutex_);
    try {
        if (auto stored = LookupText(settings_(), kVisitorIdKey)) return *stored;
    } catch (const SettingsError& e) {
        // Fall back to the value of this run.
        log_.Error("Analytics - Unable to read visitor id (%s)", e.what());
    }
    return visitorId_;
}

void DeviceContext::SetVisitorId(const std::string& identifier) {
    MutexLock lock(visitorMutex_);
    visitorId_ = identifier;
    settings_().Insert(kVisitorIdKey, identifier);
}

std::string DeviceContext::LanguageTag() const { return velmora::LanguageTag(host_); }

bool DeviceContext::InternetAvailable() const { return velmora::InternetAvailable(host_, log_); }

}  // namespace velmora

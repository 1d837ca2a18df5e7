#include "core/host.h"

#include "core/network.h"

#include <cstdlib>
#include <exception>
#include <sstream>
#include <unistd.h>

namespace velmora {
namespace {

std::string Env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::filesystem::path ExecutablePath() {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::path("velmora-app") : path;
}

}  // namespace

HostOptions ResolveHostOptions(HostOptions options) {
    if (options.packageDirectory.empty()) {
        std::string env = Env("VELMORA_PACKAGE_DIR");
        options.packageDirectory = !env.empty() ? std::filesystem::path(env) : ExecutablePath().parent_path();
    }
    if (options.localDirectory.empty()) {
        std::string env = Env("VELMORA_LOCAL_DIR");
        if (!env.empty()) {
            options.localDirectory = env;
        } else {
            std::string data = Env("XDG_DATA_HOME");
            std::filesystem::path base = !data.empty() ? std::filesystem::path(data)
                                                       : std::filesystem::path(Env("HOME")) / ".local" / "share";
            options.localDirectory = base / "velmora" / ExecutablePath().filename();
        }
    }
    if (options.connectTo.empty()) {
        std::stringstream entries(Env("VELMORA_CONNECT_TO"));
        for (std::string entry; std::getline(entries, entry, ',');) {
            if (!entry.empty()) options.connectTo.push_back(entry);
        }
    }
    return options;
}

std::string LanguageTagFromLocale(const char* locale) {
    std::string text = locale != nullptr ? locale : "";
    text = text.substr(0, text.find_first_of(".@"));
    if (text.empty() || text == "C" || text == "POSIX") return "en-US";
    for (char& c : text) {
        if (c == '_') c = '-';
    }
    return text;
}

std::string LanguageTag(const HostOptions& options) {
    if (!options.languageTag.empty()) return options.languageTag;
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') return LanguageTagFromLocale(value);
    }
    return "en-US";
}

bool InternetAvailable(const HostOptions& options, const Logger& log) {
    // A failing check must not hold the hits back for good.
    try {
        if (options.internetAvailable) return options.internetAvailable();
        // Never destroyed: a sender may still ask while static destructors run at exit.
        static auto* const routes = new RouteMonitor();
        return routes->RouteOffHost();
    } catch (const std::exception& e) {
        log.Error("Analytics - Unable to check the network connection (%s), assuming it is up", e.what());
    } catch (...) {
        log.Error("Analytics - Unable to check the network connection (unknown), assuming it is up");
    }
    return true;
}

}  // namespace velmora

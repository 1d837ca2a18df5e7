#pragma once

#include <velmora/Export.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velmora {

// The platform seam: where files live, what the device is, how lines are logged. Every member has
// a working default, so an application only sets what it wants to override.
struct HostOptions {
    std::filesystem::path packageDirectory;   // empty: $VELMORA_PACKAGE_DIR, else the executable's directory
    std::filesystem::path localDirectory;     // empty: $VELMORA_LOCAL_DIR, else $XDG_DATA_HOME/velmora/<executable>
    std::string deviceManufacturer, deviceModel;  // empty: read from the system
    std::string languageTag;                  // empty: from the locale
    std::function<std::optional<std::pair<double, double>>()> windowSize;  // width, height
    std::function<bool()> internetAvailable;  // empty: the kernel's view (a route off the host)
    std::function<void(std::string_view line)> logSink;  // empty: standard error
    std::vector<std::string> connectTo;       // curl CONNECT_TO entries "HOST:PORT:ADDR:PORT";
                                              // default from $VELMORA_CONNECT_TO (comma-separated)
    std::string applicationName;              // with applicationVersion: no manifest needed
    std::string applicationVersion;           // "Major.Minor.Build.Revision"
    std::string osVersion;                    // empty: the platform text
};

class VELMORA_API Host {
public:
    // Takes effect only before the first use of the library; false (and a warning) afterwards.
    static bool Configure(HostOptions options);
    // Waits until every queue has run what was posted before the call and the sender is idle;
    // true when no hit is left queued.
    static bool Flush(std::chrono::milliseconds timeout);
    // Delivers what it can within the time-out, saves, stops the library's threads; later calls are
    // ignored. True when no hit is left queued.
    static bool Shutdown(std::chrono::milliseconds timeout);
};

}  // namespace Velmora

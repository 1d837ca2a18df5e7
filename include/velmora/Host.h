#pragma once

/// @file
/// What the library needs from the host: directories, device facts, callbacks; and the calls that
/// flush and stop it.

#include <velmora/Export.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velmora {

/// The platform seam: where files live, what the device is, how lines are logged. Every member has
/// a working default, so an application only sets what it wants to override, and passes the
/// options to Host::Configure() before any other call of the library.
struct HostOptions {
    /// The application's package directory, where "VelmoraConfig.json" and "AppxManifest.xml" are
    /// read. Empty: `$VELMORA_PACKAGE_DIR`, else the directory of the running executable.
    std::filesystem::path packageDirectory;
    /// Where the library keeps its state: the settings database, the hit queue
    /// ("VelmoraDataCache.json") and running timed actions ("VelmoraTimedActions.json"). Created
    /// when missing; when it cannot be written, settings last only for the run (an error line says
    /// so). Empty: `$VELMORA_LOCAL_DIR`, else `$XDG_DATA_HOME/velmora/<executable name>`
    /// (`~/.local/share/velmora/<executable name>` when `XDG_DATA_HOME` is unset).
    std::filesystem::path localDirectory;
    /// @var deviceManufacturer
    /// The device's maker, in the user agent and in "a.DeviceName" ("maker model", each part
    /// "Unknown" when empty). Empty: read from `/sys/class/dmi/id/sys_vendor`.
    /// @var deviceModel
    /// The device's model, beside the maker. Empty: read from `/sys/class/dmi/id/product_name`.
    std::string deviceManufacturer, deviceModel;
    /// The user's language as a BCP 47 tag ("de-DE"), sent as "Accept-Language" with every hit.
    /// Empty: from `LC_ALL`, `LC_MESSAGES` or `LANG`, read for each request ("de_DE.UTF-8" gives
    /// "de-DE"; "C", "POSIX" or none give "en-US").
    std::string languageTag;
    /// The size of the application's window in pixels, width then height, sent as "a.Resolution"
    /// ("1280x720"). Called at most once per process, on the calling thread of the first
    /// Config::CollectLifecycleData(), Analytics::TrackState(), TrackAction(), TrackLocation(),
    /// TrackLifetimeValueIncrease() or TrackTimedActionEnd(); when a media hit is built before any
    /// of these, on the library's media thread. `std::nullopt`, an exception or no callback at all
    /// give "Unknown".
    std::function<std::optional<std::pair<double, double>>()> windowSize;  // width, height
    /// Whether the device can reach the internet now. Called on the sender's thread before each
    /// hit it sends; false stops sending, and the hits wait in the queue (an exception counts as
    /// true). While the sender waits, it is also called every 2 s on the library's timer thread,
    /// and sending starts again once it answers true. It must answer quickly and must not call the
    /// library. Empty: the kernel's routing table decides: connected while there is a default
    /// route, IPv4 or IPv6 (the Linux form of the platform's internet connection profile).
    std::function<bool()> internetAvailable;
    /// Receives every log line in one call: the level prefix ("Velmora Debug:", "Velmora
    /// Warning:", "Velmora Error:"), the message and a line feed. Called on whichever thread logs,
    /// a library thread or the application's own, possibly several at once, so it must be
    /// thread-safe; it must not call the library, and an exception it throws is ignored. Empty:
    /// standard error, one write per line.
    std::function<void(std::string_view line)> logSink;
    /// Routes host names to other addresses, as curl's CONNECT_TO entries "HOST:PORT:ADDR:PORT"
    /// ("collect.example.com:80:127.0.0.1:8765" sends what is meant for that server to a loopback
    /// collector). Empty: the comma-separated entries of `$VELMORA_CONNECT_TO`.
    std::vector<std::string> connectTo;
    /// The application's name, used with applicationVersion instead of "AppxManifest.xml": with
    /// both set, no manifest is needed. Hits carry "a.AppID" = "Name Major.Minor.Revision (Build)".
    std::string applicationName;
    /// The application's version, "Major.Minor.Build.Revision"; see applicationName. Lifecycle
    /// counts an upgrade when Major.Minor.Revision changes.
    std::string applicationVersion;
    /// The operating system's description, sent as "a.OSVersion". Empty: the library's fixed
    /// platform text.
    std::string osVersion;
};

/// What the hit queue has done since the library started in this process (see Host::Stats()). A
/// hit is counted once where it ends: delivered, or dropped; `retried` counts attempts.
struct DeliveryStats {                      // since the library started in this process
    std::uint64_t queued = 0;               ///< Hits put in the queue.
    std::uint64_t delivered = 0;            ///< Answered 200 or 307.
    std::uint64_t retried = 0;              ///< Attempts that failed and will be tried again.
    /// Removed unsent (stale, offline tracking off, invalid, opt-out). A hit the queue refuses
    /// (longer than a request may be) counts here too; Analytics::ClearQueue() counts what it
    /// removes.
    std::uint64_t dropped = 0;
    std::uint64_t waiting = 0;              ///< In the queue now, the file's backlog included once loaded.
    std::int32_t lastStatus = 0;            ///< HTTP status of the last attempt (408 time-out), 0 none.
    std::string lastError;                  ///< The last failure's log text, empty when none.
    std::chrono::system_clock::time_point lastDelivered{};  ///< Epoch when none.
};

/// Configures the library before first use, and flushes and stops it.
class VELMORA_API Host {
public:
    /// Sets the host's options. Call it once, before any other call of the library: the first
    /// other call starts the library with the options set so far (the defaults when none). A later
    /// call before that start replaces the options. Any thread; returns at once.
    /// @param options the options; members left empty take their defaults.
    /// @return true when the options were taken; false once the library has started, with the
    ///   warning "Config - Host options were ignored because the library has already started".
    static bool Configure(HostOptions options);
    /// Waits until every queue has run what was posted before the call and the sender is idle or
    /// waiting out a retry cooldown, which the flush leaves on its schedule. Hits left queued by an
    /// earlier run are loaded and sent too.
    /// It first applies the rule that starts the sender (privacy OptIn and, with offline tracking,
    /// more hits queued than "batchLimit"), so it does not send hits that the batch limit holds
    /// back. Blocks the calling thread for at most `timeout`. Do not call it from a host callback:
    /// on a library thread it cannot succeed, and returns false at the latest after `timeout`.
    /// @param timeout the longest wait.
    /// @return true when no hit is left queued; false when the time-out passed first or hits stay
    ///   queued (offline, privacy not OptIn, held by the batch limit, or a server that fails).
    static bool Flush(std::chrono::milliseconds timeout);
    /// Stops the library before the process exits: closes a running lifecycle session as
    /// Config::PauseCollectingLifecycleData() does, delivers what it can within the time-out (the
    /// hits of an earlier run included), saves the queue, ends the requests still in flight and
    /// stops the library's threads. Later calls of the library are ignored, with one warning line.
    /// A hit in flight when time runs out stays queued for the next run. Any thread but the
    /// library's own; blocks for at most `timeout` plus 40 ms (a thread that does not stop by then
    /// is left to the end of the process). Without it, a normal end of the process (return from
    /// `main` or `exit()`) still saves every tracked hit, closes a running session, sends nothing
    /// new, and takes at most 300 ms even with an unreachable server.
    /// @param timeout the longest time spent delivering and stopping.
    /// @return true when no hit is left queued.
    static bool Shutdown(std::chrono::milliseconds timeout);
    /// The delivery counters of this process, kept as the work happens. Any thread, a host
    /// callback included; answers at once from memory, never waits for a queue, a file or the
    /// network, and does not start the library (all zero before it has started). Still answers
    /// after Shutdown().
    /// @return the counters; the queue file's backlog is in `waiting` once the queue has loaded it
    ///   (the first tracking call, Flush() or Shutdown()).
    static DeliveryStats Stats();
};

}  // namespace Velmora

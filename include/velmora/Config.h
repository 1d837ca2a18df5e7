#pragma once

/// @file
/// Debug logging, lifecycle, privacy, the visitor identifier and the library's version.

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <future>
#include <string>

namespace Velmora {

/// The library's switches and the application's lifecycle. Any thread may call these; none of
/// them throws.
class VELMORA_API Config {
public:
    /// Whether debug and warning lines are written. Answers at once from memory; right after
    /// SetDebugLogging() it may still give the old value until the change has run.
    /// @return true while debug logging is on (off when the process starts).
    static bool GetDebugLogging();
    /// Turns debug and warning lines on or off; error lines are always written. The change is
    /// queued behind the calls made before it, so lines of those calls follow the old setting.
    /// Returns at once.
    /// @param enabled true to write debug and warning lines.
    static void SetDebugLogging(bool enabled);

    // Lifecycle.

    /// Starts or resumes a session: call when the application starts, shows its window or comes
    /// back to the foreground. A pause shorter than the configuration's "lifecycleTimeout"
    /// (seconds) resumes the session; otherwise a new launch is counted (installs, upgrades,
    /// launches, crashes, engaged users, the previous session's length) and sent as one lifecycle
    /// hit. Calls HostOptions::windowSize on the calling thread the first time the library needs
    /// the window size, so call it where the window can be asked. Returns at once; the work is
    /// queued.
    static void CollectLifecycleData();
    /// Marks the session as paused: call when the application is hidden, minimised or goes to
    /// the background. A normal end of the process (return from `main`, `exit()`,
    /// Host::Shutdown()) records the same pause by itself; a session still running when the
    /// process ends otherwise (a crash, a fatal signal, SIGKILL) counts as a crash at the next
    /// launch. Returns at once; the work is queued.
    static void PauseCollectingLifecycleData();
    /// The lifetime value accumulated by Analytics::TrackLifetimeValueIncrease().
    /// Reads the local settings database on the calling thread (the first call of the process
    /// opens it), so it takes a few milliseconds at most; an increase still queued is not counted.
    /// @return the stored total, rounded to two decimals; 0 when none is stored or on failure.
    static double GetLifetimeValue();

    /// The privacy status in force. The first call loads the configuration (on a library thread).
    /// @return a future that completes once the calls made before it have been handled: OptIn,
    ///   OptOut or Unknown; the status stored by SetPrivacyStatus() if there is one, else the
    ///   configuration's "privacyDefault" (OptIn when absent). It holds 0, none of the enumerators,
    ///   when the configuration has no "analytics" section or cannot be read, or when the library
    ///   cannot answer. The future never throws.
    static std::future<VelmoraPrivacyStatus> GetPrivacyStatusAsync();
    /// Changes the privacy status and stores it in the local directory, where it wins over the
    /// configuration's "privacyDefault" at every later start. OptIn sends what is queued; OptOut
    /// empties the hit queue (and its file) and drops later tracking calls; Unknown keeps queuing
    /// hits without sending them, and is refused with a warning when the configuration's
    /// "offlineEnabled" is false. A value outside the enumeration is logged and not stored, but
    /// nothing is sent until a valid status is set. Returns at once; the change is queued behind
    /// the calls made before it.
    /// @param status the new status.
    static void SetPrivacyStatus(VelmoraPrivacyStatus status);

    // The visitor identifier.

    /// The application's own identifier of the user, as set by SetUserIdentifier(). Reads the
    /// local settings database on the calling thread (a few milliseconds at most).
    /// @return the stored identifier; the empty string when none is set or on failure.
    static std::string GetUserIdentifier();
    /// Sets the application's own identifier of the user; every later hit carries it as "vid",
    /// and it is kept across runs. Returns at once; the change is queued, so GetUserIdentifier()
    /// right after it may still give the old value.
    /// @param identifier the identifier; the empty string stops sending one.
    static void SetUserIdentifier(const std::string& identifier);

    /// The library's version. Answers at once without starting the library.
    /// @return "4.0.0", which every hit also carries in its path.
    static std::string GetVersion();
};

}  // namespace Velmora

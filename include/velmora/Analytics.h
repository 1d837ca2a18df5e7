#pragma once

/// @file
/// States, actions, location, lifetime value, timed actions and the hit queue.

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <cstdint>
#include <future>
#include <string>

namespace Velmora {

/// Measurement of the application: each tracking call becomes one hit, which waits in a persistent
/// queue until it can be sent.
///
/// Any thread may call these; none of them throws. A tracking call copies its arguments, queues
/// the work and returns at once, without touching files or the network. Calls made one after the
/// other on one thread become hits in that order. A tracking call is dropped, with a warning line,
/// when the configuration does not set both "rsids" and "server", and dropped silently (a debug
/// line) while the privacy status is OptOut. The first tracking call may call
/// HostOptions::windowSize on the calling thread.
class VELMORA_API Analytics {
public:
    /// Records that the user sees a state (a screen, page or view).
    /// @param state the state's name, sent as "pageName"; empty: the application id instead.
    /// @param contextData values sent with the hit (see ObjectMap).
    static void TrackState(const std::string& state, const ObjectMap& contextData = {});
    /// Records something the user or the application did.
    /// @param action the action's name, sent as "pev2" = "AMACTION:" + action and as the context
    ///   value "a.action".
    /// @param contextData values sent with the hit (see ObjectMap).
    static void TrackAction(const std::string& action, const ObjectMap& contextData = {});
    /// Records the device's position as the hit "Location": coarse-to-fine pieces of latitude and
    /// longitude ("a.loc.lat.a" …), the accuracy, and the first configured point of interest
    /// ("poi") whose radius contains the position ("a.loc.poi", "a.loc.dist" in metres, which later
    /// offer requests carry too). A position out of bounds is refused with a warning.
    /// @param latitude degrees, -90 to 90.
    /// @param longitude degrees, -180 to 180.
    /// @param horizontalAccuracy metres; sent rounded as "a.loc.acc" when above 0.
    /// @param contextData values sent with the hit (see ObjectMap).
    static void TrackLocation(double latitude, double longitude, double horizontalAccuracy,
                              const ObjectMap& contextData = {});

    // Lifetime value and timed actions.

    /// Adds to the lifetime value kept on the device (for example money spent in the application)
    /// and sends the hit "LifetimeValueIncrease" with the new total as "a.ltv.amount". The total
    /// is kept rounded to two decimals (Config::GetLifetimeValue()).
    /// @param amount the increase, 0 or more; a negative amount is refused with a warning.
    /// @param contextData values sent with the hit (see ObjectMap).
    static void TrackLifetimeValueIncrease(float amount, const ObjectMap& contextData = {});
    /// Starts timing an action. Running timed actions are kept in the local directory, so they
    /// survive a restart of the application. Starting a running name starts it again, discarding
    /// its times and values. An empty name is refused with a log line.
    /// @param action the name; TrackTimedActionEnd() sends an action hit of this name.
    /// @param contextData values kept with the timed action and sent when it ends.
    static void TrackTimedActionStart(const std::string& action, const ObjectMap& contextData = {});
    /// Adds or replaces values of a running timed action. An empty name, empty context data or a
    /// name that is not running is refused with a log line.
    /// @param action the name given to TrackTimedActionStart().
    /// @param contextData values to merge into the action's values.
    static void TrackTimedActionUpdate(const std::string& action, const ObjectMap& contextData = {});
    /// Ends a timed action and sends it as an action hit (see TrackAction()) with its values and
    /// two durations in whole seconds: "a.action.time.total" since the start, and
    /// "a.action.time.inapp", which leaves out the time the application was paused (between
    /// Config::PauseCollectingLifecycleData() and Config::CollectLifecycleData()). A name that is
    /// not running is ignored with a log line.
    /// @param action the name given to TrackTimedActionStart().
    static void TrackTimedActionEnd(const std::string& action);
    /// Whether a timed action is running. Not gated by the configuration or the privacy status.
    /// @param action the name given to TrackTimedActionStart().
    /// @return a future that completes once the starts and ends called before it have been
    ///   handled: true when the action is running; false when not, or when the library cannot
    ///   answer. The future never throws.
    static std::future<bool> TrackingTimedActionExistsAsync(const std::string& action);

    /// The anonymous identifier of this installation, sent in every hit as "aid". It is kept in
    /// the local directory; the first time, the library asks the tracking server's "/id" for one
    /// (within 500 ms) and makes one itself when that fails.
    /// @return a future that completes with the identifier (33 characters: 16 hexadecimal digits,
    ///   "-", 16 more), or with the empty string when the library cannot answer. The future never
    ///   throws.
    static std::future<std::string> GetTrackingIdentifierAsync();
    /// Removes every queued hit, from memory and from the queue file; they are never sent. Not
    /// gated by the configuration or the privacy status. Returns at once; the work is queued
    /// behind the calls made before it.
    static void ClearQueue();
    /// The number of hits waiting to be sent. Blocks the calling thread until the calls made
    /// before it have reached the queue, which normally takes milliseconds; it has no time-out.
    /// Called from a host callback (on a library thread) it does not wait and counts the queue as
    /// it stands.
    /// @return the number of queued hits; 0 when the library cannot answer.
    static std::uint32_t GetQueueSize();
};

}  // namespace Velmora

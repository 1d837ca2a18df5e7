#pragma once

/// @file
/// Signals to the audience service, and the profile it answers with.

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <future>
#include <optional>
#include <string>

namespace Velmora {

/// The audience service ("cohorta" in the configuration): signals with the user's traits, the
/// segment profile it answers with, and the data-provider identifiers sent along with each signal.
///
/// Any thread may call these; none of them throws. Signals go to the configured "server" over
/// plain HTTP; without a "server", audience signals are off.
class VELMORA_API Cohorta {
public:
    /// The profile of the last successful SubmitSignal(), kept across runs. Reads the local
    /// settings database on the calling thread (a few milliseconds at most).
    /// @return segment names and values; `std::nullopt` when none is stored or on failure.
    static std::optional<StringMap> GetVisitorProfile();
    /// The user's identifier at the data provider, as set by SetDpidAndDpuuid(). Answers at once.
    /// @return the identifier; empty until set in this process.
    static std::string GetDpuuid();
    /// The data provider's identifier, as set by SetDpidAndDpuuid(). Answers at once.
    /// @return the identifier; empty until set in this process.
    static std::string GetDpid();
    /// Sets the data provider and the user's identifier there, sent with every later signal
    /// ("d_dpid", "d_dpuuid") while both are non-empty. Kept for this process only. Returns at
    /// once; the change is queued, so the getters right after it may still give the old values.
    /// Without a "server" it only logs a warning.
    /// @param dpid the data provider's identifier.
    /// @param dpuuid the user's identifier at that provider.
    static void SetDpidAndDpuuid(const std::string& dpid, const std::string& dpuuid);
    /// Sends the user's traits to the service; each becomes "c_" + key (dots turned into "_") =
    /// value, and entries with an empty key or value are left out. The service's answer gives the
    /// user's segments, which are stored (GetVisitorProfile()), the service's user id, which later
    /// signals carry, and destination addresses, which the library calls once each. The request
    /// waits behind the signals before it and then takes at most 2 seconds. Only while the privacy
    /// status is OptIn is a signal sent: under OptOut or Unknown nothing leaves the device.
    /// @param traits the traits (see ObjectMap).
    /// @return a future that completes with the segments of the answer; `std::nullopt` when the
    ///   answer has none, the request fails or times out, audience signals are off, the privacy
    ///   status is not OptIn, or the library cannot answer. The future never throws.
    static std::future<std::optional<StringMap>> SubmitSignal(const ObjectMap& traits);
};

}  // namespace Velmora

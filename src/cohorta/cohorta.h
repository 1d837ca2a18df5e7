#pragma once

#include "core/config.h"
#include "core/http.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/serial_queue.h"
#include "core/settings_store.h"

#include <future>
#include <nlohmann/json_fwd.hpp>
#include <memory>
#include <mutex>  // std::once_flag
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace velmora {

inline constexpr const char* kCohortaUserIdKey = "CHTUserId";
inline constexpr const char* kCohortaProfileKey = "CHTUserProfile";

// What one answer of the audience service asks for. Its destinations are called before the rest
// is read; the user id and profile are read whole before either is stored, so a malformed one
// leaves the stored state as it was.
struct SignalAnswer {
    std::vector<nlohmann::json> destinations;
    std::optional<std::string> userId;
    StringMap profile;
};

// The destinations only; throws when the answer is not a JSON object or "dests" is not an array.
SignalAnswer ReadSignalDestinations(const nlohmann::json& root);
// Adds the user id and profile; throws when "uuid" or "stuff" has the wrong type.
void ReadSignalUserData(const nlohmann::json& root, SignalAnswer& answer);
// Both, from the body's text.
SignalAnswer ParseSignalAnswer(const std::string& body);

// Audience signals: sends traits to the audience service, keeps the user id and segment profile it
// answers with (in local settings, so they outlive the process) and calls each destination URL the
// answer lists. Network work and every change of the stored values run on the module's queue; the
// getters answer on the caller's thread.
class CohortaClient {
public:
    static constexpr std::int32_t kSignalTimeoutMs = 2000;
    static constexpr std::int32_t kDestinationTimeoutMs = 5000;

    CohortaClient(const ConfigSettings& config, ModuleGates& gates, SettingsStore& settings, Transport& transport,
                  const Logger& log, Executor& executor);
    ~CohortaClient();

    bool Flush(std::chrono::milliseconds timeout) { return queue_.Drain(timeout); }
    void Shutdown() { queue_.Shutdown(); }

    // The stored profile; nullopt when none is stored. Reads only the settings, so it needs no
    // module (and no configuration).
    static std::optional<StringMap> GetVisitorProfile(SettingsStore& settings);
    std::string GetDpid() const EXCLUDES(mutex_);
    std::string GetDpuuid() const EXCLUDES(mutex_);
    void SetDpidAndDpuuid(std::string dpid, std::string dpuuid);
    // Completes with the new profile, or nullopt on any failure or an answer without segments.
    std::future<std::optional<StringMap>> SubmitSignal(StringMap traits);
    SerialQueue& Queue() { return queue_; }

private:
    // The request URL for `traits` with the identifiers known now.
    std::string BuildSignalUrl(const StringMap& traits) EXCLUDES(mutex_);
    std::optional<StringMap> Signal(const StringMap& traits);
    void ForwardDestination(const nlohmann::json& destination);
    // Reads the settings with the lock held, on first use.
    std::string UserId() EXCLUDES(mutex_);
    void StoreUserId(const std::string& userId) EXCLUDES(mutex_);
    const std::string& BaseUrl();

    const ConfigSettings& config_;
    ModuleGates& gates_;
    SettingsStore& settings_;
    Transport& transport_;
    const Logger& log_;
    const std::regex dot_{"[.]"};
    const std::regex leadingAmpersand_{"\\?&"};

    mutable Mutex mutex_;
    std::string dpid_ GUARDED_BY(mutex_);
    std::string dpuuid_ GUARDED_BY(mutex_);
    std::optional<std::string> userId_ GUARDED_BY(mutex_);  // read from settings on first use
    std::once_flag baseUrlOnce_;
    std::string baseUrl_;

    SerialQueue queue_;
};

}  // namespace velmora

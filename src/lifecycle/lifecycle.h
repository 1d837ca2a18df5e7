#pragma once

#include "cohorta/cohorta.h"
#include "core/actions.h"
#include "core/clock.h"
#include "core/config.h"
#include "core/device.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/settings_store.h"
#include "timed_actions/timed_actions.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace velmora {

// Local-settings keys of the session bookkeeping. Seconds are stored as decimal text, counters as
// 32-bit integers, the close flag as a boolean.
inline constexpr const char* kInstallDateKey = "VLMS_InstallDate";
inline constexpr const char* kUpgradeDateKey = "VLMS_UpgradeDate";
inline constexpr const char* kLastDateUsedKey = "VLMS_LastDateUsed";
inline constexpr const char* kLaunchesAfterUpgradeKey = "VLMS_LaunchesAfterUpgrade";
inline constexpr const char* kLaunchesKey = "VLMS_Launches";
inline constexpr const char* kLastVersionKey = "VLMS_LastVersion";
inline constexpr const char* kPauseDateKey = "VLMS_PauseDate";
inline constexpr const char* kSuccessfulCloseKey = "VLMS_SuccessfulClose";
inline constexpr const char* kSessionStartKey = "VLMS_SessionStart";

// Sessions of the host application: whether a launch resumes a paused session or starts a new one,
// and for a new one the install, launch, upgrade, engaged-user, crash and session-length values,
// sent as the "Lifecycle" internal action, handed to the audience module and kept for offers.
// Start and pause run where they are called: on the general queue, in the order of the public
// calls, so that the launch hit takes its place among the other calls' hits. Settings failures are
// not caught here: they end the step, and the queue logs them.
class Lifecycle {
public:
    static constexpr std::int32_t kIgnoredSessionSeconds = 604800;  // seven days

    Lifecycle(const ConfigSettings& config, ModuleGates& gates, SettingsStore& settings, const Clock& clock,
              DeviceContext& device, ActionTracker& tracker, TimedActionStore& timedActions,
              CohortaClient& cohorta, const Logger& log);

    // The application came to the foreground / went to the background.
    void Start();
    void Pause();
    // The normal end of the process: the pause a phone gave every application before ending it,
    // recorded only while collection runs (started and not paused since), so that the next launch
    // reports no crash.
    void PauseIfCollecting();

    // The values of the last new-session launch, device context included; empty before the first.
    // Safe from any thread.
    StringMap GetLifecycleContextData() const;

    // The session start as the module last saw it; 0 when no session is measured.
    std::int32_t CurrentSessionStart() const { return currentSessionStart_.load(); }

private:
    void Install(StringMap& values, std::int32_t now);
    void EngagedUserAndCrash(StringMap& values, std::int32_t now);
    void Upgrade(StringMap& values, std::int32_t now);
    void PreviousSession(StringMap& values);
    void Launch(StringMap& values, std::int32_t now);
    void Closing(std::int32_t now);

    std::int32_t ReadSeconds(const char* key);
    void StoreSeconds(const char* key, std::int32_t seconds);

    const ConfigSettings& config_;
    ModuleGates& gates_;
    SettingsStore& settings_;
    const Clock& clock_;
    DeviceContext& device_;
    ActionTracker& tracker_;
    TimedActionStore& timedActions_;
    CohortaClient& cohorta_;

    const Logger& log_;

    std::atomic<std::int32_t> currentSessionStart_{0};
    bool collecting_ = false;  // general queue only
    mutable Mutex contextMutex_;
    StringMap contextData_ GUARDED_BY(contextMutex_);
};

}  // namespace velmora

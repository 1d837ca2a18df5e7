#include "lifecycle/lifecycle.h"

#include "core/seconds.h"

#include <charconv>
#include <cstdio>

namespace velmora {
namespace {

constexpr std::int32_t kSecondsPerDay = 86400;

// Whole days between two moments, truncated toward zero; a clock set back gives a negative count.
std::string DaysBetween(std::int32_t earlier, std::int32_t later) {
    return std::to_string(SubtractSeconds(later, earlier) / kSecondsPerDay);
}

std::int32_t Incremented(std::int32_t count) { return AddSeconds(count, 1); }

}  // namespace

Lifecycle::Lifecycle(const ConfigSettings& config, ModuleGates& gates, SettingsStore& settings, const Clock& clock,
                     DeviceContext& device, ActionTracker& tracker, TimedActionStore& timedActions,
                     CohortaClient& cohorta, const Logger& log)
    : config_(config),
      gates_(gates),
      settings_(settings),
      clock_(clock),
      device_(device),
      tracker_(tracker),
      timedActions_(timedActions),
      cohorta_(cohorta),
      log_(log) {}

StringMap Lifecycle::GetLifecycleContextData() const {
    MutexLock lock(contextMutex_);
    return contextData_;
}

std::int32_t Lifecycle::ReadSeconds(const char* key) {
    auto text = LookupText(settings_, key);
    if (!text) return 0;
    double value = 0;
    const auto result = std::from_chars(text->data(), text->data() + text->size(), value);
    return result.ec == std::errc() ? TruncateToInt32(value) : 0;
}

void Lifecycle::StoreSeconds(const char* key, std::int32_t seconds) {
    settings_.Insert(key, std::to_string(seconds));
}

void Lifecycle::Pause() {
    collecting_ = false;
    settings_.Insert(kSuccessfulCloseKey, true);
    StoreSeconds(kPauseDateKey, clock_.NowSeconds());
}

void Lifecycle::PauseIfCollecting() {
    if (!collecting_) return;
    log_.Debug("Analytics - The process ends normally: recording the pause of the running session");
    Pause();
}

void Lifecycle::Start() {
    collecting_ = true;
    if (settings_.HasKey(kPauseDateKey)) {
        const std::int32_t pausedAt = ReadSeconds(kPauseDateKey);
        if (pausedAt > 0) {
            const std::int32_t paused = SubtractSeconds(clock_.NowSeconds(), pausedAt);
            // Paused time is not time in the application, whether or not the session resumes.
            timedActions_.Shift(paused);
            std::int32_t sessionStart = 0;
            if (settings_.HasKey(kSessionStartKey)) {
                sessionStart = ReadSeconds(kSessionStartKey);
                currentSessionStart_ = sessionStart;
            }
            if (paused < config_.lifecycleTimeout && sessionStart > 0) {
                const std::int32_t moved = AddSeconds(sessionStart, paused);
                currentSessionStart_ = moved;
                StoreSeconds(kSessionStartKey, moved);
                settings_.Insert(kSuccessfulCloseKey, false);
                settings_.Remove(kPauseDateKey);
                return;
            }
        }
    }

    const std::int32_t now = clock_.NowSeconds();
    StringMap values;
    if (!settings_.HasKey(kInstallDateKey)) {
        Install(values, now);
    } else {
        EngagedUserAndCrash(values, now);
        Upgrade(values, now);
        PreviousSession(values);
    }
    Launch(values, now);

    {
        MutexLock lock(contextMutex_);
        contextData_ = values;
    }
    // Timestamped one second before the launch moment.
    if (gates_.Analytics()) tracker_.TrackInternalAction("Lifecycle", values, AddSeconds(now, -1));
    if (gates_.Cohorta()) cohorta_.SubmitSignal(std::move(values));
    Closing(now);
}

void Lifecycle::Install(StringMap& values, std::int32_t now) {
    const std::tm local = LocalTime(now);
    char date[32];
    std::snprintf(date, sizeof date, "%d/%d/%d", local.tm_mon + 1, local.tm_mday, local.tm_year + 1900);
    values["a.InstallDate"] = date;
    values["a.InstallEvent"] = "InstallEvent";
    values["a.DailyEngUserEvent"] = "DailyEngUserEvent";
    values["a.MonthlyEngUserEvent"] = "MonthlyEngUserEvent";
    StoreSeconds(kInstallDateKey, now);
}

void Lifecycle::EngagedUserAndCrash(StringMap& values, std::int32_t now) {
    const std::int32_t lastUsed = settings_.HasKey(kLastDateUsedKey) ? ReadSeconds(kLastDateUsedKey) : now;
    const std::tm last = LocalTime(lastUsed);
    const std::tm current = LocalTime(now);
    // Only the day-of-month decides the daily event and only the month the monthly one: the same
    // day of the next month is a monthly user but not a daily one, the same date a year later neither.
    if (last.tm_mday != current.tm_mday) values["a.DailyEngUserEvent"] = "DailyEngUserEvent";
    if (last.tm_mon != current.tm_mon) values["a.MonthlyEngUserEvent"] = "MonthlyEngUserEvent";
    values["a.DaysSinceFirstUse"] = DaysBetween(ReadSeconds(kInstallDateKey), now);
    values["a.DaysSinceLastUse"] = DaysBetween(lastUsed, now);

    // Running when the process ended: the last session was never paused. No flag is no crash.
    if (LookupBool(settings_, kSuccessfulCloseKey) == false) {
        values["a.CrashEvent"] = "CrashEvent";
        settings_.Remove(kSessionStartKey);
        currentSessionStart_ = 0;
    }
}

void Lifecycle::Upgrade(StringMap& values, std::int32_t now) {
    const std::string version = device_.GetApplicationVersion();
    const std::string lastVersion = LookupText(settings_, kLastVersionKey).value_or(std::string());
    if (version == lastVersion) {
        if (settings_.HasKey(kUpgradeDateKey)) {
            values["a.DaysSinceLastUpgrade"] = DaysBetween(ReadSeconds(kUpgradeDateKey), now);
        }
    } else {
        values["a.UpgradeEvent"] = "UpgradeEvent";  // the version is stored when the session starts
        StoreSeconds(kUpgradeDateKey, now);
        settings_.Insert(kLaunchesAfterUpgradeKey, std::int32_t{0});
    }
    if (settings_.HasKey(kUpgradeDateKey)) {
        const std::int32_t launches = Incremented(LookupInt32(settings_, kLaunchesAfterUpgradeKey).value_or(0));
        values["a.LaunchesSinceUpgrade"] = std::to_string(launches);
        settings_.Insert(kLaunchesAfterUpgradeKey, launches);
    }
}

void Lifecycle::PreviousSession(StringMap& values) {
    if (!settings_.HasKey(kPauseDateKey)) return;
    const std::int32_t pausedAt = ReadSeconds(kPauseDateKey);
    if (pausedAt <= 0 || !settings_.HasKey(kSessionStartKey)) return;
    // The session start moved forward with every resume, so this is the time in the foreground.
    const std::int32_t length = SubtractSeconds(pausedAt, ReadSeconds(kSessionStartKey));
    values[length < kIgnoredSessionSeconds ? "a.PrevSessionLength" : "a.ignoredSessionLength"] =
        std::to_string(length);
    settings_.Remove(kSessionStartKey);
    currentSessionStart_ = 0;
}

void Lifecycle::Launch(StringMap& values, std::int32_t now) {
    const std::int32_t launches = Incremented(LookupInt32(settings_, kLaunchesKey).value_or(0));
    values.merge(device_.GetContextData());
    const std::tm local = LocalTime(now);
    values["a.LaunchEvent"] = "LaunchEvent";
    values["a.OSVersion"] = device_.GetOSVersion();
    values["a.Launches"] = std::to_string(launches);
    values["a.HourOfDay"] = std::to_string(local.tm_hour);
    values["a.DayOfWeek"] = std::to_string(local.tm_wday + 1);
    settings_.Insert(kLaunchesKey, launches);
    StoreSeconds(kLastDateUsedKey, now);
}

void Lifecycle::Closing(std::int32_t now) {
    // Still there only when neither the crash check nor the previous session removed it.
    if (!settings_.HasKey(kSessionStartKey)) {
        StoreSeconds(kSessionStartKey, now);
        currentSessionStart_ = now;
    }
    settings_.Insert(kLastVersionKey, device_.GetApplicationVersion());
    settings_.Insert(kSuccessfulCloseKey, false);
    settings_.Remove(kPauseDateKey);
}

}  // namespace velmora

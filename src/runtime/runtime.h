#pragma once

#include "core/clock.h"
#include "core/config.h"
#include "core/executor.h"
#include "core/file_store.h"
#include "core/host.h"
#include "core/lazy.h"
#include "core/log.h"
#include "core/serial_queue.h"
#include "core/settings_store.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

namespace velmora {

class AnalyticsTracker;
class CohortaClient;
class DeviceContext;
class HitQueue;
class HttpClient;
class Lifecycle;
class LifetimeValue;
class LocationTracker;
class MediaModule;
class TimedActionStore;
class VantorClient;

// The composition root: the one place that knows every module. Each module is built on first use
// with the services and modules it needs passed to its constructor; no module reaches back here.
// Building a module may load the configuration or open the settings database, so accessors other
// than GetDeviceContext() are called on library threads (the general queue), never on the
// application's.
//
// The process-wide instance is created by the first public call and never destroyed; tests build
// their own on a temporary directory and destroy it, which stops every thread after running what
// was posted.
class Runtime {
public:
    explicit Runtime(HostOptions options, std::shared_ptr<Clock> clock = nullptr);
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    static Runtime& Process();
    static Runtime* ProcessIfCreated();  // null until the first public call
    // Host::Configure: stores the options for the process-wide instance; false once it exists.
    static bool ConfigureProcess(HostOptions options);
    // For tests that share one process: shuts the process-wide instance down and forgets it, with
    // the options configured for it, so that the next call starts a fresh one. The retired instance
    // is kept, as the process-wide one is never destroyed, but no call reaches it any more.
    static void RetireProcess();
    // Makes a normal end of the process (return from main, exit()) save what was tracked.
    static void ArmExitHandler();
    // How long the end of the process may take, with an unreachable server included.
    static constexpr std::chrono::milliseconds kExitBound{220};
    // How long past its time-out Shutdown waits for the threads to stop before it leaves them.
    static constexpr std::chrono::milliseconds kStopGrace{40};

    const HostOptions& Host() const { return host_; }
    const Logger& Log() const { return log_; }
    Logger& Log() { return log_; }
    Clock& GetClock() { return *clock_; }
    Executor& GetExecutor() { return executor_; }

    // Services.
    SettingsStore& GetSettingsStore();
    FileStore& GetFileStore();
    ConfigSettings& GetConfigSettings();
    ModuleGates& GetModuleGates();
    SerialQueue& GeneralQueue();
    HttpClient& GetHttpClient();
    DeviceContext& GetDeviceContext();  // cheap: safe on the application's thread

    // Modules.
    HitQueue& GetHitQueue();
    AnalyticsTracker& GetAnalyticsTracker();
    TimedActionStore& GetTimedActionStore();
    CohortaClient& GetCohortaClient();
    Lifecycle& GetLifecycle();
    LifetimeValue& GetLifetimeValue();
    LocationTracker& GetLocationTracker();
    MediaModule& GetMediaModule();
    VantorClient& GetVantorClient();
    // Null until first use: for questions that need not make the module.
    DeviceContext* DeviceContextIfCreated() { return device_.IfCreated(); }
    CohortaClient* CohortaClientIfCreated() { return audience_.IfCreated(); }
    VantorClient* VantorClientIfCreated() { return offers_.IfCreated(); }
    HitQueue* HitQueueIfCreated() { return hits_.IfCreated(); }

    // The privacy setter, run on the general queue by the public class.
    void SetPrivacyStatus(std::int32_t status);

    // Waits until every queue has run what was posted before the call and the sender is idle.
    bool Flush(std::chrono::milliseconds timeout);

    // Within `timeout`: records the pause of a running session, delivers what the start rule allows
    // (when `deliver`), lets what was tracked reach the hit queue file, gives the hit in flight the
    // rest of the time for its answer, then ends every request and stops every thread. True when no
    // hit is left queued. Only the first call does anything.
    bool Shutdown(std::chrono::milliseconds timeout, bool deliver);
    // After Shutdown: public calls are ignored.
    bool Closed() const { return closed_.load(); }
    bool FirstIgnoredCall() { return !warnedClosed_.exchange(true); }

private:
    // A normal end (Shutdown, the end of the process) records the pause of a running session and
    // leaves a thread that cannot be stopped in time to the end of the process.
    bool Stop(std::chrono::milliseconds timeout, bool deliver, bool normalEnd);
    void StopThreads();
    // Modules after the general queue, in the direction work flows: each may still post to the ones
    // after it, so flushing and stopping go in this order.
    template <typename Visit>
    void ForEachModuleInOrder(Visit&& visit);
    void EnsureLocalDirectory();

    const HostOptions host_;
    Logger log_;
    std::shared_ptr<Clock> clock_;
    std::once_flag localDirectory_;
    // Destroyed last of the members that run work: every queue's closures run on its workers.
    Executor executor_;

    Lazy<SettingsStore> settings_;
    Lazy<FileStore> files_;
    Lazy<ConfigSettings> config_;
    Lazy<ModuleGates> gates_;
    Lazy<SerialQueue> general_;
    Lazy<HttpClient> http_;
    Lazy<DeviceContext> device_;
    Lazy<HitQueue> hits_;
    Lazy<AnalyticsTracker> tracker_;
    Lazy<TimedActionStore> timedActions_;
    Lazy<CohortaClient> audience_;
    Lazy<Lifecycle> sessions_;
    Lazy<LifetimeValue> lifetimeValue_;
    Lazy<LocationTracker> location_;
    Lazy<MediaModule> media_;
    Lazy<VantorClient> offers_;

    std::atomic<bool> shutDown_{false};
    std::atomic<bool> closed_{false};
    std::atomic<bool> warnedClosed_{false};
    std::thread stopper_;
};

}  // namespace velmora

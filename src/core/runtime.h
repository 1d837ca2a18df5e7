#pragma once

#include "core/clock.h"
#include "core/config.h"
#include "core/file_store.h"
#include "core/host.h"
#include "core/lazy.h"
#include "core/log.h"
#include "core/serial_queue.h"
#include "core/settings_store.h"

#include <chrono>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <typeindex>
#include <unordered_map>
#include <thread>
#include <vector>

namespace velmora {

// A part of the library that the runtime creates on first use. A module type T provides
//   static std::unique_ptr<T> Create(Runtime& runtime);
// which takes the services it needs from the runtime and passes them to T's constructor, so tests
// can also build T directly. Create must be cheap: loading files or talking to servers belongs on
// the module's own queue.
class RuntimeModule {
public:
    virtual ~RuntimeModule() = default;
    // Modules post work to modules of higher stages only; flush and shutdown run in stage order.
    virtual int Stage() const = 0;
    // True when everything posted before the call has run within `timeout` (and, for the hit
    // queue, the sender is idle with nothing left queued).
    virtual bool Flush(std::chrono::milliseconds /*timeout*/) { return true; }
    // The first step of the end: start no new outward work (the sender sends no further hit).
    virtual void BeginShutdown() {}
    // True when no outward work is in flight by `deadline`.
    virtual bool WaitUntilIdle(std::chrono::steady_clock::time_point /*deadline*/) { return true; }
    // Runs what was posted, then stops and joins the module's threads.
    virtual void Shutdown() {}
};

// Stages, in the direction work flows.
inline constexpr int kStageFeature = 10;      // lifecycle, media, offers: fed by the general queue
inline constexpr int kStageEngagement = 20;   // timed actions, audience: fed by lifecycle
inline constexpr int kStageAnalytics = 30;    // hit building on the analytics queue
inline constexpr int kStageHitQueue = 40;     // the persistent queue and its sender
inline constexpr int kStageServices = 50;     // device context, HTTP: no queues of their own

// The composition root. It builds every module on first use, hands each the services it needs,
// and owns the threads. The process-wide instance is created by the first public call and never
// destroyed; tests build their own on a temporary directory and destroy it, which stops and joins
// every thread after running what was posted.
class Runtime {
public:
    explicit Runtime(HostOptions options, std::shared_ptr<Clock> clock = nullptr);
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    static Runtime& Process();
    // Host::Configure: stores the options for the process-wide instance; false once it exists.
    static bool ConfigureProcess(HostOptions options);
    // Makes a normal end of the process (return from main, exit()) save what was tracked.
    static void ArmExitHandler();
    // How long the end of the process may take, with an unreachable server included.
    static constexpr std::chrono::milliseconds kExitBound{220};

    const HostOptions& Host() const { return host_; }
    const Logger& Log() const { return log_; }
    Logger& Log() { return log_; }
    Clock& GetClock() { return *clock_; }

    SettingsStore& Settings();
    FileStore& Files();
    ConfigSettings& Config();

    SerialQueue& GeneralQueue();
    ModuleGates& Gates();

    template <class T>
    T& Get() {
        static_assert(std::is_base_of_v<RuntimeModule, T>, "modules derive from RuntimeModule");
        return static_cast<T&>(GetModule(std::type_index(typeid(T)),
                                         [this]() -> std::unique_ptr<RuntimeModule> { return T::Create(*this); }));
    }
    template <class T>
    T* IfCreated() {
        return static_cast<T*>(FindModule(std::type_index(typeid(T))));
    }

    // The hit queue's side of the privacy setter; registered by the hit queue when it is created.
    void SetHitQueueControl(HitQueueControl* control) { hitQueueControl_.store(control); }

    // The privacy setter, run on the general queue by the public class.
    void SetPrivacyStatus(std::int32_t status);

    // Waits until every queue has run what was posted before the call and the sender is idle.
    bool Flush(std::chrono::milliseconds timeout);

    // Within `timeout`: delivers what the start rule allows (when `deliver`), lets what was tracked
    // reach the hit queue file, gives the hit in flight the rest of the time for its answer, then
    // ends every request and stops every thread. True when no hit is left queued. Only the first
    // call does anything.
    bool Shutdown(std::chrono::milliseconds timeout, bool deliver);
    // After Shutdown: public calls are ignored.
    bool Closed() const { return closed_.load(); }
    bool FirstIgnoredCall() { return !warnedClosed_.exchange(true); }
    // How long past its time-out Shutdown waits for the threads to stop before it leaves them.
    static constexpr std::chrono::milliseconds kStopGrace{40};

private:
    bool Stop(std::chrono::milliseconds timeout, bool deliver, bool bounded);
    void EnsureLocalDirectory();
    RuntimeModule& GetModule(std::type_index type, const std::function<std::unique_ptr<RuntimeModule>()>& make);
    RuntimeModule* FindModule(std::type_index type);
    std::vector<RuntimeModule*> ModulesByStage();

    const HostOptions host_;
    Logger log_;
    std::shared_ptr<Clock> clock_;
    std::once_flag localDirectory_;

    Lazy<SettingsStore> settings_;
    Lazy<FileStore> files_;
    Lazy<ConfigSettings> config_;
    Lazy<SerialQueue> general_;
    Lazy<ModuleGates> gates_;

    std::recursive_mutex creating_;
    std::shared_mutex modulesMutex_;
    std::unordered_map<std::type_index, RuntimeModule*> modules_;
    std::vector<std::unique_ptr<RuntimeModule>> owned_;  // creation order
    std::atomic<HitQueueControl*> hitQueueControl_{nullptr};
    std::atomic<bool> shutDown_{false};
    std::atomic<bool> closed_{false};
    std::thread stopper_;
    std::atomic<bool> warnedClosed_{false};
};

}  // namespace velmora

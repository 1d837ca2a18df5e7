#include "runtime/runtime.h"

#include "analytics/hit_queue.h"
#include "analytics/tracker.h"
#include "cohorta/cohorta.h"
#include "core/device.h"
#include "core/http.h"
#include "core/library_thread.h"
#include "lifecycle/lifecycle.h"
#include "lifetime_value/lifetime_value.h"
#include "location/location.h"
#include "media/media_module.h"
#include "timed_actions/timed_actions.h"
#include "vantor/vantor.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <mutex>

namespace velmora {
namespace {

struct ProcessState {
    Mutex mutex;
    HostOptions pending GUARDED_BY(mutex);
    std::atomic<Runtime*> instance{nullptr};
    std::vector<Runtime*> retired GUARDED_BY(mutex);
};

// Never destroyed: worker threads may still run while static destructors do at exit.
ProcessState& State() {
    static auto* state = new ProcessState();
    return *state;
}

void OnProcessExit() {
    static std::atomic<bool> ran{false};
    if (ran.exchange(true)) return;
    if (Runtime* runtime = State().instance.load(std::memory_order_acquire)) {
        runtime->Shutdown(Runtime::kExitBound, /*deliver=*/false);
    }
}

}  // namespace

Runtime::Runtime(HostOptions options, std::shared_ptr<Clock> clock)
    : host_(ResolveHostOptions(std::move(options))),
      log_(host_.logSink),
      clock_(clock ? std::move(clock) : std::make_shared<SystemClock>()) {}

// A test's runtime: whatever is in flight is ended rather than waited for, and a running session is
// left running, as a killed process leaves it.
Runtime::~Runtime() {
    Stop(std::chrono::seconds(30), /*deliver=*/false, /*normalEnd=*/false);
    if (stopper_.joinable()) stopper_.join();
}

Runtime& Runtime::Process() {
    auto& state = State();
    Runtime* runtime = state.instance.load(std::memory_order_acquire);
    if (runtime != nullptr) return *runtime;
    MutexLock lock(state.mutex);
    runtime = state.instance.load(std::memory_order_relaxed);
    if (runtime == nullptr) {
        runtime = new Runtime(state.pending);
        state.instance.store(runtime, std::memory_order_release);
        ArmExitHandler();
    }
    return *runtime;
}

Runtime* Runtime::ProcessIfCreated() { return State().instance.load(std::memory_order_acquire); }

void Runtime::ArmExitHandler() {
    static std::once_flag armed;
    std::call_once(armed, [] { std::atexit(OnProcessExit); });
}

void Runtime::RetireProcess() {
    auto& state = State();
    Runtime* runtime = nullptr;
    {
        MutexLock lock(state.mutex);
        runtime = state.instance.exchange(nullptr);
        state.pending = HostOptions();
        if (runtime != nullptr) state.retired.push_back(runtime);
    }
    if (runtime != nullptr) runtime->Shutdown(std::chrono::seconds(10), /*deliver=*/false);
}

bool Runtime::ConfigureProcess(HostOptions options) {
    auto& state = State();
    {
        MutexLock lock(state.mutex);
        if (state.instance.load(std::memory_order_relaxed) == nullptr) {
            state.pending = std::move(options);
            return true;
        }
    }
    Process().Log().Warning("Config - Host options were ignored because the library has already started");
    return false;
}

void Runtime::EnsureLocalDirectory() {
    std::call_once(localDirectory_, [this] {
        std::error_code error;
        std::filesystem::create_directories(host_.localDirectory, error);
        if (error) {
            log_.Error("Config - Unable to create local directory %s (%s)", host_.localDirectory.string().c_str(),
                       error.message().c_str());
        }
    });
}

SettingsStore& Runtime::GetSettingsStore() {
    return settings_.Get([this] {
        EnsureLocalDirectory();
        return std::make_unique<SettingsStore>(host_.localDirectory, log_);
    });
}

FileStore& Runtime::GetFileStore() {
    return files_.Get([this] {
        EnsureLocalDirectory();
        return std::make_unique<FileStore>(host_.localDirectory);
    });
}

ConfigSettings& Runtime::GetConfigSettings() {
    return config_.Get([this] { return LoadConfig(host_.packageDirectory, GetSettingsStore(), log_); });
}

ModuleGates& Runtime::GetModuleGates() {
    return gates_.Get([this] { return std::make_unique<ModuleGates>(GetConfigSettings()); });
}

SerialQueue& Runtime::GeneralQueue() {
    return general_.Get([this] { return std::make_unique<SerialQueue>("Config", log_, executor_); });
}

HttpClient& Runtime::GetHttpClient() {
    return http_.Get([this] { return std::make_unique<HttpClient>(host_.connectTo, *clock_); });
}

DeviceContext& Runtime::GetDeviceContext() {
    // The configuration, the settings and the HTTP client are reached only when a value needs them.
    return device_.Get([this] {
        return std::make_unique<DeviceContext>(
            host_, [this]() -> const ConfigSettings& { return GetConfigSettings(); },
            [this]() -> SettingsStore& { return GetSettingsStore(); },
            [this]() -> Transport& { return GetHttpClient(); }, log_);
    });
}

HitQueue& Runtime::GetHitQueue() {
    return hits_.Get([this] {
        return std::make_unique<HitQueue>(log_, *clock_, GetConfigSettings(), GetFileStore(), host_, GetHttpClient(), GetDeviceContext(), executor_);
    });
}

AnalyticsTracker& Runtime::GetAnalyticsTracker() {
    return tracker_.Get([this] {
        return std::make_unique<AnalyticsTracker>(log_, *clock_, GetConfigSettings(), GetModuleGates(), GeneralQueue(), GetDeviceContext(), GetHitQueue(),
                                                  executor_);
    });
}

TimedActionStore& Runtime::GetTimedActionStore() {
    return timedActions_.Get([this] { return std::make_unique<TimedActionStore>(GetFileStore(), GetAnalyticsTracker(), *clock_, log_); });
}

CohortaClient& Runtime::GetCohortaClient() {
    return audience_.Get([this] {
        return std::make_unique<CohortaClient>(GetConfigSettings(), GetModuleGates(), GetSettingsStore(), GetHttpClient(), log_, executor_);
    });
}

Lifecycle& Runtime::GetLifecycle() {
    return sessions_.Get([this] {
        return std::make_unique<Lifecycle>(GetConfigSettings(), GetModuleGates(), GetSettingsStore(), *clock_, GetDeviceContext(), GetAnalyticsTracker(), GetTimedActionStore(),
                                           GetCohortaClient(), log_);
    });
}

LifetimeValue& Runtime::GetLifetimeValue() {
    return lifetimeValue_.Get([this] { return std::make_unique<LifetimeValue>(GetSettingsStore(), GetAnalyticsTracker(), log_); });
}

LocationTracker& Runtime::GetLocationTracker() {
    return location_.Get([this] {
        // The offer module is made only when a position matches a point of interest.
        auto setOfferParameter = [this](const std::string& key, const std::string& value) {
            GetVantorClient().SetPersistentParameter(key, value);
        };
        return std::make_unique<LocationTracker>(GetConfigSettings(), GetAnalyticsTracker(), std::move(setOfferParameter), log_);
    });
}

MediaModule& Runtime::GetMediaModule() {
    return media_.Get([this] {
        // The gate is asked on the general queue, so the configuration is read there on first use.
        return std::make_unique<MediaModule>(log_, *clock_, [this] { return GetModuleGates().Analytics(); }, GetAnalyticsTracker(),
                                             GeneralQueue());
    });
}

VantorClient& Runtime::GetVantorClient() {
    return offers_.Get([this] {
        // The lifecycle and lifetime-value modules are reached only when a load needs them.
        VantorClient::Sources sources{[this] { return GetLifecycle().GetLifecycleContextData(); },
                                [this] { return GetLifetimeValue().GetLifetimeValue(); }};
        return std::make_unique<VantorClient>(GetConfigSettings(), GetModuleGates(), GetSettingsStore(), GetHttpClient(), *clock_, log_, std::move(sources),
                                        executor_);
    });
}

void Runtime::SetPrivacyStatus(std::int32_t status) {
    velmora::SetPrivacyStatus(GetConfigSettings(), status, GetSettingsStore(), log_, hits_.IfCreated());
}

template <typename Visit>
void Runtime::ForEachModuleInOrder(Visit&& visit) {
    auto each = [&](auto* module) {
        if (module != nullptr) visit(module);
    };
    each(offers_.IfCreated());
    each(audience_.IfCreated());
    each(tracker_.IfCreated());
    each(hits_.IfCreated());
}

bool Runtime::Flush(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    auto left = [&] {
        return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()),
                        std::chrono::milliseconds(0));
    };
    if (auto* queue = general_.IfCreated(); queue != nullptr && !queue->Drain(left())) return false;
    bool done = true;
    ForEachModuleInOrder([&](auto* module) { done = module->Flush(left()) && done; });
    return done;
}

void Runtime::StopThreads() {
    // The monitors first: their ticks would be posted to a queue that no longer runs them.
    if (auto* media = media_.IfCreated()) media->Shutdown();
    if (auto* queue = general_.IfCreated()) queue->Shutdown();
    ForEachModuleInOrder([](auto* module) { module->Shutdown(); });
    executor_.Shutdown();
    if (auto* settings = settings_.IfCreated()) settings->Checkpoint();  // the ".db" alone holds the values
}

bool Runtime::Shutdown(std::chrono::milliseconds timeout, bool deliver) {
    return Stop(timeout, deliver, /*normalEnd=*/true);
}

bool Runtime::Stop(std::chrono::milliseconds timeout, bool deliver, bool normalEnd) {
    // Not under a creation lock: a module being made may be stuck (a hung file system, or a TLS
    // library that another exit handler has already torn down), and the end must not wait for it.
    if (shutDown_.exchange(true)) return false;
    closed_ = true;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    // After every call made before the end, so that a session started just before it is closed too.
    if (auto* queue = general_.IfCreated(); queue != nullptr && normalEnd) {
        queue->Post([this] {
            if (auto* sessions = sessions_.IfCreated()) sessions->PauseIfCollecting();
        });
    }
    // Delivering gets most of the time; the rest is for saving and for the hit in flight.
    if (deliver) Flush(timeout - std::min(timeout / 4, std::chrono::milliseconds(250)));

    HitQueue* hits = hits_.IfCreated();
    if (hits != nullptr) hits->BeginShutdown();
    Flush(std::max(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()),
                   std::chrono::milliseconds(0)));  // what was tracked reaches the hit queue and its file
    if (hits != nullptr) hits->WaitUntilIdle(deadline);
    if (auto* http = http_.IfCreated()) http->Abort();

    if (!normalEnd) {
        StopThreads();
    } else {
        // A thread that cannot be stopped in time is left to the end of the process: only the
        // process-wide runtime, which is never destroyed, stops this way.
        auto stopped = std::make_shared<std::promise<void>>();
        auto done = stopped->get_future();
        stopper_ = std::thread([this, stopped] {
            StartLibraryThread("velmora-stop");
            StopThreads();
            stopped->set_value();
        });
        if (done.wait_until(deadline + kStopGrace) == std::future_status::ready) stopper_.join();
    }
    hits = hits_.IfCreated();
    return hits == nullptr || hits->QueuedHits() == 0;
}

}  // namespace velmora

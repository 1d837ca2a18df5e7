#include "core/runtime.h"

#include "core/http.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <mutex>

namespace velmora {
namespace {

struct ProcessState {
    std::mutex mutex;
    HostOptions pending;
    std::atomic<Runtime*> instance{nullptr};
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

// A test's runtime: whatever is in flight is ended rather than waited for.
Runtime::~Runtime() {
    Stop(std::chrono::seconds(30), /*deliver=*/false, /*bounded=*/false);
    if (stopper_.joinable()) stopper_.join();
}

Runtime& Runtime::Process() {
    auto& state = State();
    Runtime* runtime = state.instance.load(std::memory_order_acquire);
    if (runtime != nullptr) return *runtime;
    std::lock_guard lock(state.mutex);
    runtime = state.instance.load(std::memory_order_relaxed);
    if (runtime == nullptr) {
        runtime = new Runtime(state.pending);
        state.instance.store(runtime, std::memory_order_release);
        ArmExitHandler();
    }
    return *runtime;
}

void Runtime::ArmExitHandler() { std::atexit(OnProcessExit); }

bool Runtime::ConfigureProcess(HostOptions options) {
    auto& state = State();
    {
        std::lock_guard lock(state.mutex);
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

SettingsStore& Runtime::Settings() {
    return settings_.Get([this] {
        EnsureLocalDirectory();
        return std::make_unique<SettingsStore>(host_.localDirectory, log_);
    });
}

FileStore& Runtime::Files() {
    return files_.Get([this] {
        EnsureLocalDirectory();
        return std::make_unique<FileStore>(host_.localDirectory);
    });
}

ConfigSettings& Runtime::Config() {
    return config_.Get([this] { return LoadConfig(host_.packageDirectory, Settings(), log_); });
}

SerialQueue& Runtime::GeneralQueue() {
    return general_.Get([this] { return std::make_unique<SerialQueue>("Config", log_); });
}

ModuleGates& Runtime::Gates() {
    return gates_.Get([this] { return std::make_unique<ModuleGates>(Config()); });
}

RuntimeModule* Runtime::FindModule(std::type_index type) {
    std::shared_lock lock(modulesMutex_);
    auto it = modules_.find(type);
    return it != modules_.end() ? it->second : nullptr;
}

RuntimeModule& Runtime::GetModule(std::type_index type,
                                  const std::function<std::unique_ptr<RuntimeModule>()>& make) {
    if (RuntimeModule* module = FindModule(type)) return *module;
    // Creation may create the modules this one depends on, on the same thread.
    std::lock_guard creating(creating_);
    if (RuntimeModule* module = FindModule(type)) return *module;
    auto created = make();
    RuntimeModule* module = created.get();
    std::unique_lock lock(modulesMutex_);
    owned_.push_back(std::move(created));
    modules_.emplace(type, module);
    return *module;
}

std::vector<RuntimeModule*> Runtime::ModulesByStage() {
    std::vector<RuntimeModule*> modules;
    {
        std::shared_lock lock(modulesMutex_);
        for (const auto& module : owned_) modules.push_back(module.get());
    }
    std::stable_sort(modules.begin(), modules.end(),
                     [](RuntimeModule* a, RuntimeModule* b) { return a->Stage() < b->Stage(); });
    return modules;
}

void Runtime::SetPrivacyStatus(std::int32_t status) {
    velmora::SetPrivacyStatus(Config(), status, Settings(), log_, hitQueueControl_.load());
}

bool Runtime::Flush(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    auto left = [&] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    };
    if (auto* queue = general_.IfCreated(); queue != nullptr && !queue->Drain(left())) return false;
    bool done = true;
    for (RuntimeModule* module : ModulesByStage()) {
        auto remaining = std::max(left(), std::chrono::milliseconds(0));
        done = module->Flush(remaining) && done;
    }
    return done;
}

bool Runtime::Shutdown(std::chrono::milliseconds timeout, bool deliver) {
    return Stop(timeout, deliver, /*bounded=*/true);
}

bool Runtime::Stop(std::chrono::milliseconds timeout, bool deliver, bool bounded) {
    // Not under the creation lock: a module being made may be stuck (a hung file system, or a TLS
    // library that another exit handler has already torn down), and the end must not wait for it.
    if (shutDown_.exchange(true)) return false;
    closed_ = true;
    const auto start = std::chrono::steady_clock::now();
    const auto deadline = start + timeout;
    auto left = [&] {
        return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()),
                        std::chrono::milliseconds(0));
    };
    // Delivering gets most of the time; the rest is for saving and for the hit in flight.
    if (deliver) Flush(timeout - std::min(timeout / 4, std::chrono::milliseconds(250)));

    auto modules = ModulesByStage();
    for (RuntimeModule* module : modules) module->BeginShutdown();
    Flush(left());  // what was tracked reaches the hit queue and its file
    for (RuntimeModule* module : modules) module->WaitUntilIdle(deadline);
    if (auto* http = IfCreated<HttpClient>()) http->Abort();

    // Upstream first: each stage may still post to the ones after it.
    auto stop = [this] {
        if (auto* queue = general_.IfCreated()) queue->Shutdown();
        for (RuntimeModule* module : ModulesByStage()) module->Shutdown();
    };
    if (!bounded) {
        stop();
    } else {
        // A thread that cannot be stopped in time is left to the end of the process: only the
        // process-wide runtime, which is never destroyed, stops this way.
        auto stopped = std::make_shared<std::promise<void>>();
        auto done = stopped->get_future();
        stopper_ = std::thread([stop, stopped] {
            stop();
            stopped->set_value();
        });
        if (done.wait_until(deadline + kStopGrace) == std::future_status::ready) stopper_.join();
    }
    auto* hits = hitQueueControl_.load();
    return hits == nullptr || hits->QueuedHits() == 0;
}

}  // namespace velmora

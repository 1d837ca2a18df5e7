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
#include <memory>

namespace velmora {

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

    const HostOptions& Host() const { return host_; }
    const Logger& Log() const { return log_; }
    Logger& Log() { return log_; }
    Clock& GetClock() { return *clock_; }

    SettingsStore& Settings();
    FileStore& Files();
    ConfigSettings& Config();

    SerialQueue& GeneralQueue();

    // The privacy setter, run on the general queue by the public class.
    void SetPrivacyStatus(std::int32_t status);

    // Waits until every queue has run what was posted before the call and the sender is idle.
    bool Flush(std::chrono::milliseconds timeout);

    void Shutdown();

private:
    void EnsureLocalDirectory();
    HitQueueControl* HitQueue();

    const HostOptions host_;
    Logger log_;
    std::shared_ptr<Clock> clock_;
    std::once_flag localDirectory_;

    Lazy<SettingsStore> settings_;
    Lazy<FileStore> files_;
    Lazy<ConfigSettings> config_;
    Lazy<SerialQueue> general_;
};

}  // namespace velmora

#pragma once

#include "analytics/hit_sender.h"
#include "analytics/hit_store.h"
#include "core/clock.h"
#include "core/config.h"
#include "core/file_store.h"
#include "core/host.h"
#include "core/log.h"
#include "core/serial_queue.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>

namespace velmora {

class DeviceContext;
class HttpClient;

// The persistent first-in-first-out queue of hits and its one sender, as the library sees them.
//
// Changes (appends and clears) run on the queue's own work queue, which loads the file first and
// applies the start rule after each hit; the store keeps the hits and the file, the sender sends.
// While a write has failed, a timer tries again every kRetryInterval.
class HitQueue : public HitQueueControl {
public:
    static constexpr std::chrono::milliseconds kRetryInterval{5000};

    HitQueue(const Logger& log, Clock& clock, const ConfigSettings& config, FileStore& files, const HostOptions& host,
             Transport& transport, DeviceContext& device, Executor& executor);
    ~HitQueue();

    // Applies the start rule after the work posted before the call, then waits until the sender is
    // idle or waiting out a cooldown (which keeps its schedule). True when no hit is left queued.
    bool Flush(std::chrono::milliseconds timeout);
    // No new send starts; a cooldown ends. The hit in flight still gets its answer.
    void BeginShutdown();
    // True when no send is in flight by `deadline`.
    bool WaitUntilIdle(std::chrono::steady_clock::time_point deadline);
    void Shutdown();

    // Appends the hit on the work queue, saves and starts the sender when the start rule allows.
    void QueueHit(std::string hit, std::int32_t timestamp);
    // HitQueueControl: both run on the work queue, after what was posted before.
    void ClearQueue() override;
    void StartSender() override;

    std::size_t Size() const { return store_.Size(); }  // now
    std::size_t QueuedHits() const override { return Size(); }
    // The size once the work posted before has run; library threads ask Size() instead.
    std::future<std::size_t> SizeAfterPendingWork();
    Velmora::DeliveryStats Stats() { return store_.Stats().Snapshot(); }  // at once, from any thread
    SerialQueue& WorkQueue() { return work_; }  // for tests, to hold it

private:
    void Load();
    void Append(std::string hit, std::int32_t timestamp);
    void ApplyStartRule();
    // After a write: a timer while hits wait unsaved, none otherwise.
    void WatchUnsaved();

    const Logger& log_;
    Clock& clock_;
    const ConfigSettings& config_;
    HitStore store_;
    HitSender sender_;
    std::size_t baseUrlBytes_ = 0;  // work queue only, set by Load
    SerialQueue work_;              // last but one: it is the first to stop
    // The retry timer, shared with its ticks so that a tick never outlives the queue.
    struct RetryWatch {
        Mutex mutex;
        SerialQueue* work GUARDED_BY(mutex) = nullptr;  // null once the queue stops
        std::function<void()> retry GUARDED_BY(mutex);
        std::shared_ptr<Timer> timer GUARDED_BY(mutex);
    };
    std::shared_ptr<RetryWatch> retry_ = std::make_shared<RetryWatch>();
};

}  // namespace velmora

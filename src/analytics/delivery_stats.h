#pragma once

#include "core/mutex.h"

#include <velmora/Host.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace velmora {

// The hit queue's counters, kept as hits are queued, sent and dropped (Host::Stats). Each event is
// one call under a lock of its own that is never held with another, so whoever reads the counters
// waits for no queue, file or request.
class DeliveryRecorder {
public:
    void Loaded(std::size_t count) EXCLUDES(mutex_);  // an earlier run's backlog, now in the queue
    void Queued() EXCLUDES(mutex_);
    void Delivered(std::int32_t status) EXCLUDES(mutex_);
    // An attempt that failed; the hit stays queued. `status` 0: no answer came.
    void Retried(std::int32_t status, std::string error) EXCLUDES(mutex_);
    // `count` queued hits removed unsent: a failed attempt that is not retried, a stale hit, a clear.
    void Dropped(std::size_t count, std::int32_t status = 0, std::string error = {}) EXCLUDES(mutex_);
    // A hit refused before it reached the queue.
    void Refused(std::string error) EXCLUDES(mutex_);

    Velmora::DeliveryStats Snapshot() const EXCLUDES(mutex_);

private:
    void Failed(std::int32_t status, std::string error) REQUIRES(mutex_);

    mutable Mutex mutex_;
    Velmora::DeliveryStats stats_ GUARDED_BY(mutex_);
};

}  // namespace velmora

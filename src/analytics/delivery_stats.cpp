#include "analytics/delivery_stats.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace velmora {

void DeliveryRecorder::Loaded(std::size_t count) {
    MutexLock lock(mutex_);
    stats_.waiting += count;
}

void DeliveryRecorder::Queued() {
    MutexLock lock(mutex_);
    ++stats_.queued;
    ++stats_.waiting;
}

void DeliveryRecorder::Delivered(std::int32_t status) {
    const auto now = std::chrono::system_clock::now();
    MutexLock lock(mutex_);
    ++stats_.delivered;
    // A hit the sender was given without the queue (or after a clear) was never counted waiting.
    stats_.waiting -= std::min<std::uint64_t>(stats_.waiting, 1);
    stats_.lastStatus = status;
    stats_.lastDelivered = now;
}

void DeliveryRecorder::Retried(std::int32_t status, std::string error) {
    MutexLock lock(mutex_);
    ++stats_.retried;
    Failed(status, std::move(error));
}

void DeliveryRecorder::Dropped(std::size_t count, std::int32_t status, std::string error) {
    MutexLock lock(mutex_);
    stats_.dropped += count;
    stats_.waiting -= std::min<std::uint64_t>(stats_.waiting, count);
    // A clear or a stale hit is no attempt: the last one's status and failure stay.
    if (!error.empty()) Failed(status, std::move(error));
}

void DeliveryRecorder::Refused(std::string error) {
    MutexLock lock(mutex_);
    ++stats_.dropped;
    stats_.lastError = std::move(error);
}

void DeliveryRecorder::Failed(std::int32_t status, std::string error) {
    stats_.lastStatus = status;
    stats_.lastError = std::move(error);
}

Velmora::DeliveryStats DeliveryRecorder::Snapshot() const {
    MutexLock lock(mutex_);
    return stats_;
}

}  // namespace velmora

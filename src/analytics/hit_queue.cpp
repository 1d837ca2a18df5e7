#include "analytics/hit_queue.h"

#include "analytics/hit_builder.h"
#include "core/device.h"
#include "core/http.h"

namespace velmora {

HitQueue::HitQueue(const Logger& log, Clock& clock, const ConfigSettings& config, FileStore& files,
                   const HostOptions& host, Transport& transport, DeviceContext& device, Executor& executor)
    : log_(log),
      clock_(clock),
      config_(config),
      store_(log, files),
      sender_(log, clock, config, host, store_, transport, [&device] { return device.GetUserAgent(); },
              [this] { StartSender(); }),
      work_("Analytics", log, executor) {
    {
        MutexLock lock(retry_->mutex);
        retry_->work = &work_;
        retry_->retry = [this] {
            store_.Save();
            ApplyStartRule();
            WatchUnsaved();
        };
    }
    work_.Post([this] { Load(); });
}

HitQueue::~HitQueue() { Shutdown(); }

void HitQueue::Load() {
    try {
        baseUrlBytes_ = BaseUrl(config_).size();
    } catch (const std::exception&) {
        baseUrlBytes_ = 0;  // the sender reports an unusable base URL itself
    }
    store_.Load();
}

void HitQueue::QueueHit(std::string hit, std::int32_t timestamp) {
    store_.Announce();  // a save made meanwhile waits for this hit
    bool posted = false;
    try {
        posted = work_.Post([this, hit = std::move(hit), timestamp]() mutable { Append(std::move(hit), timestamp); });
        if (!posted) log_.Error("Analytics - Unable to queue hit (%s)", "the hit queue has stopped");
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to queue hit (%s)", e.what());
    }
    if (!posted) store_.Withdraw();
}

void HitQueue::Append(std::string hit, std::int32_t timestamp) {
    // A hit built just before an opt-out arrives after the opt-out's clear: it must not stay.
    if (config_.Privacy() == kPrivacyOptOut) {
        store_.Withdraw();
        log_.Debug("Analytics - Ignoring hit due to privacy status being opted out");
        return;
    }
    if (baseUrlBytes_ + hit.size() > HitSender::kMaxUrlBytes) {
        store_.Withdraw();
        const std::string reason = "the request URL would be " + std::to_string(baseUrlBytes_ + hit.size()) +
                                   " bytes, more than the " + std::to_string(HitSender::kMaxUrlBytes) +
                                   " a server accepts";
        log_.Error("Analytics - Unable to queue hit (%s)", reason.c_str());
        store_.Stats().Refused("Analytics - Unable to queue hit (" + reason + ")");
        return;
    }
    try {
        store_.Append(std::move(hit), timestamp);
    } catch (const std::exception& e) {
        store_.Withdraw();
        log_.Error("Analytics - Unable to queue hit (%s)", e.what());
        return;
    }
    WatchUnsaved();
    ApplyStartRule();
}

void HitQueue::ClearQueue() {
    store_.Announce();
    if (!work_.Post([this] {
            store_.Clear();
            WatchUnsaved();
        })) {
        store_.Withdraw();
    }
}

void HitQueue::WatchUnsaved() {
    const bool unsaved = store_.Unsaved();
    MutexLock lock(retry_->mutex);
    if (!unsaved || retry_->work == nullptr) {
        if (retry_->timer) retry_->timer->Cancel();
        retry_->timer.reset();
    } else if (!retry_->timer) {
        retry_->timer = clock_.Every(kRetryInterval, [watch = retry_] {
            MutexLock ticking(watch->mutex);
            if (watch->work != nullptr) watch->work->Post(watch->retry);
        });
    }
}

void HitQueue::StartSender() {
    work_.Post([this] { ApplyStartRule(); });
}

void HitQueue::ApplyStartRule() {
    if (config_.Privacy() != kPrivacyOptIn) return;
    if (config_.offlineEnabled && static_cast<std::int64_t>(Size()) <= config_.batchLimit) return;
    sender_.Start();
}

std::future<std::size_t> HitQueue::SizeAfterPendingWork() {
    return work_.Submit([this] { return Size(); });
}

bool HitQueue::Flush(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    // Hits left by an earlier run go out now when the status and the connection allow it.
    auto started = work_.Submit([this] { ApplyStartRule(); });
    if (started.wait_until(deadline) != std::future_status::ready) return false;
    return sender_.WaitUntilResting(deadline) && Size() == 0;
}

void HitQueue::BeginShutdown() { sender_.BeginShutdown(); }

bool HitQueue::WaitUntilIdle(std::chrono::steady_clock::time_point deadline) {
    return sender_.WaitUntilIdle(deadline);
}

void HitQueue::Shutdown() {
    sender_.BeginShutdown();
    work_.Shutdown();  // runs the changes that were posted; they no longer start the sender
    {
        MutexLock lock(retry_->mutex);
        retry_->work = nullptr;
        if (retry_->timer) retry_->timer->Cancel();
        retry_->timer.reset();
    }
    sender_.Join();
    store_.Close();  // what failed to be written is tried once more, and the disk waited for
}

}  // namespace velmora

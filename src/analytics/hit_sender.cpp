#include "analytics/hit_sender.h"

#include "analytics/hit_builder.h"
#include "core/library_thread.h"

namespace velmora {

HitSender::HitSender(const Logger& log, Clock& clock, const ConfigSettings& config, const HostOptions& host,
                     HitStore& store, Transport& transport, std::function<std::string()> userAgent,
                     std::function<void()> restart, std::chrono::milliseconds idleLinger)
    : log_(log),
      clock_(clock),
      config_(config),
      host_(host),
      store_(store),
      transport_(transport),
      userAgent_(std::move(userAgent)),
      idleLinger_(idleLinger),
      watch_(std::make_shared<ConnectionWatch>()) {
    MutexLock lock(watch_->mutex);
    watch_->host = &host_;
    watch_->log = &log_;
    watch_->restart = std::move(restart);
}

HitSender::~HitSender() {
    BeginShutdown();
    Join();
}

void HitSender::Start() {
    {
        MutexLock lock(mutex_);
        if (stopping_) return;
        runRequested_ = true;
        if (!threadRunning_) {
            thread_ = std::thread([this] { Loop(); });
            threadRunning_ = true;
        }
    }
    wake_.Signal();
}

bool HitSender::WaitUntilResting(std::chrono::steady_clock::time_point deadline) {
    MutexLock lock(mutex_);
    return rest_.WaitUntil(mutex_, deadline, [this] {
        mutex_.AssertHeld();
        return (!running_ && !runRequested_) || coolingDown_;
    });
}

void HitSender::BeginShutdown() {
    {
        MutexLock lock(mutex_);
        stopping_ = true;
        runRequested_ = false;
    }
    {
        MutexLock lock(watch_->mutex);  // waits for a check that is running
        watch_->host = nullptr;
        if (watch_->timer) watch_->timer->Cancel();
        watch_->timer.reset();
    }
    wake_.SignalAll();
    waker_.Wake();
}

bool HitSender::WaitUntilIdle(std::chrono::steady_clock::time_point deadline) {
    MutexLock lock(mutex_);
    return rest_.WaitUntil(mutex_, deadline, [this] {
        mutex_.AssertHeld();
        return !running_;
    });
}

void HitSender::Join() {
    std::thread thread;
    {
        MutexLock lock(mutex_);
        if (thread_.get_id() == std::this_thread::get_id()) return;
        thread = std::move(thread_);  // none when it left by itself
    }
    if (thread.joinable()) thread.join();
}

bool HitSender::Stopping() const {
    MutexLock lock(mutex_);
    return stopping_;
}

void HitSender::Loop() {
    StartLibraryThread("velmora-sender");
    mutex_.Lock();
    for (;;) {
        // Idle for a while, the thread leaves; the next Start makes another.
        const bool asked = wake_.WaitUntil(mutex_, std::chrono::steady_clock::now() + idleLinger_, [this] {
            mutex_.AssertHeld();
            return runRequested_ || stopping_;
        });
        if (stopping_ || !asked) break;  // idle: !asked
        runRequested_ = false;
        running_ = true;
        mutex_.Unlock();
        try {
            Run();
        } catch (const std::exception& e) {
            log_.Error("Analytics - Unexpected error in the hit sender (%s)", e.what());
        } catch (...) {
            log_.Error("Analytics - Unexpected error in the hit sender (unknown)");
        }
        mutex_.Lock();
        running_ = false;
        rest_.SignalAll();
    }
    // Nothing a flush waits for changes as the thread leaves: the run that ended has signalled, and
    // no run is asked for (a stop withdraws the request).
    threadRunning_ = false;
    if (!stopping_) thread_.detach();  // it left by itself: nobody joins it
    mutex_.Unlock();
}

void HitSender::Run() {
    bool removed = false;
    for (;;) {
        if (Stopping() || config_.Privacy() != kPrivacyOptIn) break;
        if (!InternetAvailable(host_, log_)) {
            WatchForConnection();
            break;
        }
        std::optional<QueuedHit> hit = store_.TakeFront();
        if (!hit) break;
        if (config_.offlineEnabled) {
            KeepInOrder(*hit);
        } else if (static_cast<std::int64_t>(hit->timestamp) < clock_.NowSeconds() - 5LL) {
            store_.RemoveFront();  // too old to be worth sending without offline tracking
            store_.Stats().Dropped(1);
            removed = true;
            continue;
        }
        if (Attempt(*hit) != Outcome::kRetryLater) {
            store_.RemoveFront();
            removed = true;
            continue;
        }
        store_.Return();
        if (!Cooldown()) break;
    }
    if (removed) store_.Save();  // what the run removed since the last save
}

void HitSender::KeepInOrder(QueuedHit& hit) {
    if (hit.timestamp >= lastSentTimestamp_) return;
    const auto adjusted = static_cast<std::int32_t>(static_cast<std::int64_t>(lastSentTimestamp_) + 1);
    const std::string from = "&ts=" + std::to_string(static_cast<long>(hit.timestamp));
    if (auto at = hit.hit.find(from); at != std::string::npos) {
        hit.hit.replace(at, from.size(), "&ts=" + std::to_string(static_cast<long>(adjusted)));
    }
    log_.Debug("Analytics - Adjusting out of order hit timestamp(%ld->%ld)", static_cast<long>(hit.timestamp),
               static_cast<long>(adjusted));
    hit.timestamp = adjusted;
}

HitSender::Outcome HitSender::Attempt(const QueuedHit& hit) {
    std::string url;
    try {
        if (!baseUrl_) baseUrl_ = BaseUrl(config_);
        if (headers_.empty()) {
            headers_.emplace_back("User-Agent", userAgent_());
            headers_.emplace_back("Accept-Language", std::string());
        }
        headers_[1].second = LanguageTag(host_);
        url.reserve(baseUrl_->size() + hit.hit.size());
        url += *baseUrl_;
        url += hit.hit;
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to send hit (%s)", e.what());
        store_.Stats().Dropped(1, 0, std::string("Analytics - Unable to send hit (") + e.what() + ")");
        return Outcome::kDrop;
    }
    if (url.size() > kMaxUrlBytes) {  // queued by an older version
        log_.Debug("Analytics - Invalid hit (removed)");
        store_.Stats().Dropped(1, 0, "Analytics - Invalid hit (removed)");
        return Outcome::kDrop;
    }
    log_.Debug("Analytics - Sending hit (%s)", url.c_str());
    try {
        RequestHandler request(transport_, log_, url);
        request.SetTimeout(kRequestTimeoutMillis);
        for (const auto& [name, value] : headers_) request.SetHeader(name, value);
        const std::int32_t status = request.GetStatusCode();
        if (status == 200 || status == 307) {
            lastSentTimestamp_ = hit.timestamp;
            store_.Stats().Delivered(status);
            return Outcome::kDelivered;
        }
        if (!config_.offlineEnabled) {
            store_.Stats().Dropped(1, status, "Analytics - Unable to send hit (HTTP status " + std::to_string(status) +
                                                  ")");
            return Outcome::kDrop;
        }
        log_.Debug("Analytics - Recoverable network error (%d), imposing internal cooldown (%d seconds)", status,
                   kCooldownSeconds);
        store_.Stats().Retried(status, "Analytics - Recoverable network error (" + std::to_string(status) +
                                           "), imposing internal cooldown (" + std::to_string(kCooldownSeconds) + " seconds)");
        return Outcome::kRetryLater;
    } catch (const TransportError& e) {
        if (e.Refused()) {
            log_.Debug("Analytics - Invalid hit (removed)");
            store_.Stats().Dropped(1, 0, "Analytics - Invalid hit (removed)");
            return Outcome::kDrop;
        }
        log_.Debug("Analytics - Unable to send hit, attempting to recover");
        store_.Stats().Retried(0, std::string("Request Handler - Error processing request (") + e.what() + ")");
        return Outcome::kRetryLater;
    } catch (const std::exception&) {
        log_.Debug("Analytics - Invalid hit (removed)");
        store_.Stats().Dropped(1, 0, "Analytics - Invalid hit (removed)");
        return Outcome::kDrop;
    }
}

bool HitSender::Cooldown() {
    {
        MutexLock lock(mutex_);
        coolingDown_ = true;
    }
    rest_.SignalAll();
    bool finished = true;  // a stop after the last second is left to the run's own check
    for (int second = 0; second < kCooldownSeconds && finished; ++second) {
        waker_.Reset();
        finished = !Stopping() && clock_.SleepFor(std::chrono::seconds(1), waker_);
    }
    MutexLock lock(mutex_);
    coolingDown_ = false;
    return finished;
}

// Nothing else would start the sender again once the connection is back: the queued hits would
// wait for the next tracking call. The check is cheap and runs on the clock's timer thread.
void HitSender::WatchForConnection() {
    MutexLock lock(watch_->mutex);
    if (watch_->host == nullptr || watch_->timer) return;
    watch_->timer = clock_.Every(kConnectionCheckInterval, [watch = watch_] {
        MutexLock ticking(watch->mutex);
        if (watch->host == nullptr || !watch->timer || !InternetAvailable(*watch->host, *watch->log)) return;
        watch->timer->Cancel();
        watch->timer.reset();
        watch->restart();
    });
}

}  // namespace velmora

#pragma once

#include "analytics/hit_store.h"
#include "core/clock.h"
#include "core/config.h"
#include "core/host.h"
#include "core/http.h"
#include "core/log.h"
#include "core/mutex.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace velmora {

// The one sender: a thread, made by the first start and gone after kIdleLinger without one, that
// sends the store's hits one at a time in order until the store is empty, the privacy status is
// not opt-in or there is no connection. A retry waits out a cooldown on the injected clock, which
// only the end of sending cuts short; a lost connection is watched for on the clock's timer, and
// `restart` is called when it is back.
class HitSender {
public:
    enum class Outcome { kDelivered, kRetryLater, kDrop };

    static constexpr int kCooldownSeconds = 30;
    static constexpr std::int32_t kRequestTimeoutMillis = 5000;
    // How often a sender that stopped for lack of a connection looks whether it is back.
    static constexpr std::chrono::milliseconds kConnectionCheckInterval{2000};
    // Longest request URL (base URL and hit) that is sent. Common servers refuse longer request
    // lines, and a hit that can never be delivered must not hold up the ones behind it.
    static constexpr std::size_t kMaxUrlBytes = 64 * 1024;
    // How long the thread stays without a run to do, unless told otherwise.
    static constexpr std::chrono::milliseconds kIdleLinger{2000};

    HitSender(const Logger& log, Clock& clock, const ConfigSettings& config, const HostOptions& host, HitStore& store,
              Transport& transport, std::function<std::string()> userAgent, std::function<void()> restart,
              std::chrono::milliseconds idleLinger = kIdleLinger);
    ~HitSender();

    // Asks for a run; the thread starts with the first.
    void Start() EXCLUDES(mutex_);
    // True once no run is going or asked for, or the run is waiting out a cooldown.
    bool WaitUntilResting(std::chrono::steady_clock::time_point deadline) EXCLUDES(mutex_);
    // No new send starts; a cooldown and a connection watch end. The hit in flight gets its answer.
    void BeginShutdown() EXCLUDES(mutex_);
    // True when no run is going by `deadline`.
    bool WaitUntilIdle(std::chrono::steady_clock::time_point deadline) EXCLUDES(mutex_);
    void Join();

    // One attempt at `hit`, with its timestamp as it goes out; logs the outcome's line.
    Outcome Attempt(const QueuedHit& hit);

private:
    void Loop() EXCLUDES(mutex_);
    void Run();
    bool Stopping() const EXCLUDES(mutex_);
    // Moves a timestamp that is behind the last delivered one just after it, in the hit too.
    void KeepInOrder(QueuedHit& hit);
    bool Cooldown() EXCLUDES(mutex_);  // false when sending ended meanwhile
    void WatchForConnection();

    const Logger& log_;
    Clock& clock_;
    const ConfigSettings& config_;
    const HostOptions& host_;
    HitStore& store_;
    Transport& transport_;
    std::function<std::string()> userAgent_;
    const std::chrono::milliseconds idleLinger_;

    mutable Mutex mutex_;
    CondVar wake_;  // the thread waits here for a start or the end
    CondVar rest_;  // flushes wait here for a run to end or to cool down
    bool runRequested_ GUARDED_BY(mutex_) = false;
    bool running_ GUARDED_BY(mutex_) = false;
    bool coolingDown_ GUARDED_BY(mutex_) = false;
    bool stopping_ GUARDED_BY(mutex_) = false;
    bool threadRunning_ GUARDED_BY(mutex_) = false;
    std::thread thread_ GUARDED_BY(mutex_);  // detached by itself when it leaves idle, else joined by Join
    Waker waker_;

    // Sender thread only.
    std::int32_t lastSentTimestamp_ = 0;
    std::optional<std::string> baseUrl_;
    HttpRequest::Headers headers_;  // the user agent, built once; the language is read for every request

    // While the sender waits for a connection: the timer that looks for it. Shared with the timer's
    // tick so that a tick never outlives the sender.
    struct ConnectionWatch {
        Mutex mutex;
        const HostOptions* host GUARDED_BY(mutex) = nullptr;  // null once sending has ended
        const Logger* log GUARDED_BY(mutex) = nullptr;
        std::function<void()> restart GUARDED_BY(mutex);
        std::shared_ptr<Timer> timer GUARDED_BY(mutex);
    };
    std::shared_ptr<ConnectionWatch> watch_;
};

}  // namespace velmora

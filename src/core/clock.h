#pragma once

#include "core/mutex.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace velmora {

// Interrupts a clock sleep: shutdown and flush wake sleepers instead of waiting them out.
class Waker {
public:
    void Wake() EXCLUDES(mutex_);
    void Reset() EXCLUDES(mutex_);
    bool Woken() const EXCLUDES(mutex_);

private:
    friend class SystemClock;
    friend class ManualClock;
    mutable Mutex mutex_;
    CondVar cv_;
    bool woken_ GUARDED_BY(mutex_) = false;
};

// A repeating timer handle; Cancel never waits for a tick that is running.
class Timer {
public:
    virtual ~Timer() = default;
    virtual void Cancel() = 0;
};

// Time as the library sees it. Tests inject a ManualClock so that cooldowns, session timeouts and
// media monitors run without real waiting.
class Clock {
public:
    virtual ~Clock() = default;
    virtual std::int64_t NowMillis() const = 0;  // since 1970-01-01 00:00 UTC
    std::int32_t NowSeconds() const { return static_cast<std::int32_t>(NowMillis() / 1000); }
    double NowSecondsPrecise() const { return static_cast<double>(NowMillis()) / 1000.0; }

    // Sleeps for `duration` of this clock; false when `waker` ended the sleep early.
    virtual bool SleepFor(std::chrono::milliseconds duration, Waker& waker) = 0;

    // Calls `tick` every `period`, first after one period, until the timer is cancelled.
    virtual std::shared_ptr<Timer> Every(std::chrono::milliseconds period, std::function<void()> tick) = 0;
};

// Timers tick on one thread, which leaves kIdleLinger after the last timer was cancelled.
class SystemClock final : public Clock {
public:
    static constexpr std::chrono::milliseconds kIdleLinger{2000};

    SystemClock() = default;
    ~SystemClock() override;
    std::int64_t NowMillis() const override;
    bool SleepFor(std::chrono::milliseconds duration, Waker& waker) override;
    std::shared_ptr<Timer> Every(std::chrono::milliseconds period, std::function<void()> tick) override
        EXCLUDES(mutex_);

private:
    struct Entry;
    void RunTimers() EXCLUDES(mutex_);
    // The next timer to tick, once it is due; none when the clock stops or has had no timer for kIdleLinger.
    std::shared_ptr<Entry> NextTick() EXCLUDES(mutex_);

    Mutex mutex_;
    CondVar cv_;
    std::multimap<std::chrono::steady_clock::time_point, std::shared_ptr<Entry>> due_ GUARDED_BY(mutex_);
    std::thread thread_ GUARDED_BY(mutex_);  // started by Every when none runs; detached by itself when it leaves idle
    bool threadRunning_ GUARDED_BY(mutex_) = false;
    bool stopping_ GUARDED_BY(mutex_) = false;
};

// Time moves only when a test says so. Timers fire on the advancing thread, in time order.
class ManualClock final : public Clock {
public:
    explicit ManualClock(std::int64_t startMillis = 1'400'000'000'000);
    std::int64_t NowMillis() const override { return now_.load(); }
    bool SleepFor(std::chrono::milliseconds duration, Waker& waker) override EXCLUDES(mutex_);
    std::shared_ptr<Timer> Every(std::chrono::milliseconds period, std::function<void()> tick) override
        EXCLUDES(mutex_);

    void Advance(std::chrono::milliseconds duration) EXCLUDES(mutex_);
    void SetMillis(std::int64_t millis) EXCLUDES(mutex_);
    // Blocks (in real time, up to `limit`) until at least `count` threads sleep on this clock.
    bool AwaitSleepers(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10))
        EXCLUDES(mutex_);
    std::size_t Sleepers() const EXCLUDES(mutex_);

private:
    struct Entry;
    // Takes each sleeper's Waker lock while holding mutex_.
    void WakeSleepers() EXCLUDES(mutex_);

    std::atomic<std::int64_t> now_;
    mutable Mutex mutex_;
    CondVar sleeperAdded_;
    std::vector<std::pair<Waker*, std::int64_t>> sleepers_ GUARDED_BY(mutex_);  // with deadlines
    std::vector<std::shared_ptr<Entry>> timers_ GUARDED_BY(mutex_);  // and each Entry's `due`
};

// Local calendar fields of a second count, from the C library (honours TZ).
std::tm LocalTime(std::int64_t seconds);

}  // namespace velmora

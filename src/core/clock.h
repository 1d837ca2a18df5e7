#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace velmora {

// Interrupts a clock sleep: shutdown and flush wake sleepers instead of waiting them out.
class Waker {
public:
    void Wake();
    void Reset();
    bool Woken() const;

private:
    friend class SystemClock;
    friend class ManualClock;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    bool woken_ = false;
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

class SystemClock final : public Clock {
public:
    SystemClock() = default;
    ~SystemClock() override;
    std::int64_t NowMillis() const override;
    bool SleepFor(std::chrono::milliseconds duration, Waker& waker) override;
    std::shared_ptr<Timer> Every(std::chrono::milliseconds period, std::function<void()> tick) override;

private:
    struct Entry;
    void RunTimers();

    std::mutex mutex_;
    std::condition_variable cv_;
    std::multimap<std::chrono::steady_clock::time_point, std::shared_ptr<Entry>> due_;
    std::thread thread_;
    bool stopping_ = false;
};

// Time moves only when a test says so. Timers fire on the advancing thread, in time order.
class ManualClock final : public Clock {
public:
    explicit ManualClock(std::int64_t startMillis = 1'400'000'000'000);
    std::int64_t NowMillis() const override { return now_.load(); }
    bool SleepFor(std::chrono::milliseconds duration, Waker& waker) override;
    std::shared_ptr<Timer> Every(std::chrono::milliseconds period, std::function<void()> tick) override;

    void Advance(std::chrono::milliseconds duration);
    void SetMillis(std::int64_t millis);
    // Blocks (in real time, up to `limit`) until at least `count` threads sleep on this clock.
    bool AwaitSleepers(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10));
    std::size_t Sleepers() const;

private:
    struct Entry;
    void WakeSleepers();

    std::atomic<std::int64_t> now_;
    mutable std::mutex mutex_;
    std::condition_variable sleepersChanged_;
    std::vector<Waker*> sleepers_;
    std::vector<std::shared_ptr<Entry>> timers_;
};

// Local calendar fields of a second count, from the C library (honours TZ).
std::tm LocalTime(std::int64_t seconds);

}  // namespace velmora

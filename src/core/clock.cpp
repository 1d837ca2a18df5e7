#include "core/clock.h"

#include "core/library_thread.h"

#include <algorithm>

namespace velmora {

void Waker::Wake() {
    std::lock_guard lock(mutex_);
    woken_ = true;
    cv_.notify_all();
}

void Waker::Reset() {
    std::lock_guard lock(mutex_);
    woken_ = false;
}

bool Waker::Woken() const {
    std::lock_guard lock(mutex_);
    return woken_;
}

// ---------------------------------------------------------------- SystemClock

struct SystemClock::Entry : Timer {
    std::chrono::milliseconds period;
    std::function<void()> tick;
    std::atomic<bool> cancelled{false};
    void Cancel() override { cancelled = true; }
};

SystemClock::~SystemClock() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) thread_.join();
}

std::int64_t SystemClock::NowMillis() const {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

bool SystemClock::SleepFor(std::chrono::milliseconds duration, Waker& waker) {
    std::unique_lock lock(waker.mutex_);
    return !waker.cv_.wait_for(lock, duration, [&] { return waker.woken_; });
}

std::shared_ptr<Timer> SystemClock::Every(std::chrono::milliseconds period, std::function<void()> tick) {
    auto entry = std::make_shared<Entry>();
    entry->period = period;
    entry->tick = std::move(tick);
    std::lock_guard lock(mutex_);
    due_.emplace(std::chrono::steady_clock::now() + period, entry);
    if (!thread_.joinable()) thread_ = std::thread([this] { RunTimers(); });
    cv_.notify_all();
    return entry;
}

void SystemClock::RunTimers() {
    StartLibraryThread("velmora-timer");
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        // Drop cancelled timers first so that an idle clock really sleeps.
        for (auto it = due_.begin(); it != due_.end();) {
            it = it->second->cancelled ? due_.erase(it) : std::next(it);
        }
        if (due_.empty()) {
            cv_.wait(lock);
            continue;
        }
        auto next = due_.begin()->first;
        if (std::chrono::steady_clock::now() < next) {
            cv_.wait_until(lock, next);
            continue;
        }
        auto entry = due_.begin()->second;
        due_.erase(due_.begin());
        due_.emplace(next + entry->period, entry);
        lock.unlock();
        if (!entry->cancelled) entry->tick();
        lock.lock();
    }
}

// ---------------------------------------------------------------- ManualClock

struct ManualClock::Entry : Timer {
    std::chrono::milliseconds period;
    std::function<void()> tick;
    std::int64_t due = 0;
    std::atomic<bool> cancelled{false};
    void Cancel() override { cancelled = true; }
};

ManualClock::ManualClock(std::int64_t startMillis) : now_(startMillis) {}

bool ManualClock::SleepFor(std::chrono::milliseconds duration, Waker& waker) {
    const std::int64_t deadline = now_.load() + duration.count();
    {
        std::lock_guard lock(mutex_);
        sleepers_.push_back(&waker);
    }
    sleepersChanged_.notify_all();
    bool reached;
    {
        std::unique_lock lock(waker.mutex_);
        waker.cv_.wait(lock, [&] { return waker.woken_ || now_.load() >= deadline; });
        reached = now_.load() >= deadline;
    }
    {
        std::lock_guard lock(mutex_);
        sleepers_.erase(std::find(sleepers_.begin(), sleepers_.end(), &waker));
    }
    sleepersChanged_.notify_all();
    return reached;
}

std::shared_ptr<Timer> ManualClock::Every(std::chrono::milliseconds period, std::function<void()> tick) {
    auto entry = std::make_shared<Entry>();
    entry->period = period;
    entry->tick = std::move(tick);
    entry->due = now_.load() + period.count();
    std::lock_guard lock(mutex_);
    timers_.push_back(entry);
    return entry;
}

void ManualClock::Advance(std::chrono::milliseconds duration) {
    const std::int64_t target = now_.load() + duration.count();
    for (;;) {
        std::shared_ptr<Entry> next;
        {
            std::lock_guard lock(mutex_);
            timers_.erase(std::remove_if(timers_.begin(), timers_.end(),
                                         [](const auto& t) { return t->cancelled.load(); }),
                          timers_.end());
            for (const auto& timer : timers_) {
                if (timer->due <= target && (!next || timer->due < next->due)) next = timer;
            }
            if (next) {
                now_.store(std::max(now_.load(), next->due));
                next->due += next->period.count();
            }
        }
        if (!next) break;
        WakeSleepers();
        next->tick();
    }
    now_.store(std::max(now_.load(), target));
    WakeSleepers();
}

void ManualClock::SetMillis(std::int64_t millis) {
    now_.store(millis);
    WakeSleepers();
}

void ManualClock::WakeSleepers() {
    std::lock_guard lock(mutex_);
    for (Waker* waker : sleepers_) {
        std::lock_guard wakerLock(waker->mutex_);
        waker->cv_.notify_all();
    }
}

bool ManualClock::AwaitSleepers(std::size_t count, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return sleepersChanged_.wait_for(lock, limit, [&] { return sleepers_.size() >= count; });
}

std::size_t ManualClock::Sleepers() const {
    std::lock_guard lock(mutex_);
    return sleepers_.size();
}

std::tm LocalTime(std::int64_t seconds) {
    std::time_t time = static_cast<std::time_t>(seconds);
    std::tm fields{};
    localtime_r(&time, &fields);
    return fields;
}

}  // namespace velmora

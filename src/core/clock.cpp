#include "core/clock.h"

#include "core/library_thread.h"

#include <algorithm>

namespace velmora {

void Waker::Wake() {
    MutexLock lock(mutex_);
    woken_ = true;
    cv_.SignalAll();
}

void Waker::Reset() {
    MutexLock lock(mutex_);
    woken_ = false;
}

bool Waker::Woken() const {
    MutexLock lock(mutex_);
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
    std::thread thread;
    {
        MutexLock lock(mutex_);
        stopping_ = true;
        thread = std::move(thread_);  // none when it left by itself
    }
    cv_.SignalAll();
    if (thread.joinable()) thread.join();
}

std::int64_t SystemClock::NowMillis() const {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

bool SystemClock::SleepFor(std::chrono::milliseconds duration, Waker& waker) {
    MutexLock lock(waker.mutex_);
    return !waker.cv_.WaitUntil(waker.mutex_, std::chrono::steady_clock::now() + duration, [&] {
        waker.mutex_.AssertHeld();
        return waker.woken_;
    });
}

std::shared_ptr<Timer> SystemClock::Every(std::chrono::milliseconds period, std::function<void()> tick) {
    auto entry = std::make_shared<Entry>();
    entry->period = period;
    entry->tick = std::move(tick);
    MutexLock lock(mutex_);
    due_.emplace(std::chrono::steady_clock::now() + period, entry);
    if (!threadRunning_) {
        thread_ = std::thread([this] { RunTimers(); });
        threadRunning_ = true;
    }
    cv_.SignalAll();
    return entry;
}

void SystemClock::RunTimers() {
    StartLibraryThread("velmora-timer");
    // Ticks run unlocked: one may call Every or Cancel.
    while (const std::shared_ptr<Entry> entry = NextTick()) entry->tick();
}

std::shared_ptr<SystemClock::Entry> SystemClock::NextTick() {
    MutexLock lock(mutex_);
    while (!stopping_) {
        if (due_.empty()) {
            // Without timers for a while the thread leaves; the next Every makes another.
            if (!cv_.WaitUntil(mutex_, std::chrono::steady_clock::now() + kIdleLinger) && due_.empty() && !stopping_) {
                thread_.detach();  // nobody joins a thread that left by itself
                break;
            }
            continue;
        }
        auto next = due_.begin()->first;
        if (std::chrono::steady_clock::now() < next) {
            cv_.WaitUntil(mutex_, next);
            continue;
        }
        auto entry = due_.begin()->second;
        due_.erase(due_.begin());
        if (entry->cancelled) continue;  // dropped when due, so that an idle clock really sleeps
        due_.emplace(next + entry->period, entry);
        return entry;
    }
    threadRunning_ = false;
    return nullptr;
}

// ---------------------------------------------------------------- ManualClock

struct ManualClock::Entry : Timer {
    std::chrono::milliseconds period;
    std::function<void()> tick;
    std::int64_t due = 0;  // guarded by the clock's mutex_
    std::atomic<bool> cancelled{false};
    void Cancel() override { cancelled = true; }
};

ManualClock::ManualClock(std::int64_t startMillis) : now_(startMillis) {}

bool ManualClock::SleepFor(std::chrono::milliseconds duration, Waker& waker) {
    const std::int64_t deadline = now_.load() + duration.count();
    {
        MutexLock lock(mutex_);
        sleepers_.emplace_back(&waker, deadline);
    }
    sleeperAdded_.SignalAll();
    bool reached;
    {
        MutexLock lock(waker.mutex_);
        waker.cv_.Wait(waker.mutex_, [&] {
            waker.mutex_.AssertHeld();
            return waker.woken_ || now_.load() >= deadline;
        });
        reached = now_.load() >= deadline;
    }
    {
        MutexLock lock(mutex_);  // a sleeper woken at its deadline has been taken off already
        sleepers_.erase(std::remove_if(sleepers_.begin(), sleepers_.end(),
                                       [&](const auto& sleeper) { return sleeper.first == &waker; }),
                        sleepers_.end());
    }
    return reached;
}

std::shared_ptr<Timer> ManualClock::Every(std::chrono::milliseconds period, std::function<void()> tick) {
    auto entry = std::make_shared<Entry>();
    entry->period = period;
    entry->tick = std::move(tick);
    entry->due = now_.load() + period.count();
    MutexLock lock(mutex_);
    timers_.push_back(entry);
    return entry;
}

void ManualClock::Advance(std::chrono::milliseconds duration) {
    const std::int64_t target = now_.load() + duration.count();
    for (;;) {
        std::shared_ptr<Entry> next;
        {
            MutexLock lock(mutex_);
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

// A sleeper whose deadline has come leaves the list at once, so that AwaitSleepers never counts a
// thread that is only on its way out of SleepFor.
void ManualClock::WakeSleepers() {
    MutexLock lock(mutex_);
    const std::int64_t now = now_.load();
    sleepers_.erase(std::remove_if(sleepers_.begin(), sleepers_.end(),
                                   [&](const auto& sleeper) {
                                       if (sleeper.second > now) return false;
                                       // Taking its lock orders the wake after its check of the time.
                                       MutexLock wakerLock(sleeper.first->mutex_);
                                       sleeper.first->cv_.SignalAll();
                                       return true;
                                   }),
                    sleepers_.end());
}

bool ManualClock::AwaitSleepers(std::size_t count, std::chrono::milliseconds limit) {
    MutexLock lock(mutex_);
    return sleeperAdded_.WaitUntil(mutex_, std::chrono::steady_clock::now() + limit, [&] {
        mutex_.AssertHeld();
        return sleepers_.size() >= count;
    });
}

std::size_t ManualClock::Sleepers() const {
    MutexLock lock(mutex_);
    return sleepers_.size();
}

std::tm LocalTime(std::int64_t seconds) {
    std::time_t time = static_cast<std::time_t>(seconds);
    std::tm fields{};
    localtime_r(&time, &fields);
    return fields;
}

}  // namespace velmora

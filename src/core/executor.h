#pragma once

#include "core/mutex.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

namespace velmora {

// The worker threads that every serial queue of a runtime shares. Two workers stay once started;
// when every worker is busy (a request waiting on a slow server, a queue waiting on another) and
// work is ready, another is started, up to kMaxWorkers, and it leaves again after kIdleLinger
// without work. So an idle process holds at most kKeptWorkers of them, and a queue that waits on
// another queue cannot starve it. Tests shorten the linger.
class Executor {
public:
    static constexpr std::size_t kKeptWorkers = 2;
    static constexpr std::size_t kMaxWorkers = 16;
    static constexpr std::chrono::milliseconds kIdleLinger{2000};

    explicit Executor(std::chrono::milliseconds idleLinger = kIdleLinger) : idleLinger_(idleLinger) {}
    ~Executor();  // Shutdown()
    Executor(const Executor&) = delete;
    Executor& operator=(const Executor&) = delete;

    // Runs `task` on a worker; false (and nothing run) after Shutdown. Tasks catch their own
    // exceptions (SerialQueue does).
    bool Run(std::function<void()> task) EXCLUDES(mutex_);

    // Runs the tasks already handed over, then joins every worker. Called from a worker, it leaves
    // that worker to end by itself.
    void Shutdown() EXCLUDES(mutex_);

    // Workers alive now (for tests and the thread map).
    std::size_t Workers() const EXCLUDES(mutex_);
    // Threads not yet joined: the workers and those that left since a worker was last started.
    std::size_t Threads() const EXCLUDES(mutex_);

private:
    void Work() EXCLUDES(mutex_);
    void ReapFinished() REQUIRES(mutex_);

    const std::chrono::milliseconds idleLinger_;
    mutable Mutex mutex_;
    CondVar ready_;
    std::deque<std::function<void()>> tasks_ GUARDED_BY(mutex_);
    std::vector<std::thread> threads_ GUARDED_BY(mutex_);
    std::vector<std::thread::id> finished_ GUARDED_BY(mutex_);  // left the loop, not yet joined
    std::size_t workers_ GUARDED_BY(mutex_) = 0;
    std::size_t idle_ GUARDED_BY(mutex_) = 0;
    bool stopping_ GUARDED_BY(mutex_) = false;
};

}  // namespace velmora

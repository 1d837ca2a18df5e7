#pragma once

#include "core/executor.h"
#include "core/log.h"
#include "core/mutex.h"

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <string>

namespace velmora {

// Runs closures one at a time, in posting order, on the workers of a shared Executor (a strand):
// a queue holds no thread of its own. A closure that throws is logged and the queue goes on.
// Shutdown runs what was posted, then returns; posts after shutdown are dropped with an error line.
class SerialQueue {
public:
    // `logPrefix` names the module in the queue's own log lines, e.g. "Analytics".
    SerialQueue(std::string logPrefix, const Logger& log, Executor& executor);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    bool Post(std::function<void()> work) EXCLUDES(mutex_);
    // The same for a queue that runs several modules' work: a failure of `work` is logged under
    // `module` (a string literal) rather than under the queue's own name.
    bool Post(const char* module, std::function<void()> work) EXCLUDES(mutex_);

    // Posts `work` and returns a future for its result. An exception thrown by `work` is logged
    // by the queue and leaves the future with the value-initialised result.
    template <class F>
    auto Submit(F work) -> std::future<decltype(work())>;

    // True when everything posted before the call has run within `timeout`.
    bool Drain(std::chrono::milliseconds timeout);

    // Waits until what was posted has run; later posts are dropped.
    void Shutdown() EXCLUDES(mutex_);

private:
    // Whether the calling thread is running one of this queue's closures.
    bool OnQueueThread() const;
    void RunBatch() EXCLUDES(mutex_);
    void RunOne(std::function<void()>& work);

    const std::string prefix_;
    const Logger& log_;
    Executor& executor_;
    Mutex mutex_;
    CondVar idle_;
    std::deque<std::function<void()>> items_ GUARDED_BY(mutex_);
    bool scheduled_ GUARDED_BY(mutex_) = false;  // a worker owns the queue's turn
    bool stopping_ GUARDED_BY(mutex_) = false;
};

template <class F>
auto SerialQueue::Submit(F work) -> std::future<decltype(work())> {
    using R = decltype(work());
    auto promise = std::make_shared<std::promise<R>>();
    auto future = promise->get_future();
    auto body = [promise, work = std::move(work), this]() mutable {
        try {
            if constexpr (std::is_void_v<R>) {
                work();
                promise->set_value();
            } else {
                promise->set_value(work());
            }
        } catch (const std::exception& e) {
            log_.Error("%s - Unexpected error in background work (%s)", prefix_.c_str(), e.what());
            if constexpr (std::is_void_v<R>) promise->set_value(); else promise->set_value(R{});
        } catch (...) {
            log_.Error("%s - Unexpected error in background work (unknown)", prefix_.c_str());
            if constexpr (std::is_void_v<R>) promise->set_value(); else promise->set_value(R{});
        }
    };
    if (!Post(std::move(body))) {
        if constexpr (std::is_void_v<R>) promise->set_value(); else promise->set_value(R{});
    }
    return future;
}

}  // namespace velmora

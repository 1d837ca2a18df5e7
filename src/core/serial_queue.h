#pragma once

#include "core/log.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <atomic>
#include <thread>

namespace velmora {

// Runs closures one at a time, in posting order, on its own thread (started on first post).
// A closure that throws is logged and the queue goes on. Shutdown runs what was posted, then joins;
// posts after shutdown are dropped with an error line.
class SerialQueue {
public:
    // `logPrefix` names the module in the queue's own log lines, e.g. "Analytics".
    SerialQueue(std::string logPrefix, const Logger& log);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    bool Post(std::function<void()> work);

    // Posts `work` and returns a future for its result. An exception thrown by `work` is logged
    // by the queue and leaves the future with the value-initialised result.
    template <class F>
    auto Submit(F work) -> std::future<decltype(work())>;

    // True when everything posted before the call has run within `timeout`.
    bool Drain(std::chrono::milliseconds timeout);

    void Shutdown();
    bool OnQueueThread() const { return std::this_thread::get_id() == threadId_.load(); }

private:
    void Run();

    const std::string prefix_;
    const Logger& log_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> items_;
    std::thread thread_;
    std::atomic<std::thread::id> threadId_{};
    bool stopping_ = false;
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
        }
    };
    if (!Post(std::move(body))) {
        if constexpr (std::is_void_v<R>) promise->set_value(); else promise->set_value(R{});
    }
    return future;
}

}  // namespace velmora

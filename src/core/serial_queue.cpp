#include "core/serial_queue.h"

#include "core/library_thread.h"

namespace velmora {

SerialQueue::SerialQueue(std::string logPrefix, const Logger& log) : prefix_(std::move(logPrefix)), log_(log) {}

SerialQueue::~SerialQueue() { Shutdown(); }

bool SerialQueue::Post(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            log_.Error("%s - Work posted after shutdown was dropped", prefix_.c_str());
            return false;
        }
        items_.push_back(std::move(work));
        if (!thread_.joinable()) {
            thread_ = std::thread([this] { Run(); });
            threadId_ = thread_.get_id();
        }
    }
    cv_.notify_one();
    return true;
}

bool SerialQueue::Drain(std::chrono::milliseconds timeout) {
    if (OnQueueThread()) return false;
    auto done = Submit([] {});
    return done.wait_for(timeout) == std::future_status::ready;
}

void SerialQueue::Shutdown() {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
    }
    cv_.notify_one();
    if (thread_.joinable()) {
        if (OnQueueThread()) {
            thread_.detach();
        } else {
            thread_.join();
        }
    }
}

void SerialQueue::Run() {
    MarkLibraryThread();
    std::unique_lock lock(mutex_);
    for (;;) {
        cv_.wait(lock, [this] { return stopping_ || !items_.empty(); });
        if (items_.empty()) return;  // stopping, and everything posted has run
        auto work = std::move(items_.front());
        items_.pop_front();
        lock.unlock();
        try {
            work();
        } catch (const std::exception& e) {
            log_.Error("%s - Unexpected error in background work (%s)", prefix_.c_str(), e.what());
        } catch (...) {
            log_.Error("%s - Unexpected error in background work (unknown)", prefix_.c_str());
        }
        work = nullptr;  // release captures outside the lock's next critical section
        lock.lock();
    }
}

}  // namespace velmora

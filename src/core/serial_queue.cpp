#include "core/serial_queue.h"

namespace velmora {
namespace {

// The queue whose closure the calling worker is running.
thread_local const SerialQueue* tCurrentQueue = nullptr;

}  // namespace

SerialQueue::SerialQueue(std::string logPrefix, const Logger& log, Executor& executor)
    : prefix_(std::move(logPrefix)), log_(log), executor_(executor) {}

SerialQueue::~SerialQueue() { Shutdown(); }

bool SerialQueue::Post(std::function<void()> work) {
    {
        MutexLock lock(mutex_);
        if (stopping_) {
            log_.Error("%s - Work posted after shutdown was dropped", prefix_.c_str());
            return false;
        }
        items_.push_back(std::move(work));
        if (scheduled_) return true;
        scheduled_ = true;
    }
    if (executor_.Run([this] { RunBatch(); })) return true;
    // The executor has stopped (the end of the runtime): the closures run here instead, in order.
    RunBatch();
    return true;
}

bool SerialQueue::Post(const char* module, std::function<void()> work) {
    return Post([this, module, work = std::move(work)] {
        try {
            work();
        } catch (const std::exception& e) {
            log_.Error("%s - Unexpected error in background work (%s)", module, e.what());
        } catch (...) {
            log_.Error("%s - Unexpected error in background work (unknown)", module);
        }
    });
}

bool SerialQueue::OnQueueThread() const { return tCurrentQueue == this; }

bool SerialQueue::Drain(std::chrono::milliseconds timeout) {
    if (OnQueueThread()) return false;
    auto done = Submit([] {});
    return done.wait_for(timeout) == std::future_status::ready;
}

void SerialQueue::Shutdown() {
    MutexLock lock(mutex_);
    stopping_ = true;
    if (OnQueueThread()) return;  // the running batch finishes what was posted
    idle_.Wait(mutex_, [this] {
        mutex_.AssertHeld();
        return !scheduled_;
    });
}

void SerialQueue::RunOne(std::function<void()>& work) {
    try {
        work();
    } catch (const std::exception& e) {
        log_.Error("%s - Unexpected error in background work (%s)", prefix_.c_str(), e.what());
    } catch (...) {
        log_.Error("%s - Unexpected error in background work (unknown)", prefix_.c_str());
    }
    work = nullptr;  // captures are released outside the lock
}

void SerialQueue::RunBatch() {
    const SerialQueue* outer = tCurrentQueue;
    tCurrentQueue = this;
    for (;;) {
        std::function<void()> work;
        {
            MutexLock lock(mutex_);
            if (items_.empty()) {
                scheduled_ = false;
                idle_.SignalAll();
                break;
            }
            work = std::move(items_.front());
            items_.pop_front();
        }
        RunOne(work);
    }
    tCurrentQueue = outer;
}

}  // namespace velmora

#include "core/executor.h"

#include "core/library_thread.h"

#include <algorithm>

namespace velmora {

Executor::~Executor() { Shutdown(); }

bool Executor::Run(std::function<void()> task) {
    MutexLock lock(mutex_);
    if (stopping_) return false;
    tasks_.push_back(std::move(task));
    if (tasks_.size() <= idle_ || workers_ >= kMaxWorkers) {
        ready_.Signal();
        return true;
    }
    ReapFinished();
    threads_.emplace_back([this] { Work(); });
    ++workers_;
    ++idle_;  // until it takes a task: a burst of posts does not start a worker each
    return true;
}

void Executor::ReapFinished() {
    for (auto id : finished_) {
        auto it = std::find_if(threads_.begin(), threads_.end(), [id](const std::thread& t) { return t.get_id() == id; });
        if (it == threads_.end()) continue;
        it->join();  // it has left its loop: the join is immediate
        threads_.erase(it);
    }
    finished_.clear();
}

void Executor::Work() {
    StartLibraryThread("velmora-work");
    mutex_.Lock();
    for (;;) {
        if (tasks_.empty()) {
            if (stopping_) break;
            if (workers_ <= kKeptWorkers) {
                ready_.Wait(mutex_);
            } else if (!ready_.WaitUntil(mutex_, std::chrono::steady_clock::now() + idleLinger_) && tasks_.empty() &&
                       workers_ > kKeptWorkers) {
                break;  // a worker started for a busy moment goes again
            }
            continue;
        }
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        --idle_;
        mutex_.Unlock();
        task();
        task = nullptr;  // its captures go before the lock is taken again
        mutex_.Lock();
        ++idle_;
    }
    --idle_;
    --workers_;
    finished_.push_back(std::this_thread::get_id());
    mutex_.Unlock();
}

void Executor::Shutdown() {
    std::vector<std::thread> threads;
    {
        MutexLock lock(mutex_);
        stopping_ = true;
        ready_.SignalAll();
        threads.swap(threads_);
        finished_.clear();
    }
    for (auto& thread : threads) {
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
        } else {
            thread.join();
        }
    }
}

std::size_t Executor::Workers() const {
    MutexLock lock(mutex_);
    return workers_;
}

std::size_t Executor::Threads() const {
    MutexLock lock(mutex_);
    return threads_.size();
}

}  // namespace velmora

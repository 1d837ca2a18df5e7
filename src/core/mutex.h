#pragma once

#include "core/thread_annotations.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace velmora {

// std::mutex with the annotations clang's analysis needs; libstdc++'s own mutex carries none.
class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() ACQUIRE() { mutex_.lock(); }
    void Unlock() RELEASE() { mutex_.unlock(); }
    // For analysis only: tells clang that the caller holds the lock (a condition variable's
    // predicate runs with it held).
    void AssertHeld() const ASSERT_CAPABILITY(this) {}

private:
    friend class CondVar;
    std::mutex mutex_;
};

// Holds a Mutex for its scope.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() RELEASE() { mutex_.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

// std::recursive_mutex with the same annotations, for the one place that must let its own thread
// in again (Lazy: making a value may reach the same Lazy through a host callback). The analysis
// does not model re-entry; it checks only that the guarded members are touched under the lock.
class CAPABILITY("mutex") RecursiveMutex {
public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void Lock() ACQUIRE() { mutex_.lock(); }
    void Unlock() RELEASE() { mutex_.unlock(); }

private:
    std::recursive_mutex mutex_;
};

// Holds a RecursiveMutex for its scope.
class SCOPED_CAPABILITY RecursiveMutexLock {
public:
    explicit RecursiveMutexLock(RecursiveMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~RecursiveMutexLock() RELEASE() { mutex_.Unlock(); }
    RecursiveMutexLock(const RecursiveMutexLock&) = delete;
    RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

private:
    RecursiveMutex& mutex_;
};

// A condition variable; every wait names the Mutex the caller holds, so clang checks it.
class CondVar {
public:
    CondVar() = default;
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    void Wait(Mutex& mutex) REQUIRES(mutex) {
        std::unique_lock lock(mutex.mutex_, std::adopt_lock);
        cv_.wait(lock);
        lock.release();
    }
    // False when the deadline passed first.
    bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex) {
        std::unique_lock lock(mutex.mutex_, std::adopt_lock);
        const bool notified = cv_.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        return notified;
    }
    // The predicates run with the mutex held; a lambda says so with `mutex.AssertHeld()`.
    template <class Predicate>
    void Wait(Mutex& mutex, Predicate done) REQUIRES(mutex) {
        while (!done()) Wait(mutex);
    }
    // True when `done` holds, false when the deadline passed first.
    template <class Predicate>
    bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline, Predicate done) REQUIRES(mutex) {
        while (!done()) {
            if (!WaitUntil(mutex, deadline)) return done();
        }
        return true;
    }
    void Signal() { cv_.notify_one(); }
    void SignalAll() { cv_.notify_all(); }

private:
    std::condition_variable cv_;
};

}  // namespace velmora

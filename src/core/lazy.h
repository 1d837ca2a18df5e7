#pragma once

#include "core/mutex.h"

#include <atomic>
#include <memory>

namespace velmora {

// A value created on first use, exactly once, and kept until its owner is destroyed.
template <class T>
class Lazy {
public:
    template <class Make>
    T& Get(Make&& make) {
        T* value = value_.load(std::memory_order_acquire);
        if (value != nullptr) return *value;
        RecursiveMutexLock lock(mutex_);
        if (!owned_) {
            owned_ = make();
            value_.store(owned_.get(), std::memory_order_release);
        }
        return *owned_;
    }
    T* IfCreated() const { return value_.load(std::memory_order_acquire); }

private:
    // Held while `make` runs, which gets the values it needs from other Lazy members.
    RecursiveMutex mutex_;
    std::unique_ptr<T> owned_ GUARDED_BY(mutex_);
    std::atomic<T*> value_{nullptr};  // set once, under mutex_; read without it
};

}  // namespace velmora

#pragma once

#include <atomic>
#include <memory>
#include <mutex>

namespace velmora {

// A value created on first use, exactly once, and kept until its owner is destroyed.
template <class T>
class Lazy {
public:
    template <class Make>
    T& Get(Make&& make) {
        T* value = value_.load(std::memory_order_acquire);
        if (value != nullptr) return *value;
        std::lock_guard lock(mutex_);
        if (!owned_) {
            owned_ = make();
            value_.store(owned_.get(), std::memory_order_release);
        }
        return *owned_;
    }
    T* IfCreated() const { return value_.load(std::memory_order_acquire); }

private:
    std::recursive_mutex mutex_;
    std::unique_ptr<T> owned_;
    std::atomic<T*> value_{nullptr};
};

}  // namespace velmora

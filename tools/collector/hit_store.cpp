#include "hit_store.h"

namespace velmora::collector {

HitStore::HitStore(std::size_t capacity) : capacity_(capacity == 0 ? 1 : capacity) {}

ReceivedHit HitStore::Add(ReceivedHit hit) {
    std::lock_guard lock(mutex_);
    hit.id = ++lastId_;
    if (hits_.size() == capacity_) hits_.pop_front();
    hits_.push_back(hit);
    return hit;
}

std::vector<ReceivedHit> HitStore::NewestFirst(std::uint64_t afterId) const {
    std::lock_guard lock(mutex_);
    std::vector<ReceivedHit> newest;
    for (auto it = hits_.rbegin(); it != hits_.rend() && it->id > afterId; ++it) newest.push_back(*it);
    return newest;
}

std::uint64_t HitStore::TotalReceived() const {
    std::lock_guard lock(mutex_);
    return lastId_;
}

std::size_t HitStore::Size() const {
    std::lock_guard lock(mutex_);
    return hits_.size();
}

}  // namespace velmora::collector

#include "recent_hits.h"

namespace velmora::collector {

RecentHits::RecentHits(std::size_t capacity) : capacity_(capacity == 0 ? 1 : capacity) {}

ReceivedHit RecentHits::Add(ReceivedHit hit) {
    std::lock_guard lock(mutex_);
    hit.id = ++lastId_;
    if (hits_.size() == capacity_) hits_.pop_front();
    hits_.push_back(hit);
    return hit;
}

std::vector<ReceivedHit> RecentHits::NewestFirst(std::uint64_t afterId) const {
    std::lock_guard lock(mutex_);
    std::vector<ReceivedHit> newest;
    for (auto it = hits_.rbegin(); it != hits_.rend() && it->id > afterId; ++it) newest.push_back(*it);
    return newest;
}

std::uint64_t RecentHits::TotalReceived() const {
    std::lock_guard lock(mutex_);
    return lastId_;
}

std::size_t RecentHits::Size() const {
    std::lock_guard lock(mutex_);
    return hits_.size();
}

}  // namespace velmora::collector

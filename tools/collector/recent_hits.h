#pragma once

#include "hit_decoder.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace velmora::collector {

// A decoded hit with what the collector knows about its arrival.
struct ReceivedHit {
    std::uint64_t id = 0;           // 1, 2, ... in order of arrival
    std::int64_t receivedMillis = 0;  // wall clock, milliseconds since 1970
    int status = 200;               // what the collector answered
    std::string url;                // the request target as received
    Hit hit;
};

// The most recent hits, oldest dropped first once `capacity` is reached. Safe across threads.
class RecentHits {
public:
    explicit RecentHits(std::size_t capacity);

    // Numbers the hit, keeps it and returns the kept copy.
    ReceivedHit Add(ReceivedHit hit);

    // Hits whose id is greater than `afterId`, newest first.
    std::vector<ReceivedHit> NewestFirst(std::uint64_t afterId = 0) const;

    std::uint64_t TotalReceived() const;
    std::size_t Size() const;

private:
    const std::size_t capacity_;
    mutable std::mutex mutex_;
    std::deque<ReceivedHit> hits_;
    std::uint64_t lastId_ = 0;
};

}  // namespace velmora::collector

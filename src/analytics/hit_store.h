#pragma once

#include "analytics/delivery_stats.h"
#include "core/file_store.h"
#include "core/log.h"
#include "core/mutex.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// One hit waiting to be sent, with its member of the queue file made once.
struct QueuedHit {
    std::string hit;
    std::int32_t timestamp = 0;
    std::shared_ptr<const std::string> json;  // {"T":...,"H":"..."}
    std::uint64_t sequence = 0;               // order of arrival; tells whether a save has covered it
};

// Parses the queue file's text. Hits before a malformed entry are kept in `hits` and the error is
// thrown; an empty text is an empty queue. Without `withMembers` the member texts are left for the
// first save to make.
void ParseQueueFile(const std::string& text, std::vector<QueuedHit>& hits, bool withMembers = true);
// The same from a stream, without the member texts.
void ParseQueueFile(std::istream& text, std::vector<QueuedHit>& hits);
std::string QueueFileMember(const std::string& hit, std::int32_t timestamp);

// The queue's hits and the file that keeps them, oldest first.
//
// The file is rewritten whole, but changes that come in a burst share a save: one is made when no
// further announced change is waiting, or at the latest every kSaveInterval. The sender is only
// given hits a save has written, and the hit it holds stays in the file until its answer is
// known, so a crash can make a hit be sent twice but never lose one.
class HitStore {
public:
    static constexpr const char* kFileName = "VelmoraDataCache.json";
    static constexpr std::chrono::milliseconds kSaveInterval{100};

    HitStore(const Logger& log, FileStore& files);

    // Appends the file's hits; a damaged file keeps the whole entries before the damage.
    void Load() EXCLUDES(mutex_);

    // A change (Append or Clear) is on its way: saves wait for it. Withdraw when it will not come.
    void Announce() EXCLUDES(mutex_);
    void Withdraw() EXCLUDES(mutex_);
    void Append(std::string hit, std::int32_t timestamp) EXCLUDES(mutex_);
    void Clear() EXCLUDES(mutex_);

    // The oldest hit, handed to the sender after a save has written it; none when empty. Until
    // RemoveFront or Return it is not counted by Size but stays in the file.
    std::optional<QueuedHit> TakeFront() EXCLUDES(mutex_);
    // The answer is known: the hit taken leaves the file with the next save, made when one is due.
    void RemoveFront() EXCLUDES(mutex_);
    // To be tried again: the hit goes back to the head (unless a clear came meanwhile) and is saved.
    void Return(QueuedHit hit) EXCLUDES(mutex_);

    std::size_t Size() const EXCLUDES(mutex_);
    // Writes the queue when it changed since the last save.
    void Save() EXCLUDES(mutex_);
    DeliveryRecorder& Stats() { return stats_; }

private:
    // Counts one announced change as applied; true when no further one is waiting.
    bool Applied();
    void SaveLocked() REQUIRES(mutex_);
    bool SaveDue() const REQUIRES(mutex_);

    const Logger& log_;
    FileStore& files_;
    DeliveryRecorder stats_;

    // Changes announced and not yet applied. No lock: a caller announcing must not wait for a save,
    // or every change would arrive after the save before it and get a save of its own.
    std::atomic<int> announced_{0};

    // Held for every read or change of the hits and for every save, so saves land in order.
    mutable Mutex mutex_;
    std::deque<QueuedHit> hits_ GUARDED_BY(mutex_);
    std::shared_ptr<const std::string> taken_ GUARDED_BY(mutex_);  // the sender's hit, still in the file
    bool changed_ GUARDED_BY(mutex_) = false;  // since the last save
    std::uint64_t nextSequence_ GUARDED_BY(mutex_) = 1;
    std::uint64_t savedThrough_ GUARDED_BY(mutex_) = 0;  // highest sequence the file has been given
    std::chrono::steady_clock::time_point lastSave_ GUARDED_BY(mutex_){};
};

}  // namespace velmora

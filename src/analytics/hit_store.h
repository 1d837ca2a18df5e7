#pragma once

#include "analytics/delivery_stats.h"
#include "analytics/queue_file.h"
#include "core/file_store.h"
#include "core/log.h"
#include "core/mutex.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <exception>
#include <optional>
#include <string>

namespace velmora {

// The queue's hits: the ones in the file (QueueFile) and the ones not yet written to it.
//
// Memory holds the entries of new hits until they are written and a window of the next ones to send
// read ahead from the file, never the backlog. Changes that come in a burst share a write: one is
// made when no further announced change is waiting, or at the latest every kSaveInterval. A write
// that fails keeps its hits waiting in memory (Unsaved) for the next change, Save or Close; they
// are not sent before they are in the file, and the hit the sender holds stays there until its
// answer is known, so a crash can make a hit be sent twice but never lose one.
class HitStore {
public:
    static constexpr std::chrono::milliseconds kSaveInterval{100};
    static constexpr std::size_t kWindowBytes = 64 * 1024;

    HitStore(const Logger& log, FileStore& files);

    // Finds the file's hits; a damaged file keeps the whole entries before the damage.
    void Load() EXCLUDES(mutex_);

    // A change (Append or Clear) is on its way: saves wait for it. Withdraw when it will not come.
    void Announce() EXCLUDES(mutex_);
    void Withdraw() EXCLUDES(mutex_);
    void Append(std::string hit, std::int32_t timestamp) EXCLUDES(mutex_);
    void Clear() EXCLUDES(mutex_);

    // For the sender, one at a time. The oldest hit in the file; none when the file has none.
    // Until RemoveFront or Return it is not counted by Size but stays in the file.
    std::optional<QueuedHit> TakeFront() EXCLUDES(mutex_);
    // Its answer is known (delivered or dropped): the hit leaves the queue. The sender's thread
    // only: a long delivered prefix is dropped from the file here.
    void RemoveFront() EXCLUDES(mutex_);
    // To be tried again: the hit stays first in line (unless a clear came meanwhile).
    void Return() EXCLUDES(mutex_);

    std::size_t Size() const { return size_.load(); }  // never waits for a write
    // Writes what waits; an empty queue gets an empty file. Unsaved() tells whether anything is left.
    void Save() EXCLUDES(mutex_);
    bool Unsaved() const EXCLUDES(mutex_);
    // The end of the process: Save, then wait for the disk.
    void Close() EXCLUDES(mutex_);
    DeliveryRecorder& Stats() { return stats_; }

private:
    bool Applied();  // counts one announced change as applied; true when no further one is waiting
    bool SaveLocked() REQUIRES(mutex_);
    void CompactIfDue() EXCLUDES(mutex_);
    void Recount() REQUIRES(mutex_);
    void SaveFailed(const std::exception& e) REQUIRES(mutex_);

    const Logger& log_;
    DeliveryRecorder stats_;

    // Changes announced and not yet applied. No lock: a caller announcing must not wait for a save,
    // or every change would arrive after the save before it and get a save of its own.
    std::atomic<int> announced_{0};
    std::atomic<std::size_t> size_{0};

    // Held for every read or change of the hits and for every write, so writes land in order.
    mutable Mutex mutex_;
    QueueFile file_ GUARDED_BY(mutex_);
    std::deque<std::string> unsaved_ GUARDED_BY(mutex_);  // entries of hits not yet in the file
    std::deque<FileEntry> window_ GUARDED_BY(mutex_);     // the next hits in the file, read ahead
    bool taken_ GUARDED_BY(mutex_) = false;               // window_.front() is with the sender
    bool resetDue_ GUARDED_BY(mutex_) = false;            // a clear the file has not had yet
    std::string lastFailure_ GUARDED_BY(mutex_);          // logged once until a write works
    std::chrono::steady_clock::time_point lastSave_ GUARDED_BY(mutex_){};
};

}  // namespace velmora

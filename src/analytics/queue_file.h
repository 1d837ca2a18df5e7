#pragma once

#include "analytics/queue_entries.h"
#include "core/file_store.h"

#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <istream>
#include <string>
#include <vector>

namespace velmora {

// "VelmoraDataCache.json" kept so that no operation costs more with a long queue than a short one.
//
// The file stays the document {"Hits":[<entry>,<entry>,...]}, oldest first, in the layout
// QueueFileMember writes. New entries are written over the closing "]}" in two writes: first all
// but the first byte, after the closing ']', then that byte (',' or '{') over it. Until the second
// write the old document is whole, followed by a cut-off tail that the next open removes.
//
// Delivered entries are not removed one by one: "VelmoraDataCache.index" beside the file records
// where the queued entries start (the head), how many there are, and checks that tie the record to
// this file (its inode and hashes of the entries before the head and before the end). A record that
// does not fit the file is ignored and the file read from its start, so the record only saves
// time. Once the delivered prefix is larger than the rest, and at least kCompactBytes, the rest is
// copied to a new file that replaces the old one; an empty queue replaces the file with an empty
// document.
//
// Not thread-safe: the hit store's lock guards it. Only CopyQueued runs without it.
class QueueFile {
public:
    static constexpr const char* kFileName = "VelmoraDataCache.json";
    static constexpr const char* kIndexName = "VelmoraDataCache.index";
    static constexpr std::uint64_t kCompactBytes = 1 << 20;
    // How far appends may run ahead of the record before it is written again: what a new process
    // reads beyond the record.
    static constexpr std::uint64_t kIndexSlack = 256 << 10;

    explicit QueueFile(FileStore& files) : files_(files) {}
    ~QueueFile();
    QueueFile(const QueueFile&) = delete;
    QueueFile& operator=(const QueueFile&) = delete;

    // Opens the file and finds its queued entries: from the record when it fits, else by reading the
    // whole file (a file in another layout is rewritten in this one). Returns the damage found, empty
    // when none; the entries before it are kept. Throws when the file cannot be opened or read.
    std::string Open();
    std::uint64_t Count() const { return count_; }
    std::uint64_t Head() const { return head_; }

    // Writes `members` after the last entry. Throws, and the entries already there stay whole.
    void Append(const std::deque<std::string>& members);
    // Replaces the file with a document of `members` alone.
    void Reset(const std::deque<std::string>& members);
    // Every queued entry is gone (an opt-out); the record says so at once, Reset follows.
    void DropAll();
    bool HasDelivered() const { return document_ && head_ > kStart; }
    // Moves the places read by the sender's window after a compaction moved the entries down.
    static void Shift(std::deque<FileEntry>& window, std::uint64_t by);

    // The next whole entries not yet read, about `bytes` of them, for the sender's window; Advance,
    // DropAll and the replacements keep the place. Returns the damage met, if any: the queue then
    // ends before it.
    std::string Read(std::size_t bytes, std::deque<FileEntry>& out);
    // The first queued entry, the oldest one read, has left the queue.
    void Advance(const FileEntry& first);

    // Dropping the delivered prefix in three steps, of which only the copy of the bulk runs without
    // the lock: Begin and Finish run under it, all three on the thread that calls Advance.
    struct Compaction {
        std::uint64_t generation = 0, from = 0, to = 0;  // the part copied without the lock
        Descriptor source, target;
        std::filesystem::path temporary;
        std::string error;
        ~Compaction();
    };
    bool CompactionDue() const;
    void BeginCompaction(Compaction& job);
    static void CopyQueued(Compaction& job);
    // The bytes every offset moved down by, 0 when the job was given up (its error says why, if
    // one came).
    std::uint64_t FinishCompaction(Compaction& job);

    // Waits for the disk and brings the record up to date: the end of the process.
    void Sync();

    // The hits a new process would find queued in `directory` (the delivered prefix left out), read
    // without changing anything. Throws at damage, after `hits` got the entries before it.
    static void ReadQueued(const std::filesystem::path& directory, std::vector<QueuedHit>& hits);

private:
    static constexpr std::uint64_t kStart = 9;  // {"Hits":[

    struct Record;
    bool FindRecord(Record& found);
    bool Fits(const Record& record) const;
    std::string Settle(std::uint64_t from, std::uint64_t size, bool salvage);
    std::string Convert();
    void Adopt(Descriptor fd, std::uint64_t entries, const EntryPlace& last);
    void Close();
    void ReadOnce(std::vector<QueuedHit>& hits);
    void WriteEnd(const std::string& text);
    bool OpenIndex();
    void WriteIndex();

    FileStore& files_;
    Descriptor fd_;
    Descriptor index_;
    std::uint64_t inode_ = 0;
    std::uint64_t size_ = 0;       // of the file as last written
    bool document_ = false;        // a document in this layout to append to
    bool convertDue_ = false;      // a document in another layout, not yet rewritten
    std::uint64_t head_ = kStart;  // the first queued entry, or end_
    std::uint64_t end_ = kStart;   // the closing ']' of the entries
    std::uint64_t count_ = 0;      // entries in [head_, end_)
    EntryPlace beforeHead_;        // the entry before head_ (begin 0: none)
    EntryPlace last_;              // the entry before end_ (begin 0: none)
    std::uint64_t readAt_ = kStart; // the next entry to read, or end_
    std::uint64_t readCount_ = 0;  // entries read, in [head_, readAt_)
    EntryPlace readLast_;          // the entry before readAt_
    std::uint64_t indexedEnd_ = 0;
    std::uint64_t sequence_ = 0;
    std::uint64_t generation_ = 0;  // of the file: every replacement counts
    std::uint64_t compactFrom_ = 0; // after a failed compaction, not again before this head
};

}  // namespace velmora

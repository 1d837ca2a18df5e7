#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <string>
#include <vector>

namespace velmora {

// One hit waiting to be sent: the hit string and the second it was made.
struct QueuedHit {
    std::string hit;
    std::int32_t timestamp = 0;
};

// The bytes of an entry in the file, [begin, end) from '{' to '}', and their hash.
struct EntryPlace {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::uint64_t hash = 0;
};

// A queued hit read from the file, with the place of its entry.
struct FileEntry {
    QueuedHit hit;
    EntryPlace place;
};

// The file's entry for one hit: {"T":<timestamp>,"H":"<hit>"}.
std::string QueueFileMember(const std::string& hit, std::int32_t timestamp);

// Parses a whole queue file text of any JSON layout. Hits before a malformed entry are kept and the
// error is thrown; an empty text is an empty queue.
void ParseQueueFile(const std::string& text, std::vector<QueuedHit>& hits);
void ParseQueueFile(std::istream& text, const std::function<void(QueuedHit&)>& hit);

// FNV-1a; `hash` carries on the hash of the bytes before `data`.
std::uint64_t EntryHash(const char* data, std::size_t size, std::uint64_t hash = 14695981039346656037ULL);
// Up to `size` bytes at `offset`, fewer only at the end of the file; throws std::system_error.
std::size_t ReadAt(int fd, char* data, std::size_t size, std::uint64_t offset);
void WriteAt(int fd, const char* data, std::size_t size, std::uint64_t offset);

// Reads the entries of a file in this library's layout, from a position where an entry or the
// closing ']' stands, in chunks.
class EntryScanner {
public:
    enum class Stop { kEntry, kClosed, kLimit, kCutShort, kDamaged };

    // `afterEntry`: `from` is the end of an entry, where a ',' or the closing ']' stands. Reading
    // stops at `limit`, or at the end of the file.
    EntryScanner(int fd, std::uint64_t from, std::uint64_t limit, bool afterEntry)
        : fd_(fd), base_(from), settled_(from), limit_(limit), first_(!afterEntry) {}

    // The next entry (decoded, and its bytes hashed, when `decode`), or why there is none.
    Stop Next(FileEntry& entry, bool decode);
    // The end of the last whole entry, or where reading began.
    std::uint64_t Settled() const { return settled_; }
    std::string Damage(Stop stop) const;

private:
    std::uint64_t Position() const { return base_ + at_; }
    bool Fill(std::size_t count);

    const int fd_;
    std::string buffer_;
    std::size_t at_ = 0;
    std::uint64_t base_;     // file offset of buffer_[0]
    std::uint64_t settled_;
    const std::uint64_t limit_;
    bool first_;
};

}  // namespace velmora

#include "analytics/queue_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace velmora {
namespace {

constexpr std::string_view kDocumentStart = "{\"Hits\":[";
constexpr std::size_t kChunk = 64 * 1024;

[[noreturn]] void Fail(const char* what, const std::filesystem::path& path, int error) {
    throw std::runtime_error(std::string(what) + " " + path.string() + ": " + std::strerror(error));
}

// The hash of the entry's bytes as they are in the file, read in pieces: a place is not trusted
// with an allocation before it is found to fit.
std::optional<std::uint64_t> FileHash(int fd, const EntryPlace& place) {
    std::uint64_t hash = EntryHash(nullptr, 0);
    char piece[4096];
    for (std::uint64_t at = place.begin; at < place.end;) {
        const std::size_t got = ReadAt(fd, piece, static_cast<std::size_t>(std::min<std::uint64_t>(sizeof piece, place.end - at)), at);
        if (got == 0) return std::nullopt;  // the file ends before it
        hash = EntryHash(piece, got, hash);
        at += got;
    }
    return hash;
}

bool StartsAsDocument(int fd) {
    char start[kDocumentStart.size()];
    return ReadAt(fd, start, sizeof start, 0) == sizeof start && std::string_view(start, sizeof start) == kDocumentStart;
}

Descriptor OpenDescriptor(const std::filesystem::path& path, int flags) {
    Descriptor fd(::open(path.c_str(), flags | O_CLOEXEC, 0644));
    if (!fd) Fail("Cannot open", path, errno);
    return fd;
}

std::uint64_t Inode(int fd, std::uint64_t* size = nullptr) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) throw std::system_error(errno, std::generic_category());
    if (size != nullptr) *size = static_cast<std::uint64_t>(info.st_size);
    return static_cast<std::uint64_t>(info.st_ino);
}

}  // namespace

// The record in the index, twice (at 0 and at kSlot), the newer one first tried: a record cut short
// by a power cut leaves the older one.
struct QueueFile::Record {
    static constexpr char kMagic[8] = {'V', 'L', 'M', 'Q', 'I', 'D', 'X', '1'};
    static constexpr off_t kSlot = 512;
    char magic[8];
    std::uint64_t sequence, inode, head, end, count;
    EntryPlace beforeHead, last;  // tie the record to the bytes before the head and the end
    std::uint64_t checksum;

    std::uint64_t Sum() const { return EntryHash(reinterpret_cast<const char*>(this), offsetof(Record, checksum)); }
    bool Whole() const { return std::memcmp(magic, kMagic, sizeof magic) == 0 && checksum == Sum(); }
};

QueueFile::~QueueFile() = default;

QueueFile::Compaction::~Compaction() {
    if (!temporary.empty()) ::unlink(temporary.c_str());
}

void QueueFile::Close() {
    fd_.reset();
    document_ = convertDue_ = false;
    head_ = end_ = readAt_ = kStart;
    count_ = readCount_ = 0;
    beforeHead_ = last_ = readLast_ = EntryPlace{};
    ++generation_;
}

std::string QueueFile::Open() {
    Close();
    fd_ = files_.OpenForUpdate(kFileName);
    inode_ = Inode(fd_.get(), &size_);
    if (size_ == 0) return {};  // a first start
    OpenIndex();
    if (Record record; FindRecord(record)) {
        head_ = readAt_ = record.head;
        beforeHead_ = readLast_ = record.beforeHead;
        end_ = record.end;
        last_ = record.last;
        count_ = record.count;
        std::string damage = Settle(end_, size_, /*salvage=*/true);
        // An empty queue's head is its end, where entries appended since begin with a ','.
        if (record.head == record.end && count_ > 0 && record.end > kStart) head_ = readAt_ = record.end + 1;
        return damage;
    }
    if (StartsAsDocument(fd_.get())) {
        std::string damage = Settle(kStart, size_, /*salvage=*/false);
        if (document_) return damage;
    }
    return Convert();  // another layout, or damage that the JSON parser is to describe
}

bool QueueFile::FindRecord(Record& found) {
    if (!index_) return false;
    Record records[2] = {};
    for (int slot = 0; slot < 2; ++slot) {
        if (ReadAt(index_.get(), reinterpret_cast<char*>(&records[slot]), sizeof(Record), slot * Record::kSlot) != sizeof(Record)) {
            records[slot] = Record{};
        }
    }
    if (records[1].Whole() && (!records[0].Whole() || records[1].sequence > records[0].sequence)) std::swap(records[0], records[1]);
    if (records[0].Whole()) sequence_ = std::max(sequence_, records[0].sequence);  // new records supersede both
    for (const Record& record : records) {
        if (record.Whole() && Fits(record)) {
            found = record;
            return true;
        }
    }
    return false;
}

// A whole record is one this library wrote; it fits when it still describes this file: the same
// inode, the same entries at its places, and at its end the closing ']' or what was appended since.
bool QueueFile::Fits(const Record& r) const {
    char atEnd = 0;
    if (r.inode != inode_ || ReadAt(fd_.get(), &atEnd, 1, r.end) != 1 ||
        (atEnd != ']' && atEnd != (r.end == kStart ? '{' : ','))) {
        return false;
    }
    auto same = [this](const EntryPlace& e) { return e.begin == 0 || FileHash(fd_.get(), e) == e.hash; };
    return same(r.beforeHead) && same(r.last);
}

// Reads the entries from `from` to the closing ']'. With `salvage` (the file is known to be this
// library's) damage ends the entries before it, what follows the ']' is an append cut short, and
// the end is made clean: "]}" and nothing after. Otherwise a file that is not clean is left for
// Convert.
std::string QueueFile::Settle(std::uint64_t from, std::uint64_t size, bool salvage) {
    EntryScanner scan(fd_.get(), from, size, /*afterEntry=*/from > kStart);
    FileEntry entry;
    EntryScanner::Stop stop;
    std::uint64_t entries = 0;
    EntryPlace last = last_;
    while ((stop = scan.Next(entry, /*decode=*/false)) == EntryScanner::Stop::kEntry) {
        ++entries;
        last = entry.place;
    }
    char close = 0;
    const bool clean = stop == EntryScanner::Stop::kClosed && size == scan.Settled() + 2 &&
                       ReadAt(fd_.get(), &close, 1, scan.Settled() + 1) == 1 && close == '}';
    if (!clean && !salvage) return {};
    std::string damage = stop == EntryScanner::Stop::kClosed ? std::string() : scan.Damage(stop);
    document_ = true;
    count_ += entries;
    last_ = last;
    if (entries > 0) last_.hash = FileHash(fd_.get(), last_).value_or(0);  // else the record's, checked by Fits
    end_ = scan.Settled();
    if (!clean) {
        try {
            WriteEnd("]}");
        } catch (const std::exception&) {
            // The next open finds the same end.
        }
    }
    WriteIndex();
    return damage;
}

// The whole file through the JSON parser, rewritten in this library's layout with the entries
// before any damage. Memory holds one chunk of the new file, not the queue.
std::string QueueFile::Convert() {
    const auto path = files_.Directory() / kFileName;
    std::string damage;
    std::uint64_t entries = 0;
    EntryPlace last;
    convertDue_ = true;
    files_.Replace(kFileName, [&](int out) {
        std::ifstream in(path, std::ios::binary);
        std::string buffer(kDocumentStart);
        std::uint64_t written = 0;
        auto flush = [&] {
            FileStore::WriteAll(out, buffer.data(), buffer.size());
            written += buffer.size();
            buffer.clear();
        };
        entries = 0;
        try {
            ParseQueueFile(in, [&](QueuedHit& hit) {
                if (entries++ > 0) buffer += ',';
                const std::string member = QueueFileMember(hit.hit, hit.timestamp);
                last = {written + buffer.size(), written + buffer.size() + member.size(), EntryHash(member.data(), member.size())};
                buffer += member;
                if (buffer.size() >= kChunk) flush();
            });
        } catch (const std::system_error&) {
            throw;
        } catch (const std::runtime_error& e) {
            damage = e.what();
        }
        buffer += "]}";
        flush();
    });
    Adopt(OpenDescriptor(path, O_RDWR), entries, last);
    return damage;
}

void QueueFile::Adopt(Descriptor fd, std::uint64_t entries, const EntryPlace& last) {
    fd_ = std::move(fd);
    inode_ = Inode(fd_.get(), &size_);
    document_ = true;
    convertDue_ = false;
    head_ = readAt_ = kStart;
    beforeHead_ = readLast_ = EntryPlace{};
    readCount_ = 0;
    end_ = size_ - 2;
    count_ = entries;
    last_ = last;
    ++generation_;
    WriteIndex();
}

// `text` ends with "]}" and goes where the closing ']' is: all but its first byte first, then that
// byte over the ']'. Before the second write the old document is whole; when a write fails, its
// end is put back.
void QueueFile::WriteEnd(const std::string& text) {
    try {
        WriteAt(fd_.get(), text.data() + 1, text.size() - 1, end_ + 1);
        WriteAt(fd_.get(), text.data(), 1, end_);
    } catch (const std::system_error& e) {
        try {
            WriteAt(fd_.get(), "]}", 2, end_);
        } catch (const std::system_error&) {
            // The next open salvages the entries before the end.
        }
        if (::ftruncate(fd_.get(), static_cast<off_t>(end_ + 2)) == 0) size_ = end_ + 2;
        Fail("Cannot write", files_.Directory() / kFileName, e.code().value());
    }
    const std::uint64_t size = end_ + text.size();
    // Left in place, what lies beyond the new end would be removed by the next open.
    if (size_ > size && ::ftruncate(fd_.get(), static_cast<off_t>(size)) != 0) return;
    size_ = size;
}

void QueueFile::Append(const std::deque<std::string>& members) {
    if (members.empty()) return;
    if (!document_) {
        if (!convertDue_) return Reset(members);
        Convert();
    }
    std::string text;
    std::size_t lastAt = 0;
    for (const auto& member : members) {
        if (!text.empty() || end_ > kStart) text += ',';
        lastAt = text.size();
        text += member;
    }
    const std::string& lastMember = members.back();
    text += "]}";
    WriteEnd(text);
    if (end_ > kStart) {  // an empty queue's head, and a place that read everything, move to the first new entry
        if (head_ == end_) head_ = end_ + 1;
        if (readAt_ == end_) readAt_ = end_ + 1;
    }
    last_ = {end_ + lastAt, end_ + lastAt + lastMember.size(), EntryHash(lastMember.data(), lastMember.size())};
    end_ += text.size() - 2;
    count_ += members.size();
    if (end_ - indexedEnd_ >= kIndexSlack) WriteIndex();
}

void QueueFile::Reset(const std::deque<std::string>& members) {
    std::string text(kDocumentStart);
    EntryPlace last;
    for (const auto& member : members) {
        if (text.size() > kDocumentStart.size()) text += ',';
        last = {text.size(), text.size() + member.size(), EntryHash(member.data(), member.size())};
        text += member;
    }
    text += "]}";
    files_.Replace(kFileName, [&text](int fd) { FileStore::WriteAll(fd, text.data(), text.size()); }, !members.empty());
    Adopt(OpenDescriptor(files_.Directory() / kFileName, O_RDWR), members.size(), last);
}

void QueueFile::DropAll() {
    convertDue_ = false;  // a file in another layout is replaced, not converted
    beforeHead_ = readLast_ = last_;
    head_ = readAt_ = end_;
    count_ = readCount_ = 0;
    ++generation_;  // a compaction under way would bring the entries back
    WriteIndex();
}

std::string QueueFile::Read(std::size_t bytes, std::deque<FileEntry>& out) {
    EntryScanner scan(fd_.get(), readAt_, end_, /*afterEntry=*/false);
    std::uint64_t lastEnd = readAt_ > kStart ? readAt_ - 1 : kStart;  // the ',' after the entry before
    for (std::size_t got = 0; got < bytes;) {
        FileEntry entry;
        const auto stop = scan.Next(entry, /*decode=*/true);
        if (stop == EntryScanner::Stop::kLimit) break;
        if (stop != EntryScanner::Stop::kEntry) {
            // The entries stop before the end they were known to have: the queue ends here.
            end_ = readAt_ = lastEnd;
            head_ = std::min(head_, end_);
            last_ = readLast_;
            count_ = readCount_;
            try {
                WriteEnd("]}");
            } catch (const std::exception&) {
                // The next open finds the same damage.
            }
            WriteIndex();
            return stop == EntryScanner::Stop::kClosed ? scan.Damage(EntryScanner::Stop::kCutShort) : scan.Damage(stop);
        }
        got += entry.place.end - entry.place.begin;
        lastEnd = entry.place.end;
        readLast_ = entry.place;
        readAt_ = entry.place.end < end_ ? entry.place.end + 1 : entry.place.end;
        ++readCount_;
        out.push_back(std::move(entry));
    }
    return {};
}

void QueueFile::Advance(const FileEntry& first) {
    if (readCount_ == 0 || first.place.begin != head_) return;  // cleared or replaced since it was read
    beforeHead_ = first.place;
    head_ = first.place.end < end_ ? first.place.end + 1 : first.place.end;
    --count_;
    --readCount_;
    WriteIndex();
}

bool QueueFile::CompactionDue() const {
    const std::uint64_t delivered = head_ - kStart;
    return document_ && count_ > 0 && head_ >= compactFrom_ && delivered >= kCompactBytes && delivered >= end_ - head_;
}

namespace {

// Copies [from, to) of `source` to the position of `target`.
void CopyRange(int source, std::uint64_t from, std::uint64_t to, int target) {
    std::string chunk(kChunk, '\0');
    while (from < to) {
        const std::size_t got = ReadAt(source, chunk.data(), static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, to - from)), from);
        if (got == 0) throw std::runtime_error("the queue file ended while it was copied");
        FileStore::WriteAll(target, chunk.data(), got);
        from += got;
    }
}

std::string Message(const std::exception& e, const std::filesystem::path& path) {
    if (const auto* system = dynamic_cast<const std::system_error*>(&e)) {
        return "Cannot write " + path.string() + ": " + std::strerror(system->code().value());
    }
    return e.what();
}

}  // namespace

void QueueFile::BeginCompaction(Compaction& job) {
    static std::atomic<unsigned> counter{0};
    job.generation = generation_;
    job.from = head_;
    job.to = end_;
    job.temporary = files_.Directory() / (std::string(kFileName) + ".tmp" + std::to_string(::getpid()) + "-c" +
                                          std::to_string(counter.fetch_add(1)));
    job.source.reset(::fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0));
    job.target.reset(::open(job.temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!job.source || !job.target) {
        job.error = std::string("Cannot create ") + job.temporary.string() + ": " + std::strerror(errno);
        return;
    }
    try {
        FileStore::WriteAll(job.target.get(), kDocumentStart.data(), kDocumentStart.size());
    } catch (const std::exception& e) {
        job.error = Message(e, job.temporary);
    }
}

void QueueFile::CopyQueued(Compaction& job) {
    if (!job.error.empty()) return;
    try {
        CopyRange(job.source.get(), job.from, job.to, job.target.get());
        if (::fdatasync(job.target.get()) != 0) throw std::system_error(errno, std::generic_category());
    } catch (const std::exception& e) {
        job.error = Message(e, job.temporary);
    }
}

std::uint64_t QueueFile::FinishCompaction(Compaction& job) {
    const auto path = files_.Directory() / kFileName;
    if (job.error.empty() && job.generation == generation_ && fd_) {
        try {
            CopyRange(fd_.get(), job.to, end_, job.target.get());  // appended meanwhile
            FileStore::WriteAll(job.target.get(), "]}", 2);
            if (::fdatasync(job.target.get()) != 0) throw std::system_error(errno, std::generic_category());
            if (::rename(job.temporary.c_str(), path.c_str()) != 0) throw std::system_error(errno, std::generic_category());
        } catch (const std::exception& e) {
            job.error = Message(e, job.temporary);
        }
    }
    if (!job.error.empty() || job.generation != generation_ || !fd_) {
        if (!job.error.empty()) compactFrom_ = head_ + kCompactBytes;  // not again at every delivery
        return 0;
    }
    job.temporary.clear();
    const std::uint64_t shift = head_ - kStart;
    fd_ = std::move(job.target);
    inode_ = Inode(fd_.get(), &size_);
    head_ = kStart;
    beforeHead_ = EntryPlace{};
    end_ -= shift;
    auto moved = [shift](EntryPlace place) { return EntryPlace{place.begin - shift, place.end - shift, place.hash}; };
    last_ = moved(last_);  // not empty: the job began so, and only a clear, which ended it above, empties it
    readAt_ -= shift;
    readLast_ = readCount_ > 0 ? moved(readLast_) : EntryPlace{};
    compactFrom_ = 0;
    ++generation_;
    WriteIndex();
    return shift;
}

void QueueFile::Sync() {
    if (!fd_) return;
    if (::fdatasync(fd_.get()) != 0) Fail("Cannot sync", files_.Directory() / kFileName, errno);
    WriteIndex();
    if (index_) ::fdatasync(index_.get());
}

// Without the record, the next open reads the whole file.
bool QueueFile::OpenIndex() {
    if (!index_) index_.reset(::open((files_.Directory() / kIndexName).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    return static_cast<bool>(index_);
}

void QueueFile::WriteIndex() {
    if (!document_ || !fd_ || !OpenIndex()) return;
    Record r{};
    std::memcpy(r.magic, Record::kMagic, sizeof r.magic);
    r.sequence = ++sequence_;
    r.inode = inode_;
    r.head = head_;
    r.end = end_;
    r.count = count_;
    r.beforeHead = beforeHead_;
    r.last = last_;
    r.checksum = r.Sum();
    // The record saves time only: a failed write leaves an older one, which fits no longer or
    // points further back.
    if (::pwrite(index_.get(), &r, sizeof r, static_cast<off_t>(r.sequence % 2) * Record::kSlot) == sizeof r) indexedEnd_ = end_;
}

void QueueFile::ReadQueued(const std::filesystem::path& directory, std::vector<QueuedHit>& hits) {
    // A reader racing an append may see its second write before its first, or a file size older
    // than its bytes: what looks cut short is read again.
    const std::size_t before = hits.size();
    for (int attempt = 1;; ++attempt) {
        try {
            FileStore files(directory);
            QueueFile(files).ReadOnce(hits);
            return;
        } catch (const std::runtime_error&) {
            if (attempt == 3) throw;
            hits.resize(before);
        }
    }
}

void QueueFile::ReadOnce(std::vector<QueuedHit>& hits) {
    const auto path = files_.Directory() / kFileName;
    fd_.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd_ && errno == ENOENT) return;
    if (!fd_) Fail("Cannot open", path, errno);
    inode_ = Inode(fd_.get());
    index_.reset(::open((files_.Directory() / kIndexName).c_str(), O_RDONLY | O_CLOEXEC));
    Record record;
    const bool indexed = FindRecord(record);
    const std::size_t before = hits.size();
    if (indexed || StartsAsDocument(fd_.get())) {
        const std::uint64_t from = indexed ? record.head : kStart;
        // To the end of the file as it is then: another process may be appending.
        EntryScanner scan(fd_.get(), from, UINT64_MAX, /*afterEntry=*/indexed && from == record.end && from > kStart);
        FileEntry entry;
        EntryScanner::Stop stop;
        while ((stop = scan.Next(entry, /*decode=*/true)) == EntryScanner::Stop::kEntry) hits.push_back(std::move(entry.hit));
        char tail[3];
        const bool closed = stop == EntryScanner::Stop::kClosed;
        // What follows the ']' of this library's file is an append under way.
        if (closed && (indexed || (ReadAt(fd_.get(), tail, sizeof tail, scan.Settled()) == 2 && tail[1] == '}'))) return;
        if (indexed) throw std::runtime_error(scan.Damage(stop));
        hits.resize(before);
    }
    std::ifstream in(path, std::ios::binary);
    ParseQueueFile(in, [&hits](QueuedHit& hit) { hits.push_back(std::move(hit)); });
}

void QueueFile::Shift(std::deque<FileEntry>& window, std::uint64_t by) {
    for (auto& entry : window) {
        entry.place.begin -= by;
        entry.place.end -= by;
    }
}

}  // namespace velmora

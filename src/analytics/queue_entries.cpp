#include "analytics/queue_entries.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace velmora {
namespace {

using Json = nlohmann::json;

constexpr auto kMinTimestamp = std::numeric_limits<std::int32_t>::min();
constexpr auto kMaxTimestamp = std::numeric_limits<std::int32_t>::max();
constexpr std::size_t kChunk = 64 * 1024;

std::int32_t ClampTimestamp(double seconds) {  // JSON has no NaN
    return static_cast<std::int32_t>(std::clamp<double>(seconds, kMinTimestamp, kMaxTimestamp));
}

enum class Scan { kEntry, kShort, kBad };

// One entry of this library's layout at the start of `text`: {"T":<int32>,"H":"<JSON string>"}.
// Sets `length`; decodes into `hit` when given. An entry whose string needs decoding is checked
// by the JSON parser, so what passes here is what the JSON parser reads.
Scan ScanEntry(std::string_view text, std::size_t& length, QueuedHit* hit) {
    std::size_t at = 0;
    auto literal = [&](std::string_view expected) {
        const std::size_t n = std::min(expected.size(), text.size() - at);
        if (text.compare(at, n, expected.substr(0, n)) != 0) return Scan::kBad;
        if (n < expected.size()) return Scan::kShort;
        at += n;
        return Scan::kEntry;
    };
    if (Scan s = literal("{\"T\":"); s != Scan::kEntry) return s;
    const bool negative = at < text.size() && text[at] == '-';
    at += negative;
    std::int64_t value = 0;
    const std::size_t digits = at;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9' && at - digits < 11; ++at) {
        value = value * 10 + (text[at] - '0');
    }
    if (at == text.size()) return Scan::kShort;
    if (at == digits || at - digits > 10 || (text[digits] == '0' && (at - digits > 1 || negative))) return Scan::kBad;
    if (negative) value = -value;
    if (value < kMinTimestamp || value > kMaxTimestamp) return Scan::kBad;
    if (Scan s = literal(",\"H\":\""); s != Scan::kEntry) return s;
    const std::size_t open = at - 1;
    bool plain = true;
    for (;; ++at) {
        if (at >= text.size()) return Scan::kShort;
        const auto c = static_cast<unsigned char>(text[at]);
        if (c == '"') break;
        if (c < 0x20) return Scan::kBad;
        if (c == '\\') {
            plain = false;
            ++at;
        } else if (c >= 0x7F) {
            plain = false;
        }
    }
    const std::size_t close = at++;
    if (Scan s = literal("}"); s != Scan::kEntry) return s;
    std::string decoded;
    if (!plain) {
        try {
            decoded = Json::parse(text.substr(open, close + 1 - open)).get<std::string>();
        } catch (const std::exception&) {
            return Scan::kBad;
        }
    }
    if (hit != nullptr) {
        hit->timestamp = static_cast<std::int32_t>(value);
        hit->hit = plain ? std::string(text.substr(open + 1, close - open - 1)) : std::move(decoded);
    }
    length = at;
    return Scan::kEntry;
}

// Reads the queue file as a stream of events: no document tree is built for a file that may hold
// thousands of hits, and the hits before a damaged part are kept.
class QueueFileReader final : public nlohmann::json_sax<Json> {
public:
    explicit QueueFileReader(const std::function<void(QueuedHit&)>& hit) : hit_(hit) {}
    bool SawHits() const { return sawHits_; }

    bool null() override { return Value(Kind::kOther); }
    bool boolean(bool) override { return Value(Kind::kOther); }
    bool number_integer(number_integer_t value) override {
        if (At("T")) current_.timestamp = static_cast<std::int32_t>(std::clamp<number_integer_t>(value, kMinTimestamp, kMaxTimestamp));
        return Value(Kind::kNumber);
    }
    bool number_unsigned(number_unsigned_t value) override {
        if (At("T")) current_.timestamp = static_cast<std::int32_t>(std::min<number_unsigned_t>(value, kMaxTimestamp));
        return Value(Kind::kNumber);
    }
    bool number_float(number_float_t value, const string_t&) override {
        if (At("T")) current_.timestamp = ClampTimestamp(value);
        return Value(Kind::kNumber);
    }
    // Copies, not moves: the parser reuses its buffer for the next token.
    bool string(string_t& value) override {
        if (At("H")) current_.hit.assign(value);
        return Value(Kind::kString);
    }
    bool binary(binary_t&) override { return Value(Kind::kOther); }

    bool start_object(std::size_t) override { return Open(Kind::kObject); }
    bool start_array(std::size_t) override { return Open(Kind::kArray); }
    bool key(string_t& key) override {
        if (skip_ == 0) key_.assign(key);
        return true;
    }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }

    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) override {
        throw std::runtime_error(error.what());
    }

private:
    enum class Kind { kNumber, kString, kObject, kArray, kOther };

    bool At(const char* member) const { return skip_ == 0 && depth_ == 3 && key_ == member; }

    // A scalar, or the start of a container, seen where the current depth expects a value.
    bool Value(Kind kind) {
        if (skip_ > 0) return true;
        switch (depth_) {
            case 0:
                throw std::runtime_error("the document is not a JSON object");
            case 1:
                if (key_ == "Hits" && kind != Kind::kArray) throw std::runtime_error("\"Hits\" is not an array");
                break;
            case 2:
                if (kind != Kind::kObject) throw std::runtime_error("a queued hit is not a JSON object");
                break;
            case 3:
                if (key_ == "T") {
                    if (kind != Kind::kNumber) throw std::runtime_error("a queued hit's \"T\" is not a number");
                    hasTimestamp_ = true;
                } else if (key_ == "H") {
                    if (kind != Kind::kString) throw std::runtime_error("a queued hit's \"H\" is not a string");
                    hasHit_ = true;
                }
                break;
            default:
                break;
        }
        return true;
    }

    bool Open(Kind kind) {
        if (skip_ > 0) {
            ++skip_;
            return true;
        }
        if (depth_ == 0 && kind != Kind::kObject) throw std::runtime_error("the document is not a JSON object");
        if (depth_ > 0) Value(kind);
        const bool wanted = depth_ == 0 || (depth_ == 1 && key_ == "Hits") || depth_ == 2;
        if (!wanted) {
            skip_ = 1;  // a member the file format does not know: ignored whole
            return true;
        }
        if (depth_ == 2) {
            hasTimestamp_ = hasHit_ = false;
            current_ = QueuedHit{};
        }
        key_.clear();
        ++depth_;
        return true;
    }

    bool Close() {
        if (skip_ > 0) {
            --skip_;
            return true;
        }
        if (depth_ == 3) {
            if (!hasTimestamp_ || !hasHit_) throw std::runtime_error("a queued hit lacks its \"T\" or \"H\"");
            hit_(current_);
        } else if (depth_ == 2) {
            sawHits_ = true;
        }
        --depth_;
        key_.clear();
        return true;
    }

    const std::function<void(QueuedHit&)>& hit_;
    int depth_ = 0;  // 1: the document, 2: the "Hits" array, 3: one hit
    int skip_ = 0;   // nesting inside an ignored member
    std::string key_;
    bool sawHits_ = false;
    bool hasTimestamp_ = false;
    bool hasHit_ = false;
    QueuedHit current_;
};

// Plain printable ASCII is its own JSON string text; everything else goes through the serializer.
bool NeedsEscaping(const std::string& text) {
    for (unsigned char c : text) {
        if (c < 0x20 || c >= 0x7F || c == '"' || c == '\\') return true;
    }
    return false;
}

}  // namespace

// Reads up to `size` bytes at `offset`; fewer only at the end of the file.
std::size_t ReadAt(int fd, char* data, std::size_t size, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, data + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw std::system_error(errno, std::generic_category());
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return done;
}

void WriteAt(int fd, const char* data, std::size_t size, std::uint64_t offset) {
    while (size > 0) {
        const ssize_t n = ::pwrite(fd, data, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw std::system_error(errno, std::generic_category());
        data += n;
        size -= static_cast<std::size_t>(n);
        offset += static_cast<std::uint64_t>(n);
    }
}

std::uint64_t EntryHash(const char* data, std::size_t size, std::uint64_t hash) {
    for (std::size_t i = 0; i < size; ++i) hash = (hash ^ static_cast<unsigned char>(data[i])) * 1099511628211ULL;
    return hash;
}

EntryScanner::Stop EntryScanner::Next(FileEntry& entry, bool decode) {
    if (Position() >= limit_) return Stop::kLimit;
    if (!Fill(1)) return Stop::kCutShort;
    if (buffer_[at_] == ']') return Stop::kClosed;
    if (!first_) {
        if (buffer_[at_] != ',') return Stop::kDamaged;
        ++at_;
    }
    for (std::size_t wanted = 1;;) {
        std::size_t length = 0;
        const Scan scan = ScanEntry(std::string_view(buffer_).substr(at_), length, decode ? &entry.hit : nullptr);
        if (scan == Scan::kBad) return Stop::kDamaged;
        if (scan == Scan::kEntry) {
            entry.place.begin = Position();
            entry.place.hash = decode ? EntryHash(buffer_.data() + at_, length) : 0;
            at_ += length;
            entry.place.end = settled_ = Position();
            first_ = false;
            return Stop::kEntry;
        }
        wanted = buffer_.size() - at_ + 1;
        if (!Fill(wanted)) return Stop::kCutShort;
    }
}

std::string EntryScanner::Damage(Stop stop) const {
    return std::string(stop == Stop::kCutShort ? "the file is cut short" : "the file is damaged") + " after byte " +
           std::to_string(settled_);
}

// At least `count` bytes from the position on; reads a chunk ahead.
bool EntryScanner::Fill(std::size_t count) {
    if (buffer_.size() - at_ >= count) return true;
    buffer_.erase(0, at_);
    base_ += at_;
    at_ = 0;
    while (buffer_.size() < count) {
        const std::uint64_t from = base_ + buffer_.size();
        if (from >= limit_) return false;
        const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(std::max(kChunk, count - buffer_.size()), limit_ - from));
        const std::size_t kept = buffer_.size();
        buffer_.resize(kept + want);
        const std::size_t got = ReadAt(fd_, buffer_.data() + kept, want, from);
        buffer_.resize(kept + got);
        if (got < want) return buffer_.size() >= count;  // the end of the file
    }
    return true;
}

std::string QueueFileMember(const std::string& hit, std::int32_t timestamp) {
    std::string member;
    member.reserve(hit.size() + 24);
    member += "{\"T\":";
    member += std::to_string(timestamp);
    member += ",\"H\":";
    if (NeedsEscaping(hit)) {
        member += Json(hit).dump(-1, ' ', false, Json::error_handler_t::replace);
    } else {
        member += '"';
        member += hit;
        member += '"';
    }
    member += '}';
    return member;
}

void ParseQueueFile(std::istream& text, const std::function<void(QueuedHit&)>& hit) {
    if (text.peek() == std::char_traits<char>::eof()) return;  // a file that did not exist yet
    QueueFileReader reader(hit);
    Json::sax_parse(text, &reader);
    if (!reader.SawHits()) throw std::runtime_error("the document has no \"Hits\" array");
}

void ParseQueueFile(const std::string& text, std::vector<QueuedHit>& hits) {
    std::istringstream in(text);
    ParseQueueFile(in, [&hits](QueuedHit& hit) { hits.push_back(std::move(hit)); });
}

}  // namespace velmora

#include "analytics/hit_store.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace velmora {
namespace {

using Json = nlohmann::json;

constexpr auto kMinTimestamp = std::numeric_limits<std::int32_t>::min();
constexpr auto kMaxTimestamp = std::numeric_limits<std::int32_t>::max();

std::int32_t ClampTimestamp(double seconds) {
    if (!(seconds > kMinTimestamp)) return kMinTimestamp;
    if (!(seconds < kMaxTimestamp)) return kMaxTimestamp;
    return static_cast<std::int32_t>(seconds);
}

// Reads the queue file as a stream of events: no document tree is built for a file that may hold
// thousands of hits, and the hits before a damaged part are kept.
class QueueFileReader final : public nlohmann::json_sax<Json> {
public:
    QueueFileReader(std::vector<QueuedHit>& hits, bool withMembers) : hits_(hits), withMembers_(withMembers) {}
    bool SawHits() const { return sawHits_; }

    bool null() override { return Value(Kind::kOther); }
    bool boolean(bool) override { return Value(Kind::kOther); }
    bool number_integer(number_integer_t value) override {
        if (At("T")) timestamp_ = static_cast<std::int32_t>(std::clamp<number_integer_t>(value, kMinTimestamp, kMaxTimestamp));
        return Value(Kind::kNumber);
    }
    bool number_unsigned(number_unsigned_t value) override {
        if (At("T")) timestamp_ = static_cast<std::int32_t>(std::min<number_unsigned_t>(value, kMaxTimestamp));
        return Value(Kind::kNumber);
    }
    bool number_float(number_float_t value, const string_t&) override {
        if (At("T")) timestamp_ = ClampTimestamp(value);
        return Value(Kind::kNumber);
    }
    // Copies, not moves: the parser reuses its buffer for the next token.
    bool string(string_t& value) override {
        if (At("H")) hit_.assign(value);
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
            hit_.clear();
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
            QueuedHit& queued = hits_.emplace_back();
            queued.hit.swap(hit_);
            queued.timestamp = timestamp_;
            if (withMembers_) {
                queued.json = std::make_shared<const std::string>(QueueFileMember(queued.hit, timestamp_));
            }
        } else if (depth_ == 2) {
            sawHits_ = true;
        }
        --depth_;
        key_.clear();
        return true;
    }

    std::vector<QueuedHit>& hits_;
    const bool withMembers_;
    int depth_ = 0;  // 1: the document, 2: the "Hits" array, 3: one hit
    int skip_ = 0;   // nesting inside an ignored member
    std::string key_;
    bool sawHits_ = false;
    bool hasTimestamp_ = false;
    bool hasHit_ = false;
    std::int32_t timestamp_ = 0;
    std::string hit_;
};

// Plain printable ASCII is its own JSON string text; everything else goes through the serializer.
bool NeedsEscaping(const std::string& text) {
    for (unsigned char c : text) {
        if (c < 0x20 || c >= 0x7F || c == '"' || c == '\\') return true;
    }
    return false;
}

// The file exactly as this library writes it: {"Hits":[{"T":<integer>,"H":"<printable ASCII, no
// escapes>"},...]}, read in chunks straight into the hits, several times faster than the JSON
// lexer and without a copy of the whole text. Any other text (escapes, spaces, other members,
// damage) makes Read return false, and the caller goes to the full parser, which also salvages
// the entries before a damaged one.
class OwnFormatReader {
public:
    explicit OwnFormatReader(std::istream& in) : in_(in) {}

    bool Read(std::vector<QueuedHit>& hits, bool withMembers) {
        if (!Take("{\"Hits\":[")) return false;
        if (!Take("]}")) {
            do {
                if (!ReadHit(hits.emplace_back())) return false;
                if (withMembers) {
                    hits.back().json = std::make_shared<const std::string>(QueueFileMember(hits.back().hit, hits.back().timestamp));
                }
            } while (Take(","));
            if (!Take("]}")) return false;
        }
        return !Available(1);
    }

private:
    static constexpr std::size_t kChunk = 64 * 1024;

    bool ReadHit(QueuedHit& queued) {
        if (!Take("{\"T\":")) return false;
        const bool negative = Take("-");
        std::int64_t value = 0;
        int digits = 0;
        for (; Available(1) && Digit(buffer_[at_]) && digits < 12; ++digits) {
            if (digits == 1 && value == 0) return false;  // a leading zero
            value = value * 10 + (buffer_[at_++] - '0');
        }
        if (digits == 0 || digits == 12) return false;
        queued.timestamp = static_cast<std::int32_t>(std::clamp<std::int64_t>(negative ? -value : value, kMinTimestamp, kMaxTimestamp));
        if (!Take(",\"H\":\"")) return false;
        for (;;) {
            std::size_t end = at_;
            while (end < buffer_.size() && Plain(buffer_[end])) ++end;
            queued.hit.append(buffer_, at_, end - at_);
            at_ = end;
            if (at_ < buffer_.size()) break;
            if (!Refill()) return false;
        }
        return Take("\"}");
    }

    static bool Digit(char c) { return c >= '0' && c <= '9'; }
    static bool Plain(char c) { return c >= 0x20 && c < 0x7F && c != '"' && c != '\\'; }

    bool Take(std::string_view expected) {
        if (!Available(expected.size()) || buffer_.compare(at_, expected.size(), expected) != 0) return false;
        at_ += expected.size();
        return true;
    }
    bool Available(std::size_t count) {
        while (buffer_.size() - at_ < count) {
            if (!Refill()) return false;
        }
        return true;
    }
    bool Refill() {
        buffer_.erase(0, at_);
        at_ = 0;
        const std::size_t kept = buffer_.size();
        buffer_.resize(kept + kChunk);
        in_.read(buffer_.data() + kept, kChunk);
        buffer_.resize(kept + static_cast<std::size_t>(in_.gcount()));
        return buffer_.size() > kept;
    }

    std::istream& in_;
    std::string buffer_;
    std::size_t at_ = 0;
};

void Parse(std::istream& text, std::size_t sizeHint, std::vector<QueuedHit>& hits, bool withMembers) {
    if (text.peek() == std::char_traits<char>::eof()) return;  // a file that did not exist yet
    hits.reserve(hits.size() + sizeHint / 256);  // hits are rarely shorter
    const std::size_t before = hits.size();
    if (OwnFormatReader(text).Read(hits, withMembers)) return;
    hits.resize(before);
    text.clear();
    if (!text.seekg(0)) throw std::runtime_error("the queue file cannot be read again");
    QueueFileReader reader(hits, withMembers);
    Json::sax_parse(text, &reader);
    if (!reader.SawHits()) throw std::runtime_error("the document has no \"Hits\" array");
}

}  // namespace

void ParseQueueFile(std::istream& text, std::vector<QueuedHit>& hits) { Parse(text, 0, hits, false); }

void ParseQueueFile(const std::string& text, std::vector<QueuedHit>& hits, bool withMembers) {
    std::istringstream in(text);
    Parse(in, text.size(), hits, withMembers);
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

HitStore::HitStore(const Logger& log, FileStore& files) : log_(log), files_(files) {}

void HitStore::Load() {
    std::vector<QueuedHit> loaded;
    try {
        ParseQueueFile(*files_.OpenForReading(kFileName), loaded);
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to load queued hits (%s)", e.what());
    }
    stats_.Loaded(loaded.size());
    MutexLock lock(mutex_);
    for (auto& hit : loaded) {
        hit.sequence = nextSequence_++;
        hits_.push_back(std::move(hit));
    }
    savedThrough_ = nextSequence_ - 1;  // they came from the file
}

void HitStore::Announce() { announced_.fetch_add(1); }

void HitStore::Withdraw() {
    if (!Applied()) return;
    MutexLock lock(mutex_);
    SaveLocked();  // a save may have waited for this change
}

void HitStore::Append(std::string hit, std::int32_t timestamp) {
    auto json = std::make_shared<const std::string>(QueueFileMember(hit, timestamp));
    const bool last = Applied();
    MutexLock lock(mutex_);
    QueuedHit& queued = hits_.emplace_back();
    queued.hit = std::move(hit);
    queued.timestamp = timestamp;
    queued.json = std::move(json);
    queued.sequence = nextSequence_++;
    stats_.Queued();
    changed_ = true;
    if (last || SaveDue()) SaveLocked();
}

void HitStore::Clear() {
    const bool last = Applied();
    MutexLock lock(mutex_);
    stats_.Dropped(hits_.size());  // the hit in flight counts as its answer says
    hits_.clear();
    taken_.reset();
    changed_ = true;
    if (last || SaveDue()) SaveLocked();
}

bool HitStore::Applied() {
    int announced = announced_.load();
    // An unannounced change (a test, or the store used on its own) is its own last change.
    while (announced > 0 && !announced_.compare_exchange_weak(announced, announced - 1)) {
    }
    return announced <= 1;
}

std::optional<QueuedHit> HitStore::TakeFront() {
    MutexLock lock(mutex_);
    if (hits_.empty()) return std::nullopt;
    if (hits_.front().sequence > savedThrough_) {
        changed_ = true;  // the file gets the hit before the server does
        SaveLocked();
    }
    std::optional<QueuedHit> front(std::move(hits_.front()));
    hits_.pop_front();
    if (!front->json) front->json = std::make_shared<const std::string>(QueueFileMember(front->hit, front->timestamp));
    taken_ = front->json;  // the file does not change until the answer is known
    return front;
}

void HitStore::RemoveFront() {
    MutexLock lock(mutex_);
    if (!taken_) return;  // a clear came first
    taken_.reset();
    changed_ = true;
    // While a backlog drains the file is saved at most every interval; the end of a run saves the rest.
    if (SaveDue()) SaveLocked();
}

void HitStore::Return(QueuedHit hit) {
    MutexLock lock(mutex_);
    if (!taken_) {  // cleared while in flight (an opt-out): it stays gone
        stats_.Dropped(1);
        return;
    }
    taken_.reset();
    if (!hit.json) hit.json = std::make_shared<const std::string>(QueueFileMember(hit.hit, hit.timestamp));
    hits_.push_front(std::move(hit));
    changed_ = true;
    SaveLocked();
}

std::size_t HitStore::Size() const {
    MutexLock lock(mutex_);
    return hits_.size();
}

void HitStore::Save() {
    MutexLock lock(mutex_);
    SaveLocked();
}

bool HitStore::SaveDue() const { return std::chrono::steady_clock::now() - lastSave_ >= kSaveInterval; }

void HitStore::SaveLocked() {
    if (!changed_) return;
    std::size_t length = 16 + hits_.size();
    if (taken_) length += taken_->size();
    for (auto& hit : hits_) {
        if (!hit.json) hit.json = std::make_shared<const std::string>(QueueFileMember(hit.hit, hit.timestamp));
        length += hit.json->size();
    }
    std::string text;
    text.reserve(length);
    text += "{\"Hits\":[";
    bool first = true;
    auto add = [&text, &first](const std::string& member) {
        if (!first) text += ',';
        first = false;
        text += member;
    };
    if (taken_) add(*taken_);
    for (const auto& hit : hits_) add(*hit.json);
    text += "]}";
    try {
        files_.WriteAtomic(kFileName, text);
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to save hit queue (%s)", e.what());
    }
    changed_ = false;
    savedThrough_ = nextSequence_ - 1;
    lastSave_ = std::chrono::steady_clock::now();
}

}  // namespace velmora

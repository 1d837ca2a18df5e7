#include "analytics/hit_queue.h"

#include "analytics/hit_builder.h"
#include "core/device.h"
#include "core/http.h"
#include "core/library_thread.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

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
    explicit QueueFileReader(std::vector<QueuedHit>& hits) : hits_(hits) {}
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
            QueuedHit queued;
            queued.hit = std::move(hit_);
            queued.timestamp = timestamp_;
            queued.json = std::make_shared<const std::string>(QueueFileMember(queued.hit, queued.timestamp));
            hits_.push_back(std::move(queued));
        } else if (depth_ == 2) {
            sawHits_ = true;
        }
        --depth_;
        key_.clear();
        return true;
    }

    std::vector<QueuedHit>& hits_;
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

}  // namespace

void ParseQueueFile(const std::string& text, std::vector<QueuedHit>& hits) {
    if (text.empty()) return;  // a file that did not exist yet
    QueueFileReader reader(hits);
    Json::sax_parse(text, &reader);
    if (!reader.SawHits()) throw std::runtime_error("the document has no \"Hits\" array");
}

std::string QueueFileMember(const std::string& hit, std::int32_t timestamp) {
    std::string member = "{\"T\":" + std::to_string(timestamp) + ",\"H\":";
    if (NeedsEscaping(hit)) {
        member += Json(hit).dump(-1, ' ', false, Json::error_handler_t::replace);
    } else {
        member.reserve(member.size() + hit.size() + 3);
        member += '"';
        member += hit;
        member += '"';
    }
    member += '}';
    return member;
}

HitQueue::HitQueue(const Logger& log, Clock& clock, const ConfigSettings& config, FileStore& files,
                   const HostOptions& host, HttpClient& http, DeviceContext& device, Executor& executor)
    : log_(log),
      clock_(clock),
      config_(config),
      files_(files),
      host_(host),
      http_(http),
      device_(device),
      watch_(std::make_shared<ConnectionWatch>()),
      work_("Analytics", log, executor) {
    watch_->owner = this;
    work_.Post([this] { Load(); });
}

HitQueue::~HitQueue() { Shutdown(); }


// ---------------------------------------------------------------- changes, on the work queue

void HitQueue::Load() {
    try {
        baseUrlBytes_ = BaseUrl(config_).size();
    } catch (const std::exception&) {
        baseUrlBytes_ = 0;  // the sender reports an unusable base URL itself
    }
    std::vector<QueuedHit> loaded;
    try {
        ParseQueueFile(files_.Read(kFileName), loaded);
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to load queued hits (%s)", e.what());
    }
    std::lock_guard lock(mutex_);
    for (auto& hit : loaded) {
        hit.sequence = nextSequence_++;
        hits_.push_back(std::move(hit));
    }
    savedThrough_ = nextSequence_ - 1;  // they came from the file
}

void HitQueue::QueueHit(std::string hit, std::int32_t timestamp) {
    pendingChanges_.fetch_add(1);
    bool posted = false;
    try {
        posted = work_.Post([this, hit = std::move(hit), timestamp]() mutable { Append(std::move(hit), timestamp); });
        if (!posted) log_.Error("Analytics - Unable to queue hit (%s)", "the hit queue has stopped");
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to queue hit (%s)", e.what());
    }
    if (!posted) pendingChanges_.fetch_sub(1);
}

void HitQueue::Append(std::string hit, std::int32_t timestamp) {
    pendingChanges_.fetch_sub(1);
    if (baseUrlBytes_ + hit.size() > kMaxUrlBytes) {
        const std::string reason = "the request URL would be " + std::to_string(baseUrlBytes_ + hit.size()) +
                                   " bytes, more than the " + std::to_string(kMaxUrlBytes) + " a server accepts";
        log_.Error("Analytics - Unable to queue hit (%s)", reason.c_str());
        return;
    }
    try {
        QueuedHit queued;
        queued.json = std::make_shared<const std::string>(QueueFileMember(hit, timestamp));
        queued.hit = std::move(hit);
        queued.timestamp = timestamp;
        std::lock_guard lock(mutex_);
        queued.sequence = nextSequence_++;
        hits_.push_back(std::move(queued));
        ++changes_;
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to queue hit (%s)", e.what());
        return;
    }
    SaveAfterChange();
    ApplyStartRule();
}

void HitQueue::ClearQueue() {
    pendingChanges_.fetch_add(1);
    if (!work_.Post([this] { Clear(); })) pendingChanges_.fetch_sub(1);
}

void HitQueue::Clear() {
    pendingChanges_.fetch_sub(1);
    {
        std::lock_guard lock(mutex_);
        hits_.clear();
        inFlight_.reset();
        ++changes_;
        ++clears_;
    }
    SaveAfterChange();
}

void HitQueue::StartSender() {
    work_.Post([this] { ApplyStartRule(); });
}

void HitQueue::ApplyStartRule() {
    if (config_.Privacy() != kPrivacyOptIn) return;
    if (config_.offlineEnabled && static_cast<std::int64_t>(Size()) <= config_.batchLimit) return;
    {
        std::lock_guard lock(senderMutex_);
        if (stopping_) return;
        runRequested_ = true;
        if (!sender_.joinable()) sender_ = std::thread([this] { SenderLoop(); });
    }
    senderCv_.notify_one();
}

std::size_t HitQueue::Size() const {
    std::lock_guard lock(mutex_);
    return hits_.size();
}

std::future<std::size_t> HitQueue::SizeAfterPendingWork() {
    return work_.Submit([this] { return Size(); });
}

// ---------------------------------------------------------------- saving

void HitQueue::SaveAfterChange() {
    bool due;
    {
        std::lock_guard lock(mutex_);
        due = std::chrono::steady_clock::now() - lastSave_ >= kSaveInterval;
    }
    // A change still waiting on the work queue will save this one too.
    if (pendingChanges_.load() == 0 || due) SaveNow();
}

void HitQueue::SaveNow() {
    std::lock_guard saving(saveMutex_);
    std::vector<std::shared_ptr<const std::string>> members;
    std::uint64_t changes;
    std::uint64_t through;
    {
        std::lock_guard lock(mutex_);
        if (changes_ == savedChanges_) return;
        members.reserve(hits_.size() + 1);
        if (inFlight_) members.push_back(inFlight_);
        for (const auto& hit : hits_) members.push_back(hit.json);
        changes = changes_;
        through = nextSequence_ - 1;  // every hit so far is in this snapshot or already gone
    }
    std::size_t length = 16 + members.size();
    for (const auto& member : members) length += member->size();
    std::string text;
    text.reserve(length);
    text += "{\"Hits\":[";
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (i != 0) text += ',';
        text += *members[i];
    }
    text += "]}";
    try {
        files_.WriteAtomic(kFileName, text);
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to save hit queue (%s)", e.what());
    }
    std::lock_guard lock(mutex_);
    savedChanges_ = std::max(savedChanges_, changes);
    savedThrough_ = std::max(savedThrough_, through);
    lastSave_ = std::chrono::steady_clock::now();
}

void HitQueue::RequestSave() {
    if (savePosted_.exchange(true)) return;
    if (stopping_ || !work_.Post([this] {
            savePosted_ = false;
            SaveNow();
        })) {
        savePosted_ = false;
        SaveNow();
    }
}

// ---------------------------------------------------------------- the sender

void HitQueue::SenderLoop() {
    StartLibraryThread("velmora-sender");
    std::unique_lock lock(senderMutex_);
    for (;;) {
        senderCv_.wait(lock, [this] { return runRequested_ || stopping_; });
        if (stopping_) break;
        runRequested_ = false;
        running_ = true;
        lock.unlock();
        try {
            Run();
        } catch (const std::exception& e) {
            log_.Error("Analytics - Unexpected error in background work (%s)", e.what());
        }
        lock.lock();
        running_ = false;
        idleCv_.notify_all();
    }
    runRequested_ = false;
    idleCv_.notify_all();
}

void HitQueue::Run() {
    for (;;) {
        if (stopping_ || config_.Privacy() != kPrivacyOptIn) break;
        if (!InternetAvailable(host_)) {
            WatchForConnection();
            break;
        }
        QueuedHit hit;
        std::uint64_t clearGeneration = 0;
        if (!TakeFront(hit, clearGeneration)) break;

        if (config_.offlineEnabled && hit.timestamp < lastSentTimestamp_) {
            const auto adjusted = static_cast<std::int32_t>(static_cast<std::int64_t>(lastSentTimestamp_) + 1);
            const std::string from = "&ts=" + std::to_string(static_cast<long>(hit.timestamp));
            if (auto at = hit.hit.find(from); at != std::string::npos) {
                hit.hit.replace(at, from.size(), "&ts=" + std::to_string(static_cast<long>(adjusted)));
            }
            log_.Debug("Analytics - Adjusting out of order hit timestamp(%ld->%ld)", static_cast<long>(hit.timestamp),
                       static_cast<long>(adjusted));
            hit.timestamp = adjusted;
            hit.json = std::make_shared<const std::string>(QueueFileMember(hit.hit, hit.timestamp));
        }

        if (!config_.offlineEnabled && static_cast<std::int64_t>(hit.timestamp) < clock_.NowSeconds() - 5LL) {
            Removed();  // too old to be worth sending without offline tracking
            continue;
        }

        if (Send(hit)) {
            PutBack(std::move(hit), clearGeneration);
            SaveNow();
            if (!Cooldown()) break;
        } else {
            Removed();
        }
    }
    bool unsaved;
    {
        std::lock_guard lock(mutex_);
        unsaved = senderChanges_ > savedChanges_;
    }
    if (unsaved) SaveNow();
}

bool HitQueue::TakeFront(QueuedHit& hit, std::uint64_t& clearGeneration) {
    for (;;) {
        {
            std::lock_guard lock(mutex_);
            if (hits_.empty()) return false;
            if (hits_.front().sequence <= savedThrough_) {
                hit = std::move(hits_.front());
                hits_.pop_front();
                inFlight_ = hit.json;  // the file does not change until the answer is known
                clearGeneration = clears_;
                return true;
            }
        }
        SaveNow();  // the file gets the hit before the server does
    }
}

void HitQueue::PutBack(QueuedHit hit, std::uint64_t clearGeneration) {
    std::lock_guard lock(mutex_);
    inFlight_.reset();
    // Cleared while it was in flight (an opt-out): it stays gone.
    if (clears_ == clearGeneration) hits_.push_front(std::move(hit));
    senderChanges_ = ++changes_;
}

void HitQueue::Removed() {
    bool due;
    {
        std::lock_guard lock(mutex_);
        inFlight_.reset();
        senderChanges_ = ++changes_;
        due = std::chrono::steady_clock::now() - lastSave_ >= kSaveInterval;
    }
    // While a backlog drains, the work queue saves at most every interval; the end of the run
    // saves the rest.
    if (due) RequestSave();
}

bool HitQueue::Send(QueuedHit& hit) {
    std::unique_ptr<RequestHandler> request;
    std::string url;
    try {
        if (!baseUrl_) baseUrl_ = BaseUrl(config_);
        url = *baseUrl_ + hit.hit;
        request = std::make_unique<RequestHandler>(http_, url);
        request->SetTimeout(kRequestTimeoutMillis);
        request->SetHeader("User-Agent", device_.GetUserAgent());
        request->SetHeader("Accept-Language", LanguageTag(host_));
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to send hit (%s)", e.what());
        return false;
    }
    if (url.size() > kMaxUrlBytes) {  // queued by an older version
        log_.Debug("Analytics - Invalid hit (removed)");
        return false;
    }
    log_.Debug("Analytics - Sending hit (%s)", url.c_str());
    try {
        const std::int32_t status = request->GetStatusCode();
        if (status == 200 || status == 307) {
            lastSentTimestamp_ = hit.timestamp;
            return false;
        }
        if (!config_.offlineEnabled) return false;
        log_.Debug("Analytics - Recoverable network error (%d), imposing internal cooldown (%d seconds)", status,
                   kCooldownSeconds);
        return true;
    } catch (const TransportError& e) {
        if (e.Refused()) {
            log_.Debug("Analytics - Invalid hit (removed)");
            return false;
        }
        log_.Debug("Analytics - Unable to send hit, attempting to recover");
        return true;
    } catch (const std::exception&) {
        log_.Debug("Analytics - Invalid hit (removed)");
        return false;
    }
}

bool HitQueue::Cooldown() {
    {
        std::lock_guard lock(senderMutex_);
        coolingDown_ = true;
    }
    idleCv_.notify_all();
    bool finished = true;
    for (int second = 0; second < kCooldownSeconds && finished; ++second) {
        waker_.Reset();
        finished = !stopping_ && clock_.SleepFor(std::chrono::seconds(1), waker_) && !stopping_;
    }
    std::lock_guard lock(senderMutex_);
    coolingDown_ = false;
    return finished;
}

// Nothing else would start the sender again once the connection is back: the queued hits would
// wait for the next tracking call. The check is cheap and runs on the clock's timer thread; the
// watch is shared with the timer so that a tick never outlives the queue.
void HitQueue::WatchForConnection() {
    std::lock_guard lock(watch_->mutex);
    if (watch_->owner == nullptr || watch_->timer) return;
    watch_->timer = clock_.Every(kConnectionCheckInterval, [watch = watch_] {
        std::lock_guard ticking(watch->mutex);
        if (watch->owner == nullptr || !watch->timer || !InternetAvailable(watch->owner->host_)) return;
        watch->timer->Cancel();
        watch->timer.reset();
        watch->owner->StartSender();
    });
}

// ---------------------------------------------------------------- flush and shutdown

bool HitQueue::Flush(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    if (work_.OnQueueThread()) return false;
    // Hits left by an earlier run go out now when the status and the connection allow it.
    auto started = work_.Submit([this] { ApplyStartRule(); });
    if (started.wait_until(deadline) != std::future_status::ready) return false;
    bool idle;
    {
        std::unique_lock lock(senderMutex_);
        idle = idleCv_.wait_until(lock, deadline, [this] { return (!running_ && !runRequested_) || coolingDown_; });
    }
    return idle && Size() == 0;
}

void HitQueue::BeginShutdown() {
    {
        std::lock_guard lock(senderMutex_);
        stopping_ = true;
        runRequested_ = false;
    }
    {
        std::lock_guard lock(watch_->mutex);  // waits for a check that is running
        watch_->owner = nullptr;
        if (watch_->timer) watch_->timer->Cancel();
        watch_->timer.reset();
    }
    senderCv_.notify_all();
    waker_.Wake();
}

bool HitQueue::WaitUntilIdle(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(senderMutex_);
    return idleCv_.wait_until(lock, deadline, [this] { return !running_; });
}

void HitQueue::Shutdown() {
    BeginShutdown();
    work_.Shutdown();  // runs the changes that were posted; they no longer start the sender
    if (sender_.joinable() && sender_.get_id() != std::this_thread::get_id()) sender_.join();
    SaveNow();
}

}  // namespace velmora

#include "analytics/hit_store.h"

#include <stdexcept>

namespace velmora {

HitStore::HitStore(const Logger& log, FileStore& files) : log_(log), file_(files) {}

void HitStore::Load() {
    MutexLock lock(mutex_);
    try {
        const std::string damage = file_.Open();
        if (!damage.empty()) log_.Error("Analytics - Unable to load queued hits (%s)", damage.c_str());
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to load queued hits (%s)", e.what());
    }
    Recount();
    stats_.Loaded(size_.load());
}

void HitStore::Announce() { announced_.fetch_add(1); }

void HitStore::Withdraw() {
    if (!Applied()) return;
    MutexLock lock(mutex_);
    SaveLocked();  // a save may have waited for this change
    Recount();
}

bool HitStore::Applied() {
    int announced = announced_.load();
    // An unannounced change (a test, or the store used on its own) is its own last change.
    while (announced > 0 && !announced_.compare_exchange_weak(announced, announced - 1)) {
    }
    return announced <= 1;
}

void HitStore::Append(std::string hit, std::int32_t timestamp) {
    std::string member = QueueFileMember(hit, timestamp);
    const bool last = Applied();
    MutexLock lock(mutex_);
    unsaved_.push_back(std::move(member));
    stats_.Queued();
    if (last || std::chrono::steady_clock::now() - lastSave_ >= kSaveInterval) SaveLocked();
    Recount();
}

void HitStore::Clear() {
    Applied();
    MutexLock lock(mutex_);
    stats_.Dropped(size_.load());  // the hit in flight counts as its answer says
    unsaved_.clear();
    window_.clear();
    taken_ = false;  // a hit in flight does not come back
    file_.DropAll();
    resetDue_ = true;
    SaveLocked();
    Recount();
}

std::optional<QueuedHit> HitStore::TakeFront() {
    MutexLock lock(mutex_);
    if (taken_) return std::nullopt;
    if (file_.Count() == 0 && !unsaved_.empty()) SaveLocked();  // the sender gets hits from the file only
    if (window_.empty()) {  // an empty queue reads nothing
        const std::string damage = file_.Read(kWindowBytes, window_);
        if (!damage.empty()) log_.Error("Analytics - Unable to load queued hits (%s)", damage.c_str());
    }
    if (window_.empty()) {
        Recount();
        return std::nullopt;
    }
    taken_ = true;
    Recount();
    return window_.front().hit;
}

void HitStore::RemoveFront() {
    {
        MutexLock lock(mutex_);
        if (!taken_) return;  // a clear came first
        taken_ = false;
        file_.Advance(window_.front());
        window_.pop_front();
        Recount();
    }
    CompactIfDue();
}

void HitStore::Return() {
    MutexLock lock(mutex_);
    if (!taken_) stats_.Dropped(1);  // cleared while in flight (an opt-out): it stays gone
    taken_ = false;
    Recount();
}

void HitStore::Save() {
    MutexLock lock(mutex_);
    if (SaveLocked() && !taken_ && file_.Count() == 0 && file_.HasDelivered()) {
        try {
            file_.Reset({});
            window_.clear();
        } catch (const std::exception& e) {
            SaveFailed(e);  // the file keeps its delivered entries, past its head
        }
    }
    Recount();
}

bool HitStore::Unsaved() const {
    MutexLock lock(mutex_);
    return !unsaved_.empty() || resetDue_;
}

void HitStore::Close() {
    Save();
    MutexLock lock(mutex_);
    try {
        file_.Sync();
    } catch (const std::exception& e) {
        SaveFailed(e);
    }
}

bool HitStore::SaveLocked() {
    lastSave_ = std::chrono::steady_clock::now();
    try {
        if (resetDue_) {
            file_.Reset(unsaved_);
            window_.clear();
            resetDue_ = false;
        } else {
            file_.Append(unsaved_);
        }
        unsaved_.clear();
        lastFailure_.clear();
        return true;
    } catch (const std::exception& e) {
        SaveFailed(e);  // the hits wait for the next write
        return false;
    }
}

void HitStore::SaveFailed(const std::exception& e) {
    if (lastFailure_ == e.what()) return;  // a disk that stays full says so once
    lastFailure_ = e.what();
    log_.Error("Analytics - Unable to save hit queue (%s)", e.what());
}

// Runs on the sender's thread, which alone moves the head: the bulk is copied without the lock,
// so appends go on meanwhile.
void HitStore::CompactIfDue() {
    QueueFile::Compaction job;
    {
        MutexLock lock(mutex_);
        if (taken_ || !file_.CompactionDue()) return;
        file_.BeginCompaction(job);
    }
    QueueFile::CopyQueued(job);
    MutexLock lock(mutex_);
    QueueFile::Shift(window_, file_.FinishCompaction(job));
    if (!job.error.empty()) SaveFailed(std::runtime_error(job.error));
}

void HitStore::Recount() {
    size_ = static_cast<std::size_t>(file_.Count()) - (taken_ ? 1 : 0) + unsaved_.size();
}

}  // namespace velmora

#include "media/media_module.h"

#include "media/media_hits.h"

#include <algorithm>

namespace velmora {

MediaModule::MediaModule(const Logger& log, Clock& clock, std::function<bool()> analyticsConfigured,
                         ActionTracker& tracker, SerialQueue& queue)
    : log_(log),
      clock_(clock),
      analyticsConfigured_(std::move(analyticsConfigured)),
      tracker_(tracker),
      queue_(queue) {}

MediaModule::~MediaModule() { Shutdown(); }

void MediaModule::Shutdown() {
    {
        MutexLock lock(monitorLock_->mutex);
        monitorLock_->closed = true;
    }
    MutexLock lock(mutex_);
    for (auto& entry : items_) StopMonitor(entry.second);
}

bool MediaModule::Gate() const {
    if (analyticsConfigured_()) return true;
    log_.Warning("Analytics - Your config file is not set up to use Analytics");
    return false;
}

MediaModule::Items::iterator MediaModule::Find(const std::string& name, const char* verb) {
    auto it = items_.find(name);
    if (it == items_.end()) log_.Debug("Media - Tried to %s media item (%s) but it doesn't exist", verb, name.c_str());
    return it;
}

// ---------------------------------------------------------------- operations

bool MediaModule::Open(const std::shared_ptr<Velmora::MediaSettings>& settings) {
    if (!Gate()) return false;
    if (!settings) {
        log_.Warning("Analytics - VLMMediaSettings is required with a valid name. Media item not opened");
        return false;
    }
    return OpenItem(*settings);
}

bool MediaModule::OpenItem(Velmora::MediaSettings& settings) {
    MutexLock lock(mutex_);
    const std::string name = CleanMediaName(settings.Name);
    if (name.empty()) {
        log_.Warning("Analytics - VLMMediaSettings is required with a valid name. Media item not opened");
        return false;
    }
    if (settings.IsMediaAd) {
        if (settings.ParentName.empty()) {
            log_.Warning("Analytics - Media ad requires parent name, please specify a parent name. "
                         "Media item not opened");
            return false;
        }
        settings.ParentName = CleanMediaName(settings.ParentName);
    }
    const double length = settings.Length > 0 ? settings.Length : -1;
    const std::string playerName = settings.PlayerName.empty() ? "Not_Specified" : CleanMediaName(settings.PlayerName);

    if (auto same = items_.find(name); same != items_.end()) CloseItem(same);
    if (!settings.PlayerID.empty()) {
        auto samePlayer = std::find_if(items_.begin(), items_.end(),
                                       [&](const auto& entry) { return entry.second.playerID == settings.PlayerID; });
        if (samePlayer != items_.end()) CloseItem(samePlayer);
    }

    MediaItem item;
    item.name = name;
    item.playerName = playerName;
    item.length = length;
    item.openTime = clock_.NowSecondsPrecise();
    item.playerID = settings.PlayerID;
    item.channel = settings.Channel;
    // May throw on bad text; nothing has been stored for this item yet.
    item.milestones = ParseMilestones(settings.Milestones);
    item.offsetMilestones = ParseOffsetMilestones(settings.OffsetMilestones, length);
    item.segmentByMilestones = settings.SegmentByMilestones && !item.milestones.empty();
    item.segmentByOffsetMilestones = settings.SegmentByOffsetMilestones && !item.offsetMilestones.empty();
    item.trackSeconds = std::max(settings.TrackSeconds, 0);
    item.completeCloseOffsetThreshold = std::max(settings.CompleteCloseOffsetThreshold, 1);
    if (settings.IsMediaAd) {
        item.isAd = true;
        item.parentPodPosition = settings.ParentPodPosition;
        item.parentName = settings.ParentName;
        item.parentPod = settings.ParentPod;
        item.CPM = settings.CPM;
    }
    items_.insert_or_assign(name, std::move(item));
    return true;
}

void MediaModule::Close(const std::string& rawName) {
    if (!Gate()) return;
    const std::string name = CleanMediaName(rawName);
    MutexLock lock(mutex_);
    auto it = Find(name, "close");
    if (it != items_.end()) CloseItem(it);
}

void MediaModule::CloseItem(Items::iterator it) {
    MediaItem& item = it->second;
    item.skipNextMonitor = false;
    NewSnapshot(item, clock_.NowSeconds());
    if (item.previous && item.previous->eventType != kMediaClose) {
        UpdateState(item, kMediaClose, -1);
        // With an unknown length (-1) this always holds: such an item closes as complete.
        if (item.current->offset >= item.length - item.completeCloseOffsetThreshold) item.current->complete = true;
        StopMonitor(item);
    }
    if (item.current && item.current->timePlayed > 0) {
        if (SendHit(it, {}, true)) return;
    }
    Erase(it);
}

void MediaModule::Play(const std::string& rawName, double offset) {
    if (!Gate()) return;
    const std::string name = CleanMediaName(rawName);
    MutexLock lock(mutex_);
    auto it = Find(name, "play");
    if (it == items_.end()) return;
    MediaItem& item = it->second;
    if (!IsPlaying(item)) {
        item.skipNextMonitor = false;
        NewSnapshot(item, clock_.NowSeconds());
        UpdateState(item, kMediaPlay, offset);
        if (!item.current->complete) StartMonitor(item);
    }
    bool removed;
    if (item.previous) {
        const bool force = item.current->segmentNum != item.lastSegmentNum && item.current->timePlayed > 0;
        removed = SendHit(it, {}, force);
    } else {
        removed = SendViewHit(it);
    }
    if (removed) return;
    item.skipNextMonitor = false;
    RemoveIfAtEnd(it);
}

void MediaModule::Stop(const std::string& rawName, double offset) {
    if (!Gate()) return;
    const std::string name = CleanMediaName(rawName);
    MutexLock lock(mutex_);
    auto it = Find(name, "stop");
    if (it == items_.end() || !IsPlaying(it->second)) return;
    MediaItem& item = it->second;
    item.skipNextMonitor = false;
    NewSnapshot(item, clock_.NowSeconds());
    UpdateState(item, kMediaStop, offset);
    StopMonitor(item);
    if (item.previous) SendHit(it, {}, false);
}

void MediaModule::Complete(const std::string& rawName, double offset) {
    if (!Gate()) return;
    const std::string name = CleanMediaName(rawName);
    MutexLock lock(mutex_);
    auto it = Find(name, "complete");
    if (it == items_.end() || !IsPlaying(it->second)) return;
    MediaItem& item = it->second;
    item.skipNextMonitor = false;
    NewSnapshot(item, clock_.NowSeconds());
    // A second complete in a row leaves the new snapshot blank, which ends playing.
    if (item.previous && item.previous->eventType != kMediaComplete) {
        UpdateState(item, kMediaComplete, offset);
        if (item.current->complete) StopMonitor(item);
        item.current->complete = true;
    }
    if (item.previous) SendHit(it, {}, false);
}

void MediaModule::Click(const std::string& rawName, double offset) {
    if (!Gate()) return;
    const std::string name = CleanMediaName(rawName);
    MutexLock lock(mutex_);
    auto it = Find(name, "click");
    if (it == items_.end() || !IsPlaying(it->second)) return;
    MediaItem& item = it->second;
    item.skipNextMonitor = false;
    NewSnapshot(item, clock_.NowSeconds());
    if (item.previous && item.previous->eventType != kMediaClick) UpdateState(item, kMediaClick, offset);
    if (item.previous) SendHit(it, {}, false);
}

void MediaModule::Track(const std::string& rawName, StringMap contextData) {
    if (!Gate()) return;
    const std::string name = CleanMediaName(rawName);
    MutexLock lock(mutex_);
    auto it = Find(name, "track");
    if (it == items_.end()) return;
    if (it->second.current) {
        for (auto entry = contextData.begin(); entry != contextData.end();) {
            entry = entry->second.empty() ? contextData.erase(entry) : std::next(entry);
        }
        if (SendHit(it, std::move(contextData), true)) return;
    }
    it->second.skipNextMonitor = false;
}

// ---------------------------------------------------------------- monitor

void MediaModule::StartMonitor(MediaItem& item) {
    if (item.monitor) {
        MutexLock lock(monitorLock_->mutex);
        if (!item.monitor->cancelled) return;
    }
    auto record = std::make_shared<MonitorRecord>(item.name);
    // The timer only posts; all work happens on the queue under the media lock. It holds its record
    // weakly, as the record holds the timer.
    std::weak_ptr<MonitorRecord> weak = record;
    record->timer = clock_.Every(std::chrono::milliseconds(1000), [this, shared = monitorLock_, weak] {
        MutexLock lock(shared->mutex);
        auto live = weak.lock();
        if (shared->closed || !live || live->cancelled) return;
        queue_.Post([this, live] { MonitorTick(live); });
    });
    item.monitor = std::move(record);
}

void MediaModule::StopMonitor(MediaItem& item) {
    if (!item.monitor) return;
    {
        MutexLock lock(monitorLock_->mutex);
        item.monitor->cancelled = true;
    }
    if (item.monitor->timer) item.monitor->timer->Cancel();
    item.monitor.reset();
}

void MediaModule::MonitorTick(const std::shared_ptr<MonitorRecord>& record) {
    MutexLock lock(mutex_);
    {
        // A tick posted just before its monitor stopped belongs to nobody any more.
        MutexLock monitorLock(monitorLock_->mutex);
        if (record->cancelled) return;
    }
    auto it = items_.find(record->name);
    if (it == items_.end() || !IsPlaying(it->second)) return;
    MediaItem& item = it->second;
    if (item.skipNextMonitor) {
        item.skipNextMonitor = false;
        return;
    }
    NewSnapshot(item, clock_.NowSeconds());
    UpdateState(item, kMediaMonitor, -1);
    if (item.current->complete) StopMonitor(item);
    if (item.previous) SendHit(it, {}, false);
}

// ---------------------------------------------------------------- hits

bool MediaModule::SendViewHit(Items::iterator it) {
    Dispatch(it->second, BuildViewHit(it->second));
    return RemoveIfAtEnd(it);
}

bool MediaModule::SendHit(Items::iterator it, StringMap data, bool force) {
    if (auto hit = BuildProgressHit(it->second, std::move(data), force)) Dispatch(it->second, *hit);
    return RemoveIfAtEnd(it);
}

void MediaModule::Dispatch(MediaItem& item, const StringMap& data) {
    tracker_.TrackInternalAction("Media", data, clock_.NowSeconds());
    item.current->timePlayedSinceTrack = 0;
}

bool MediaModule::RemoveIfAtEnd(Items::iterator it) {
    if (!(it->second.current->percent >= 100)) return false;  // NaN stays
    Erase(it);
    return true;
}

void MediaModule::Erase(Items::iterator it) {
    // Some ends (a click at the end, a close after a repeated complete) leave the monitor running;
    // a removed item never keeps a timer.
    StopMonitor(it->second);
    items_.erase(it);
}

}  // namespace velmora

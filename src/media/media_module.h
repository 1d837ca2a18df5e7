#pragma once

#include "core/actions.h"
#include "core/clock.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/serial_queue.h"
#include "media/media_item.h"

#include <velmora/Media.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace velmora {

// Media playback measurement: the open items, their once-a-second monitors and the "Media" hits.
// The operations run where they are called: on the general queue, in the order of the public
// calls, so that their hits take their places among the other calls' hits; the monitors' ticks are
// posted to that queue too. Every operation holds the media lock from start to end, hit included.
// Errors thrown while opening an item (bad milestone text) reach the caller's queue, which logs them
// and goes on.
class MediaModule final {
public:
    // `analyticsConfigured` is asked before each operation; `queue` runs the monitors' ticks.
    MediaModule(const Logger& log, Clock& clock, std::function<bool()> analyticsConfigured, ActionTracker& tracker,
                SerialQueue& queue);
    ~MediaModule();
    MediaModule(const MediaModule&) = delete;
    MediaModule& operator=(const MediaModule&) = delete;

    // Stops every monitor; ticks already posted find nothing to do.
    void Shutdown() EXCLUDES(mutex_);

    // Opens the item; true when it opened (the analytics gate passed and the settings were usable).
    bool Open(const std::shared_ptr<Velmora::MediaSettings>& settings) EXCLUDES(mutex_);
    void Close(const std::string& name) EXCLUDES(mutex_);
    void Play(const std::string& name, double offset) EXCLUDES(mutex_);
    void Complete(const std::string& name, double offset) EXCLUDES(mutex_);
    void Stop(const std::string& name, double offset) EXCLUDES(mutex_);
    void Click(const std::string& name, double offset) EXCLUDES(mutex_);
    void Track(const std::string& name, StringMap contextData) EXCLUDES(mutex_);

    // Opening without the analytics check; true when the item opened. An ad's cleaned parent name is
    // written back to `settings`.
    bool OpenItem(Velmora::MediaSettings& settings) EXCLUDES(mutex_);


private:
    using Items = std::map<std::string, MediaItem>;

    // Shared with the timer callbacks, so that a tick racing shutdown never touches a gone module.
    // Taken after the media lock when both are held; it also guards each MonitorRecord's `cancelled`.
    struct MonitorLock {
        Mutex mutex;
        bool closed GUARDED_BY(mutex) = false;  // no more ticks are posted
    };

    bool Gate() const;
    // Cleans `name` and finds its item; logs "Tried to <verb> ..." when there is none.
    Items::iterator Find(const std::string& name, const char* verb) REQUIRES(mutex_);

    // The helpers below change items of items_, so they run under the media lock.
    void CloseItem(Items::iterator it) REQUIRES(mutex_);
    void MonitorTick(const std::shared_ptr<MonitorRecord>& record) EXCLUDES(mutex_);
    void StartMonitor(MediaItem& item) REQUIRES(mutex_);
    void StopMonitor(MediaItem& item) REQUIRES(mutex_);

    // Each returns true when it removed the item (it reached the end); `it` is then invalid.
    bool SendViewHit(Items::iterator it) REQUIRES(mutex_);
    bool SendHit(Items::iterator it, StringMap data, bool force) REQUIRES(mutex_);
    bool RemoveIfAtEnd(Items::iterator it) REQUIRES(mutex_);
    void Dispatch(MediaItem& item, const StringMap& data) REQUIRES(mutex_);
    void Erase(Items::iterator it) REQUIRES(mutex_);

    const Logger& log_;
    Clock& clock_;
    const std::function<bool()> analyticsConfigured_;
    ActionTracker& tracker_;
    const std::shared_ptr<MonitorLock> monitorLock_ = std::make_shared<MonitorLock>();

    SerialQueue& queue_;

    Mutex mutex_;  // the media lock
    Items items_ GUARDED_BY(mutex_);
};

}  // namespace velmora

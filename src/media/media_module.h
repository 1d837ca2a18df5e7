#pragma once

#include "core/actions.h"
#include "core/clock.h"
#include "core/log.h"
#include "core/serial_queue.h"
#include "media/media_item.h"

#include <velmora/Media.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace velmora {

// Media playback measurement: the open items, their once-a-second monitors and the "Media" hits.
// The public operations post to the module's queue; each operation below is what runs there. Every
// operation holds the media lock from start to end, hit included. Errors thrown while opening an
// item (bad milestone text) are left to the queue, which logs them and goes on.
class MediaModule final {
public:
    // `analyticsConfigured` is asked on the queue before each operation.
    MediaModule(const Logger& log, Clock& clock, std::function<bool()> analyticsConfigured, ActionTracker& tracker, Executor& executor);
    ~MediaModule();
    MediaModule(const MediaModule&) = delete;
    MediaModule& operator=(const MediaModule&) = delete;


    bool Flush(std::chrono::milliseconds timeout);
    void Shutdown();

    SerialQueue& Queue() { return queue_; }

    void Open(const std::shared_ptr<Velmora::MediaSettings>& settings);
    void Close(const std::string& name);
    void Play(const std::string& name, double offset);
    void Complete(const std::string& name, double offset);
    void Stop(const std::string& name, double offset);
    void Click(const std::string& name, double offset);
    void Track(const std::string& name, StringMap contextData);

    // Opening without the analytics check. An ad's cleaned parent name is written back to `settings`.
    void OpenItem(Velmora::MediaSettings& settings);


private:
    using Items = std::map<std::string, MediaItem>;

    // Shared with the timer callbacks, so that a tick racing shutdown never touches a gone module.
    struct MonitorLock {
        std::mutex mutex;
        bool closed = false;  // no more ticks are posted
    };

    bool Gate() const;
    // Cleans `name` and finds its item; logs "Tried to <verb> ..." when there is none.
    Items::iterator Find(const std::string& name, const char* verb);

    void CloseItem(Items::iterator it);
    void MonitorTick(const std::shared_ptr<MonitorRecord>& record);
    void StartMonitor(MediaItem& item);
    void StopMonitor(MediaItem& item);

    // Each returns true when it removed the item (it reached the end); `it` is then invalid.
    bool SendViewHit(Items::iterator it);
    bool SendHit(Items::iterator it, StringMap data, bool force);
    bool RemoveIfAtEnd(Items::iterator it);
    void Dispatch(MediaItem& item, const StringMap& data);
    void Erase(Items::iterator it);

    const Logger& log_;
    Clock& clock_;
    const std::function<bool()> analyticsConfigured_;
    ActionTracker& tracker_;
    const std::shared_ptr<MonitorLock> monitorLock_ = std::make_shared<MonitorLock>();

    std::mutex mutex_;  // the media lock
    Items items_;       // guarded by mutex_

    SerialQueue queue_;  // last member: stops before anything it runs against
};

}  // namespace velmora

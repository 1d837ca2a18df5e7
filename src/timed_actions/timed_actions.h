#pragma once

#include "core/actions.h"
#include "core/clock.h"
#include "core/file_store.h"
#include "core/log.h"
#include "core/serial_queue.h"

#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>

namespace velmora {

// One running timed action as the store and its file keep it.
struct TimedActionRecord {
    StringMap data;
    std::int32_t start = 0;
    std::int32_t adjusted = 0;
};
using TimedActionMap = std::map<std::string, TimedActionRecord>;

// Reads the timed-actions file's text into `actions`. A blank text holds no actions. Throws when the
// text as a whole is unusable; an element that cannot be read is handed to `skipped` (the name read
// so far and the reason) and left out, the others are kept.
void ParseTimedActionsFile(const std::string& text, TimedActionMap& actions,
                           const std::function<void(const std::string& name, const std::string& reason)>& skipped);
// The file's text for `actions`, in name order.
std::string TimedActionsFileText(const TimedActionMap& actions);

// Actions the application times by name. Running actions live in "VelmoraTimedActions.json" so
// that they survive the process; ending one sends an action hit with the total time and the time
// spent in the foreground. Every operation is posted to the store's own queue, which alone touches
// the map and the file, so the map needs no lock.
class TimedActionStore {
public:
    static constexpr const char* kFileName = "VelmoraTimedActions.json";

    TimedActionStore(FileStore& files, ActionTracker& tracker, const Clock& clock, const Logger& log, Executor& executor);
    ~TimedActionStore();

    bool Flush(std::chrono::milliseconds timeout) { return queue_.Drain(timeout); }
    void Shutdown() { queue_.Shutdown(); }

    void Start(const std::string& name, StringMap data);
    void Update(const std::string& name, StringMap data);
    void End(const std::string& name);
    // Answers once the query reaches the queue, after everything posted before it.
    std::future<bool> Exists(const std::string& name);
    SerialQueue& Queue() { return queue_; }
    // Moves every running action's in-app start forward by a pause of `seconds`.
    void Shift(std::int32_t seconds);

private:
    void Load();
    void Save();
    void DoStart(const std::string& name, StringMap data);
    void DoUpdate(const std::string& name, const StringMap& data);
    void DoEnd(const std::string& name);
    void DoShift(std::int32_t seconds);

    FileStore& files_;
    ActionTracker& tracker_;
    const Clock& clock_;
    const Logger& log_;
    TimedActionMap actions_;  // touched on queue_ only
    SerialQueue queue_;
};

}  // namespace velmora

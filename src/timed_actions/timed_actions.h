#pragma once

#include "core/actions.h"
#include "core/clock.h"
#include "core/file_store.h"
#include "core/log.h"

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
// text as a whole is unusable, after keeping the whole elements before the damage; an element that
// cannot be read is handed to `skipped` (the name read so far and the reason) and left out, the
// others are kept.
void ParseTimedActionsFile(const std::string& text, TimedActionMap& actions,
                           const std::function<void(const std::string& name, const std::string& reason)>& skipped);
// The file's text for `actions`, in name order.
std::string TimedActionsFileText(const TimedActionMap& actions);

// Actions the application times by name. Running actions live in "VelmoraTimedActions.json" so
// that they survive the process; ending one sends an action hit with the total time and the time
// spent in the foreground. The operations run where they are called: on the general queue, in the
// order of the public calls, so that an end's hit takes its place among the other calls' hits. That
// queue alone touches the map and the file, so the map needs no lock. The file is read on first use.
class TimedActionStore {
public:
    static constexpr const char* kFileName = "VelmoraTimedActions.json";

    TimedActionStore(FileStore& files, ActionTracker& tracker, const Clock& clock, const Logger& log);

    void Start(const std::string& name, StringMap data);
    void Update(const std::string& name, const StringMap& data);
    void End(const std::string& name);
    bool Exists(const std::string& name);
    // Moves every running action's in-app start forward by a pause of `seconds`.
    void Shift(std::int32_t seconds);

private:
    TimedActionMap& Actions();
    void Save();

    FileStore& files_;
    ActionTracker& tracker_;
    const Clock& clock_;
    const Logger& log_;
    bool loaded_ = false;
    TimedActionMap actions_;
};

}  // namespace velmora

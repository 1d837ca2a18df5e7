#include "timed_actions/timed_actions.h"

#include "core/seconds.h"

#include <nlohmann/json.hpp>

#include <stdexcept>

namespace velmora {
namespace {

using Json = nlohmann::json;
// Members are written in the document's own order: name, start, adjusted, data.
using OrderedJson = nlohmann::ordered_json;

bool Blank(const std::string& text) { return text.find_first_not_of(" \t\r\n") == std::string::npos; }

}  // namespace

void ParseTimedActionsFile(const std::string& text, TimedActionMap& actions,
                           const std::function<void(const std::string& name, const std::string& reason)>& skipped) {
    if (Blank(text)) return;  // a first start: the file was just created empty
    const Json root = Json::parse(text);
    if (!root.is_object()) throw std::runtime_error("the document is not a JSON object");
    auto list = root.find("Actions");
    if (list == root.end() || !list->is_array()) throw std::runtime_error("the document has no \"Actions\" array");
    for (const auto& element : *list) {
        std::string name;
        try {
            if (!element.is_object()) {
                throw std::runtime_error(std::string("expected an object, found ") + element.type_name());
            }
            TimedActionRecord action;
            if (auto it = element.find("name"); it != element.end()) name = it->get<std::string>();
            if (auto it = element.find("start"); it != element.end()) action.start = TruncateToInt32(it->get<double>());
            if (auto it = element.find("adjusted"); it != element.end()) {
                action.adjusted = TruncateToInt32(it->get<double>());
            }
            if (auto it = element.find("data"); it != element.end()) {
                if (!it->is_object()) throw std::runtime_error(std::string("\"data\" is a ") + it->type_name());
                for (const auto& [key, value] : it->items()) action.data[key] = value.get<std::string>();
            }
            actions[name] = std::move(action);
        } catch (const std::exception& e) {
            skipped(name, e.what());
        }
    }
}

std::string TimedActionsFileText(const TimedActionMap& actions) {
    OrderedJson list = OrderedJson::array();
    for (const auto& [name, action] : actions) {
        OrderedJson element = OrderedJson::object();
        element["name"] = name;
        element["start"] = action.start;
        element["adjusted"] = action.adjusted;
        element["data"] = OrderedJson::object();
        for (const auto& [key, value] : action.data) element["data"][key] = value;
        list.push_back(std::move(element));
    }
    OrderedJson root = OrderedJson::object();
    root["Actions"] = std::move(list);
    return root.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
}

TimedActionStore::TimedActionStore(FileStore& files, ActionTracker& tracker, const Clock& clock, const Logger& log, Executor& executor)
    : files_(files), tracker_(tracker), clock_(clock), log_(log), queue_("Analytics", log, executor) {
    // First on the queue, so every operation sees the actions of earlier runs.
    queue_.Post([this] { Load(); });
}

TimedActionStore::~TimedActionStore() { queue_.Shutdown(); }


void TimedActionStore::Start(const std::string& name, StringMap data) {
    queue_.Post([this, name, data = std::move(data)]() mutable { DoStart(name, std::move(data)); });
}

void TimedActionStore::Update(const std::string& name, StringMap data) {
    queue_.Post([this, name, data = std::move(data)] { DoUpdate(name, data); });
}

void TimedActionStore::End(const std::string& name) {
    queue_.Post([this, name] { DoEnd(name); });
}

std::future<bool> TimedActionStore::Exists(const std::string& name) {
    return queue_.Submit([this, name] { return actions_.count(name) > 0; });
}

void TimedActionStore::Shift(std::int32_t seconds) {
    queue_.Post([this, seconds] { DoShift(seconds); });
}

void TimedActionStore::DoStart(const std::string& name, StringMap data) {
    if (name.empty()) {
        log_.Warning("Analytics - Cannot start timed action with a null or empty action name.");
        return;
    }
    const std::int32_t now = clock_.NowSeconds();
    // Starting a running name restarts it: its old data and times are discarded.
    actions_[name] = TimedActionRecord{std::move(data), now, now};
    Save();
}

void TimedActionStore::DoUpdate(const std::string& name, const StringMap& data) {
    if (name.empty()) {
        log_.Warning("Analytics - Cannot update timed action with a null or empty action name.");
        return;
    }
    if (data.empty()) {
        log_.Warning("Analytics - Cannot update timed action with blank context data, skipping.");
        return;
    }
    auto it = actions_.find(name);
    if (it == actions_.end()) {
        log_.Warning("Analytics - Cannot find timed action to update (%s).", name.c_str());
        return;
    }
    for (const auto& [key, value] : data) it->second.data[key] = value;
    Save();
}

void TimedActionStore::DoEnd(const std::string& name) {
    if (name.empty()) {
        log_.Warning("Analytics - Cannot end timed action with a null or empty action name.");
        return;
    }
    auto it = actions_.find(name);
    if (it == actions_.end()) {
        log_.Warning("Analytics - Ignoring attempt to end timed action that had not yet begun (%s).", name.c_str());
        return;
    }
    const std::int32_t now = clock_.NowSeconds();
    StringMap contextData = it->second.data;
    contextData["a.action.time.total"] = std::to_string(SubtractSeconds(now, it->second.start));
    contextData["a.action.time.inapp"] = std::to_string(SubtractSeconds(now, it->second.adjusted));
    tracker_.TrackAction(name, contextData);
    actions_.erase(it);
    Save();
}

void TimedActionStore::DoShift(std::int32_t seconds) {
    if (actions_.empty()) return;  // nothing runs, so the file already says everything
    for (auto& [name, action] : actions_) action.adjusted = AddSeconds(action.adjusted, seconds);
    Save();
}

void TimedActionStore::Load() {
    TimedActionMap loaded;
    try {
        ParseTimedActionsFile(files_.Read(kFileName), loaded, [this](const std::string& name, const std::string& reason) {
            log_.Error("Analytics - unable to parse timed action (\"%s\" - %s)", name.c_str(), reason.c_str());
        });
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to load timed actions (%s).", e.what());
        return;
    }
    actions_ = std::move(loaded);
}

void TimedActionStore::Save() {
    try {
        files_.WriteAtomic(kFileName, TimedActionsFileText(actions_));
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to save timed actions file (%s).", e.what());
    }
}

}  // namespace velmora

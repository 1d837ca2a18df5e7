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

namespace {

// One element of the "Actions" array into `actions`; an unreadable one goes to `skipped`.
void ReadTimedAction(const Json& element, TimedActionMap& actions,
                     const std::function<void(const std::string&, const std::string&)>& skipped) {
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

}  // namespace

void ParseTimedActionsFile(const std::string& text, TimedActionMap& actions,
                           const std::function<void(const std::string& name, const std::string& reason)>& skipped) {
    if (Blank(text)) return;  // a first start: the file was just created empty
    // Each element is taken as soon as it is complete, so a file cut short keeps the actions before
    // the damage; the parse error is still thrown for the caller to report.
    std::string memberKey;
    bool inActions = false;
    bool sawActions = false;
    const Json root = Json::parse(text, [&](int depth, Json::parse_event_t event, Json& parsed) {
        if (depth == 1 && event == Json::parse_event_t::key) memberKey = parsed.get<std::string>();
        if (depth == 1 && event == Json::parse_event_t::array_start) inActions = memberKey == "Actions";
        if (depth == 1 && event == Json::parse_event_t::array_end && inActions) {
            inActions = false;
            sawActions = true;
        }
        const bool element = depth == 2 && inActions &&
                             (event == Json::parse_event_t::object_end || event == Json::parse_event_t::array_end ||
                              event == Json::parse_event_t::value);
        if (!element) return true;
        ReadTimedAction(parsed, actions, skipped);
        return false;  // taken: the document need not keep it
    });
    if (!root.is_object()) throw std::runtime_error("the document is not a JSON object");
    if (!sawActions) throw std::runtime_error("the document has no \"Actions\" array");
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

TimedActionStore::TimedActionStore(FileStore& files, ActionTracker& tracker, const Clock& clock, const Logger& log)
    : files_(files), tracker_(tracker), clock_(clock), log_(log) {}

TimedActionMap& TimedActionStore::Actions() {
    if (loaded_) return actions_;
    loaded_ = true;
    try {
        ParseTimedActionsFile(files_.Read(kFileName), actions_, [this](const std::string& name, const std::string& reason) {
            log_.Error("Analytics - unable to parse timed action (\"%s\" - %s)", name.c_str(), reason.c_str());
        });
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to load timed actions (%s).", e.what());
    }
    return actions_;
}

void TimedActionStore::Start(const std::string& name, StringMap data) {
    if (name.empty()) {
        log_.Warning("Analytics - Cannot start timed action with a null or empty action name.");
        return;
    }
    const std::int32_t now = clock_.NowSeconds();
    // Starting a running name restarts it: its old data and times are discarded.
    Actions()[name] = TimedActionRecord{std::move(data), now, now};
    Save();
}

void TimedActionStore::Update(const std::string& name, const StringMap& data) {
    if (name.empty()) {
        log_.Warning("Analytics - Cannot update timed action with a null or empty action name.");
        return;
    }
    if (data.empty()) {
        log_.Warning("Analytics - Cannot update timed action with blank context data, skipping.");
        return;
    }
    auto it = Actions().find(name);
    if (it == actions_.end()) {
        log_.Warning("Analytics - Cannot find timed action to update (%s).", name.c_str());
        return;
    }
    for (const auto& [key, value] : data) it->second.data[key] = value;
    Save();
}

void TimedActionStore::End(const std::string& name) {
    if (name.empty()) {
        log_.Warning("Analytics - Cannot end timed action with a null or empty action name.");
        return;
    }
    auto it = Actions().find(name);
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

bool TimedActionStore::Exists(const std::string& name) { return Actions().count(name) > 0; }

void TimedActionStore::Shift(std::int32_t seconds) {
    if (Actions().empty()) return;  // nothing runs, so the file already says everything
    for (auto& [name, action] : actions_) action.adjusted = AddSeconds(action.adjusted, seconds);
    Save();
}

void TimedActionStore::Save() {
    try {
        files_.WriteAtomic(kFileName, TimedActionsFileText(actions_));
    } catch (const std::exception& e) {
        log_.Error("Analytics - Unable to save timed actions file (%s).", e.what());
    }
}

}  // namespace velmora

#include "cohorta/cohorta.h"

#include "core/escape.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <stdexcept>
#include <vector>

namespace velmora {

using Json = nlohmann::json;

SignalAnswer ReadSignalDestinations(const Json& root) {
    if (!root.is_object()) throw std::runtime_error("the answer is not a JSON object");
    SignalAnswer answer;
    if (auto it = root.find("dests"); it != root.end()) {
        if (!it->is_array()) throw std::runtime_error("\"dests\" is not an array");
        answer.destinations.assign(it->begin(), it->end());
    }
    return answer;
}

void ReadSignalUserData(const Json& root, SignalAnswer& answer) {
    if (auto it = root.find("uuid"); it != root.end()) answer.userId = it->get<std::string>();
    if (auto it = root.find("stuff"); it != root.end()) {
        if (!it->is_array()) throw std::runtime_error("\"stuff\" is not an array");
        for (const auto& segment : *it) {
            if (!segment.is_object()) throw std::runtime_error("a \"stuff\" element is not an object");
            answer.profile[segment.value("cn", std::string())] = segment.value("cv", std::string());
        }
    }
}

SignalAnswer ParseSignalAnswer(const std::string& body) {
    const Json root = Json::parse(body);
    SignalAnswer answer = ReadSignalDestinations(root);
    ReadSignalUserData(root, answer);
    return answer;
}

CohortaClient::CohortaClient(const ConfigSettings& config, ModuleGates& gates, SettingsStore& settings,
                             Transport& transport, const Logger& log, Executor& executor)
    : config_(config), gates_(gates), settings_(settings), transport_(transport), log_(log), queue_("Cohorta", log, executor) {}

CohortaClient::~CohortaClient() { queue_.Shutdown(); }


std::optional<StringMap> CohortaClient::GetVisitorProfile(SettingsStore& settings) {
    auto stored = settings.Lookup(kCohortaProfileKey);
    if (stored && std::holds_alternative<StringMap>(*stored)) return std::get<StringMap>(*stored);
    return std::nullopt;
}

std::string CohortaClient::GetDpid() const {
    MutexLock lock(mutex_);
    return dpid_;
}

std::string CohortaClient::GetDpuuid() const {
    MutexLock lock(mutex_);
    return dpuuid_;
}

void CohortaClient::SetDpidAndDpuuid(std::string dpid, std::string dpuuid) {
    queue_.Post([this, dpid = std::move(dpid), dpuuid = std::move(dpuuid)] {
        if (!gates_.Cohorta()) {
            log_.Warning("Cohorta - Your config file is not set up to use Cohorta");
            return;
        }
        MutexLock lock(mutex_);
        dpid_ = dpid;
        dpuuid_ = dpuuid;
    });
}

std::future<std::optional<StringMap>> CohortaClient::SubmitSignal(StringMap traits) {
    return queue_.Submit([this, traits = std::move(traits)] { return Signal(traits); });
}

const std::string& CohortaClient::BaseUrl() {
    std::call_once(baseUrlOnce_, [this] {
        char buffer[128];
        std::snprintf(buffer, sizeof buffer, "http://%s/event?", config_.cohortaServer.c_str());
        baseUrl_ = buffer;
    });
    return baseUrl_;
}

std::string CohortaClient::UserId() {
    MutexLock lock(mutex_);
    if (!userId_) userId_ = LookupText(settings_, kCohortaUserIdKey).value_or(std::string());
    return *userId_;
}

void CohortaClient::StoreUserId(const std::string& userId) {
    if (userId == UserId()) return;
    settings_.Insert(kCohortaUserIdKey, userId);
    MutexLock lock(mutex_);
    userId_ = userId;
}

std::string CohortaClient::BuildSignalUrl(const StringMap& traits) {
    std::string url = BaseUrl();
    for (const auto& [key, value] : traits) {
        if (key.empty() || value.empty()) continue;
        url += "&c_";
        url += EscapeComponent(std::regex_replace(key, dot_, "_"));
        url += "=";
        url += EscapeComponent(value);
    }
    const std::string userId = UserId();
    if (!userId.empty()) url += "&d_uuid=" + userId;
    {
        MutexLock lock(mutex_);
        if (!dpid_.empty() && !dpuuid_.empty()) url += "&d_dpid=" + dpid_ + "&d_dpuuid=" + dpuuid_;
    }
    url += "&d_ptfm=win8&d_dst=1&d_rtbd=json";
    // The first parameter was appended with "&" like the others; it belongs right after the "?".
    return std::regex_replace(url, leadingAmpersand_, "?");
}

std::optional<StringMap> CohortaClient::Signal(const StringMap& traits) {
    if (!gates_.Cohorta()) {
        log_.Warning("Cohorta - Your config file is not set up to use Cohorta");
        return std::nullopt;
    }
    // Nothing about the user leaves the device before consent, nor after an opt-out.
    if (const auto privacy = config_.Privacy(); privacy != kPrivacyOptIn) {
        log_.Debug("Cohorta - Ignoring signal due to privacy status being %s", PrivacyStatusText(privacy));
        return std::nullopt;
    }
    const std::string url = BuildSignalUrl(traits);
    log_.Debug("Cohorta - request (%s)", url.c_str());
    if (!UrlParseError(url).empty()) {  // before any request is made of it
        log_.Warning("Cohorta - Unable to create URL object");
        return std::nullopt;
    }

    std::string body;
    try {
        RequestHandler request(transport_, log_, url);
        request.SetTimeout(kSignalTimeoutMs);
        body = request.GetResponseText();
        if (request.TimedOut()) {
            log_.Warning("Cohorta - Request timed out");
            return std::nullopt;
        }
    } catch (const std::exception& e) {
        log_.Warning("Cohorta - Unable to create URI object (%s)", e.what());
        return std::nullopt;
    }

    Json root;
    SignalAnswer answer;
    try {
        root = Json::parse(body);
        answer = ReadSignalDestinations(root);
    } catch (const std::exception& e) {
        log_.Warning("Cohorta - Unexpected error parsing result (%s)", e.what());
        return std::nullopt;
    }
    // The destinations are owed whatever the rest of the answer holds.
    for (const auto& destination : answer.destinations) ForwardDestination(destination);
    try {
        ReadSignalUserData(root, answer);
    } catch (const std::exception& e) {
        log_.Warning("Cohorta - Unexpected error parsing result (%s)", e.what());
        return std::nullopt;
    }
    if (answer.userId) StoreUserId(*answer.userId);
    if (answer.profile.empty()) {
        log_.Warning("Cohorta - response was empty");
        return std::nullopt;
    }
    log_.Debug("Cohorta - response {%s\n}", FormatMapForLog(answer.profile).c_str());
    settings_.Insert(kCohortaProfileKey, answer.profile);
    return answer.profile;
}

void CohortaClient::ForwardDestination(const Json& destination) {
    try {
        RequestHandler request(transport_, log_, destination.at("c").get<std::string>());
        request.SetTimeout(kDestinationTimeoutMs);
        request.GetStatusCode();
        if (request.TimedOut()) log_.Warning("Cohorta - Failed to forward dest; the request timed out");
    } catch (const TransportError& e) {
        log_.Warning("Cohorta - Failed to forward the dest (%s)", e.what());
    } catch (const std::exception& e) {
        log_.Warning("Cohorta - Unknown failure forwarding dest (%s)", e.what());
    }
}

}  // namespace velmora

#include "vantor/vantor.h"

#include "analytics/values.h"
#include "core/escape.h"

#include <algorithm>
#include <limits>

namespace velmora {
namespace {

void AppendParameters(std::string& url, const StringMap& parameters) {
    for (const auto& [key, value] : parameters) {
        if (key.empty() || value.empty()) continue;
        url += "&" + EscapeComponent(key) + "=" + EscapeComponent(value);
    }
}

}  // namespace

VantorClient::VantorClient(const ConfigSettings& config, ModuleGates& gates, SettingsStore& settings, Transport& transport,
               Clock& clock, const Logger& log, Sources sources, Executor& executor)
    : config_(config),
      gates_(gates),
      settings_(settings),
      transport_(transport),
      clock_(clock),
      log_(log),
      sources_(std::move(sources)),
      queue_("Vantor", log, executor) {}


std::future<std::string> VantorClient::LoadRequest(OfferRequest request) {
    return queue_.Submit([this, request = std::move(request)] { return Load(request); });
}

void VantorClient::ClearCookies() {
    queue_.Post([this] {
        if (!gates_.Vantor()) {
            log_.Warning("Vantor - Your config file is not set up to use Vantor");
            return;
        }
        {
            MutexLock lock(mutex_);
            pcId_.clear();
            sessionId_.clear();
        }
        settings_.Remove(kPcIdKey);
        settings_.Remove(kSessionIdKey);
    });
}

std::string VantorClient::GetPcId() const {
    MutexLock lock(mutex_);
    return pcId_;
}

std::string VantorClient::GetSessionId() const {
    MutexLock lock(mutex_);
    return sessionId_;
}

void VantorClient::SetPersistentParameter(const std::string& key, const std::string& value) {
    if (key.empty()) return;
    MutexLock lock(mutex_);
    if (value.empty()) {
        persistent_.erase(key);
    } else {
        persistent_[key] = value;
    }
}

StringMap VantorClient::PersistentParameters() const {
    MutexLock lock(mutex_);
    return persistent_;
}

std::string VantorClient::BuildUrl(const OfferRequest& request, const StringMap& lifecycle, const StringMap& persistent,
                             const std::string& pcId, const std::string& sessionId) const {
    const std::string& client = config_.vantorClientCode;
    std::string url = "http://" + client + kVantorHostSuffix;
    url += "/m2/" + EscapeComponent(client);
    url += "/ubox/raw?mboxContentType=";
    url += "text%2Fplain%3Bcharset%3Dutf-8";
    url += "&t=" + std::to_string(clock_.NowSeconds());
    if (!pcId.empty() && !sessionId.empty()) {
        url += "&mboxXDomain=disabled&mboxSession=" + sessionId + "&mboxPC=" + pcId;
    }
    url += "&mboxDefault=none&mbox=" + EscapeComponent(request.name);
    AppendParameters(url, request.parameters);
    AppendParameters(url, lifecycle);
    AppendParameters(url, persistent);
    return url;
}

void VantorClient::LoadIdentifiers() {
    bool needPc, needSession;
    {
        MutexLock lock(mutex_);
        needPc = pcId_.empty();
        needSession = sessionId_.empty();
    }
    std::optional<std::string> pc = needPc ? LookupText(settings_, kPcIdKey) : std::nullopt;
    std::optional<std::string> session = needSession ? LookupText(settings_, kSessionIdKey) : std::nullopt;
    MutexLock lock(mutex_);
    if (pc && pcId_.empty()) pcId_ = *pc;
    if (session && sessionId_.empty()) sessionId_ = *session;
}

void VantorClient::StoreIdentifier(const char* key, const std::string& value) {
    {
        MutexLock lock(mutex_);
        (std::string(key) == kPcIdKey ? pcId_ : sessionId_) = value;
    }
    settings_.Insert(key, value);
}

std::string VantorClient::Load(const OfferRequest& request) {
    if (!gates_.Vantor()) {
        log_.Warning("Vantor - Your config file is not set up to use Vantor");
        return "";
    }
    // Nothing about the user leaves the device before consent, nor after an opt-out.
    if (const auto privacy = config_.Privacy(); privacy != kPrivacyOptIn) {
        log_.Debug("Vantor - Ignoring request due to privacy status being %s", PrivacyStatusText(privacy));
        return request.defaultContent;
    }
    if (request.name.empty()) {
        log_.Warning("Vantor - VantorLocationRequest parameter must have a location name");
        return request.defaultContent;
    }
    try {
        if (auto value = ValueText(sources_.lifetimeValue ? sources_.lifetimeValue() : 0.0f)) {
            SetPersistentParameter("a.ltv.amount", *value);
        }
        LoadIdentifiers();
        const StringMap lifecycle = sources_.lifecycleContext ? sources_.lifecycleContext() : StringMap{};
        const std::string pcId = GetPcId();
        const std::string sessionId = GetSessionId();
        const std::string url = BuildUrl(request, lifecycle, PersistentParameters(), pcId, sessionId);
        log_.Debug("Vantor - LocationRequest (%s) loading URL: %s", request.name.c_str(), url.c_str());

        // The platform-style "URI object" check: the URL must parse as an absolute URL with a host.
        if (const std::string error = UrlParseError(url); !error.empty()) {
            log_.Warning("Vantor - Unable to create URI object (%s)", error.c_str());
            return request.defaultContent;
        }
        RequestHandler handler(transport_, log_, url);
        const std::int64_t timeout = std::int64_t{config_.vantorTimeout} * 1000;
        handler.SetTimeout(static_cast<std::int32_t>(
            std::clamp<std::int64_t>(timeout, 0, std::numeric_limits<std::int32_t>::max())));
        if (!pcId.empty()) handler.SetCookie(kPcIdKey, pcId);
        if (!sessionId.empty()) handler.SetCookie(kSessionIdKey, sessionId);

        std::string text = handler.GetResponseText();
        if (handler.TimedOut()) {
            log_.Warning("Vantor - Request timed out");
            return request.defaultContent;
        }
        for (const char* key : {kPcIdKey, kSessionIdKey}) {
            auto cookie = handler.ResponseCookies().find(key);
            if (cookie != handler.ResponseCookies().end()) StoreIdentifier(key, cookie->second);
        }
        if (text.empty()) {
            log_.Debug("Vantor - LocationRequest (%s) response was empty", request.name.c_str());
            return request.defaultContent;
        }
        log_.Debug("Vantor - LocationRequest (%s) Result: %s", request.name.c_str(), text.c_str());
        return text;
    } catch (const TransportError& e) {
        log_.Warning("Vantor - Unexpected error getting response from server (%s)", DescribeHResult(e.Code()));
        return request.defaultContent;
    } catch (const std::exception& e) {
        log_.Warning("Vantor - Unexpected error getting response from server (%s)", e.what());
        return request.defaultContent;
    }
}

}  // namespace velmora

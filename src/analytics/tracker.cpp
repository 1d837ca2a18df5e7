#include "analytics/tracker.h"

#include "analytics/hit_queue.h"
#include "core/device.h"
#include "core/library_thread.h"

namespace velmora {
namespace {

constexpr const char* kActionKey = "a.action";
constexpr const char* kInternalActionKey = "a.internalaction";
constexpr const char* kPageNameKey = "pageName";
constexpr const char* kEventKey = "pe";
constexpr const char* kLinkEvent = "lnk_o";
constexpr const char* kActionNameKey = "pev2";

// T() rather than T{}: clang refuses a braced void.
template <class T>
T Await(std::future<T> future) {
    if (!future.valid()) return T();
    return future.get();
}

}  // namespace

AnalyticsTracker::AnalyticsTracker(const Logger& log, Clock& clock, ConfigSettings& config, ModuleGates& gates,
                                   SerialQueue& general, DeviceContext& device, HitQueue& hits, Executor& executor)
    : log_(log),
      clock_(clock),
      config_(config),
      gates_(gates),
      general_(general),
      device_(device),
      hits_(hits),
      queue_("Analytics", log, executor) {}

AnalyticsTracker::~AnalyticsTracker() { queue_.Shutdown(); }


bool AnalyticsTracker::PassesGate() {
    if (!gates_.Analytics()) {
        log_.Warning("Analytics - Your config file is not set up to use Analytics");
        return false;
    }
    return !OptedOut();
}

// Asked on the general queue, where the privacy setter runs too: a call made after an opt-out makes
// no hit, whichever module makes it.
bool AnalyticsTracker::OptedOut() {
    if (config_.Privacy() != kPrivacyOptOut) return false;
    log_.Debug("Analytics - Ignoring hit due to privacy status being opted out");
    return true;
}

// The timestamp is taken here, on the queue that runs the calls in order, so that timestamps rise
// with the hits' places in the queue.
void AnalyticsTracker::GatedTrackState(std::string state, StringMap contextData) {
    if (!PassesGate()) return;
    queue_.Post([this, state = std::move(state), contextData = std::move(contextData),
                 timestamp = clock_.NowSeconds()]() mutable { BuildState(state, std::move(contextData), timestamp); });
}

void AnalyticsTracker::GatedTrackAction(std::string action, StringMap contextData) {
    if (!PassesGate()) return;
    TrackAction(action, contextData);
}

void AnalyticsTracker::TrackAction(const std::string& name, const StringMap& contextData) {
    if (OptedOut()) return;
    queue_.Post([this, name, contextData, timestamp = clock_.NowSeconds()]() mutable {
        BuildAction(name, std::move(contextData), timestamp);
    });
}

void AnalyticsTracker::TrackInternalAction(const std::string& name, const StringMap& contextData,
                                           std::int32_t timestamp) {
    if (OptedOut()) return;
    if (timestamp < 1) timestamp = clock_.NowSeconds();
    queue_.Post([this, name, contextData, timestamp]() mutable {
        BuildInternalAction(name, std::move(contextData), timestamp);
    });
}

void AnalyticsTracker::BuildState(const std::string& state, StringMap contextData, std::int32_t timestamp) {
    StringMap variables{{kPageNameKey, state.empty() ? device_.GetApplicationId() : state}};
    BuildAndQueue(std::move(contextData), std::move(variables), timestamp);
}

void AnalyticsTracker::BuildAction(const std::string& action, StringMap contextData, std::int32_t timestamp) {
    contextData.emplace(kActionKey, action);
    StringMap variables{{kEventKey, kLinkEvent},
                        {kActionNameKey, "AMACTION:" + action},
                        {kPageNameKey, device_.GetApplicationId()}};
    BuildAndQueue(std::move(contextData), std::move(variables), timestamp);
}

void AnalyticsTracker::BuildInternalAction(const std::string& action, StringMap contextData,
                                           std::int32_t timestamp) {
    const std::string name = action.empty() ? "None" : action;
    contextData.emplace(kInternalActionKey, name);
    StringMap variables{{kEventKey, kLinkEvent},
                        {kActionNameKey, "VLMINTERNAL:" + name},
                        {kPageNameKey, device_.GetApplicationId()}};
    BuildAndQueue(std::move(contextData), std::move(variables), timestamp);
}

void AnalyticsTracker::BuildAndQueue(StringMap contextData, StringMap variables, std::int32_t timestamp) {
    HitFacts facts;
    facts.deviceContext = device_.GetContextData();
    facts.aid = device_.GetAid();
    facts.visitorId = device_.GetVisitorId();
    facts.charset = config_.charset;
    facts.offlineEnabled = config_.offlineEnabled;
    facts.privacyStatus = config_.Privacy();
    hits_.QueueHit(builder_.Build(std::move(contextData), std::move(variables), timestamp, facts), timestamp);
}

std::future<std::string> AnalyticsTracker::TrackingIdentifierAsync() {
    return queue_.Submit([this] { return device_.GetAid(); });
}

std::uint32_t AnalyticsTracker::QueueSize() {
    // From a host callback on one of the library's threads, waiting could close a cycle of
    // queues waiting for each other: that caller gets the count as it stands.
    if (OnLibraryThread()) return static_cast<std::uint32_t>(hits_.Size());
    // Each hop waits outside the queue it waits for.
    Await(general_.Submit([] {}));
    Await(queue_.Submit([] {}));
    return static_cast<std::uint32_t>(Await(hits_.SizeAfterPendingWork()));
}

}  // namespace velmora

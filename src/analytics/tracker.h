#pragma once

#include "analytics/hit_builder.h"
#include "core/actions.h"
#include "core/clock.h"
#include "core/config.h"
#include "core/log.h"
#include "core/serial_queue.h"

#include <cstdint>
#include <future>
#include <memory>
#include <string>

namespace velmora {

class DeviceContext;
class HitQueue;

// States and actions. Calls of the application pass the analytics gate on the general queue, take
// their timestamp there and then move to the analytics queue, where hits are built one at a time
// and handed to the hit queue. Every module that makes hits runs on the general queue too, so calls
// made in order on one thread become hits in that order, whichever module builds them. Other
// modules send their hits through the ActionTracker side, which skips the configuration gate (they
// have applied their own) but not the opt-out.
class AnalyticsTracker : public ActionTracker {
public:
    AnalyticsTracker(const Logger& log, Clock& clock, ConfigSettings& config, ModuleGates& gates, SerialQueue& general,
                     DeviceContext& device, HitQueue& hits, Executor& executor);
    ~AnalyticsTracker();

    bool Flush(std::chrono::milliseconds timeout) { return queue_.Drain(timeout); }
    void Shutdown() { queue_.Shutdown(); }

    // The application's calls, run on the general queue: the gate, then building on the analytics
    // queue.
    void GatedTrackState(std::string state, StringMap contextData);
    void GatedTrackAction(std::string action, StringMap contextData);

    // ActionTracker: straight to the analytics queue.
    void TrackAction(const std::string& name, const StringMap& contextData) override;
    void TrackInternalAction(const std::string& name, const StringMap& contextData, std::int32_t timestamp) override;

    // Not configured: a warning; opted out: a debug line. True when the call may go on.
    bool PassesGate();
    // Opted out: a debug line.
    bool OptedOut();

    std::future<std::string> TrackingIdentifierAsync();
    // Waits for the general queue, then the analytics queue, then the hit queue's own work, so
    // that every hit of an earlier call is counted. Safe on any of those queues' threads.
    std::uint32_t QueueSize();

    SerialQueue& Queue() { return queue_; }

private:
    void BuildState(const std::string& state, StringMap contextData, std::int32_t timestamp);
    void BuildAction(const std::string& action, StringMap contextData, std::int32_t timestamp);
    void BuildInternalAction(const std::string& action, StringMap contextData, std::int32_t timestamp);
    void BuildAndQueue(StringMap contextData, StringMap variables, std::int32_t timestamp);

    const Logger& log_;
    Clock& clock_;
    ConfigSettings& config_;
    ModuleGates& gates_;
    SerialQueue& general_;
    DeviceContext& device_;
    HitQueue& hits_;
    HitBuilder builder_;  // analytics queue only
    SerialQueue queue_;
};

}  // namespace velmora

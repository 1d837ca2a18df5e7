#pragma once

#include "core/clock.h"
#include "core/config.h"
#include "core/http.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/serial_queue.h"
#include "core/settings_store.h"

#include <functional>
#include <future>
#include <mutex>
#include <string>

namespace velmora {

// The service's parameter and cookie names, which applications use as keys too.
inline constexpr const char* kPcIdKey = "mboxPC";
inline constexpr const char* kSessionIdKey = "mboxSession";
inline constexpr const char* kHostKey = "mboxHost";
inline constexpr const char* kOrderIdKey = "orderId";
inline constexpr const char* kOrderTotalKey = "orderTotal";
inline constexpr const char* kProductPurchasedIdKey = "productPurchasedId";
inline constexpr const char* kCategoryIdKey = "categoryId";
inline constexpr const char* kThirdPartyIdKey = "mbox3rdPartyId";
inline constexpr const char* kPageValueKey = "mboxPageValue";
// The offer service's hosts are "<client code>" + this suffix; developers route it with connectTo.
inline constexpr const char* kVantorHostSuffix = ".tt.vantor.example";

struct OfferRequest {
    std::string name;
    std::string defaultContent;
    StringMap parameters;  // already translated to text
};

// Asks the offer service for the content of a named location, keeping the service's visitor and
// session identifiers across requests and runs. Loads run on the module's own queue; every
// failure gives the request's default content.
class VantorClient {
public:
    struct Sources {
        std::function<StringMap()> lifecycleContext;  // the current session's lifecycle values
        std::function<float()> lifetimeValue;
    };

    VantorClient(const ConfigSettings& config, ModuleGates& gates, SettingsStore& settings, Transport& transport,
           Clock& clock, const Logger& log, Sources sources, Executor& executor);
    bool Flush(std::chrono::milliseconds timeout) { return queue_.Drain(timeout); }
    void Shutdown() { queue_.Shutdown(); }

    // Completes with the content, or the default content; never fails.
    std::future<std::string> LoadRequest(OfferRequest request);
    void ClearCookies();
    SerialQueue& Queue() { return queue_; }
    std::string GetPcId() const;
    std::string GetSessionId() const;

    // A non-empty value sets the key, an empty value removes it; an empty key is ignored.
    void SetPersistentParameter(const std::string& key, const std::string& value);
    StringMap PersistentParameters() const;

    // The request URL, in the service's order; exposed for tests.
    std::string BuildUrl(const OfferRequest& request, const StringMap& lifecycle, const StringMap& persistent,
                         const std::string& pcId, const std::string& sessionId) const;

private:
    std::string Load(const OfferRequest& request);
    void LoadIdentifiers();
    void StoreIdentifier(const char* key, const std::string& value);

    const ConfigSettings& config_;
    ModuleGates& gates_;
    SettingsStore& settings_;
    Transport& transport_;
    Clock& clock_;
    const Logger& log_;
    Sources sources_;

    mutable Mutex mutex_;
    std::string pcId_ GUARDED_BY(mutex_);
    std::string sessionId_ GUARDED_BY(mutex_);
    StringMap persistent_ GUARDED_BY(mutex_);
    SerialQueue queue_;
};

}  // namespace velmora

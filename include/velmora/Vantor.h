#pragma once

/// @file
/// Offer requests to the personalisation service.

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <future>
#include <memory>
#include <string>

namespace Velmora {

/// One offer request: which location (mbox) to ask for, what to show when there is no offer, and
/// extra parameters. Build it with Vantor::CreateRequest() or Vantor::CreateOrderConfirmRequest().
struct VantorLocationRequest {
    /// @var Name
    /// The location (mbox) name; required.
    /// @var DefaultContent
    /// What Vantor::LoadRequest() yields when the service gives nothing.
    std::string Name, DefaultContent;
    /// Parameters sent with the request, as texts (see Object); an entry with an empty key or
    /// value is left out. The Vantor key functions name the ones the service knows.
    ObjectMap Parameters;
};

/// Offer requests to the personalisation service ("vantor" in the configuration).
///
/// Any thread may call these; none of them throws. Requests go to the host named by the
/// configuration's "clientCode" over plain HTTP, carry the session's lifecycle values, the last
/// location's point of interest and the lifetime value, and keep the service's visitor cookies
/// ("mboxPC", "mboxSession") across runs. Without a "clientCode", offers are off.
class VELMORA_API Vantor {
public:
    /// @fn OrderIdKey
    /// Parameter name of an order's identifier.
    /// @return "orderId".
    /// @fn OrderTotalKey
    /// Parameter name of an order's total.
    /// @return "orderTotal".
    static std::string OrderIdKey();    static std::string OrderTotalKey();
    /// @fn ProductPurchasedIdKey
    /// Parameter name of the purchased products' identifiers.
    /// @return "productPurchasedId".
    /// @fn CategoryIdKey
    /// Parameter name of a category.
    /// @return "categoryId".
    static std::string ProductPurchasedIdKey();  static std::string CategoryIdKey();
    /// @fn ThirdPartyIdKey
    /// Parameter name of the application's own visitor identifier.
    /// @return "mbox3rdPartyId".
    /// @fn PageValueKey
    /// Parameter name of a page's value.
    /// @return "mboxPageValue".
    static std::string ThirdPartyIdKey();  static std::string PageValueKey();
    /// @fn PcKey
    /// Name of the visitor cookie (see GetPcId()).
    /// @return "mboxPC".
    /// @fn SessionKey
    /// Name of the session cookie (see GetSessionId()).
    /// @return "mboxSession".
    /// @fn HostKey
    /// Parameter name of the host.
    /// @return "mboxHost".
    static std::string PcKey();  static std::string SessionKey();  static std::string HostKey();
    /// Asks the service for a location's content. The request waits behind the offer requests
    /// before it and then takes at most the configuration's "timeout" seconds (2 when absent).
    /// Only while the privacy status is OptIn is a request sent: under OptOut or Unknown nothing
    /// leaves the device.
    /// @param request the request; null yields the empty string.
    /// @return a future that completes with the answer's text; with the request's DefaultContent
    ///   when the answer is empty, the request fails or times out, the request has no Name, or the
    ///   privacy status is not OptIn; with
    ///   the empty string when the request is null, offers are off, or the library cannot answer.
    ///   The future never throws.
    static std::future<std::string> LoadRequest(std::shared_ptr<VantorLocationRequest> request);
    /// A new request. Returns at once.
    /// @param name the location (mbox) name.
    /// @param defaultContent what LoadRequest() yields when the service gives nothing.
    /// @param parameters parameters sent with the request.
    /// @return the request; null only when the library cannot allocate one.
    static std::shared_ptr<VantorLocationRequest> CreateRequest(const std::string& name,
        const std::string& defaultContent, const ObjectMap& parameters);
    /// A new request that reports a completed order: no default content, and the parameters
    /// "orderId", "orderTotal" and "productPurchasedId" added to (or replacing those of) the given
    /// ones. Returns at once.
    /// @param name the location (mbox) name.
    /// @param orderId the order's identifier.
    /// @param orderTotal the order's total, as text.
    /// @param productPurchasedId the purchased products' identifiers.
    /// @param parameters further parameters.
    /// @return the request; null only when the library cannot allocate one.
    static std::shared_ptr<VantorLocationRequest> CreateOrderConfirmRequest(const std::string& name,
        const std::string& orderId, const std::string& orderTotal,
        const std::string& productPurchasedId, const ObjectMap& parameters);
    /// Forgets the service's visitor and session identifiers, in memory and in the local
    /// directory; the next answer issues new ones. Returns at once; the work is queued behind the
    /// requests before it. Without a "clientCode" it only logs a warning.
    static void ClearCookies();
    /// The service's visitor identifier ("mboxPC" cookie). Answers at once from memory.
    /// @return the identifier; empty until a request of this process has read the stored one or
    ///   the service has set it.
    static std::string GetPcId();
    /// The service's session identifier ("mboxSession" cookie). Answers at once from memory.
    /// @return the identifier; empty until a request of this process has read the stored one or
    ///   the service has set it.
    static std::string GetSessionId();
};

}  // namespace Velmora

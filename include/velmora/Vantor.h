#pragma once

#include <velmora/Export.h>
#include <velmora/Types.h>

#include <future>
#include <memory>
#include <string>

namespace Velmora {

struct VantorLocationRequest {
    std::string Name, DefaultContent;
    ObjectMap Parameters;
};

class VELMORA_API Vantor {
public:
    static std::string OrderIdKey();    static std::string OrderTotalKey();
    static std::string ProductPurchasedIdKey();  static std::string CategoryIdKey();
    static std::string ThirdPartyIdKey();  static std::string PageValueKey();
    static std::string PcKey();  static std::string SessionKey();  static std::string HostKey();
    // Completes with the offer content, or the request's default content when there is none.
    static std::future<std::string> LoadRequest(std::shared_ptr<VantorLocationRequest> request);
    static std::shared_ptr<VantorLocationRequest> CreateRequest(const std::string& name,
        const std::string& defaultContent, const ObjectMap& parameters);
    static std::shared_ptr<VantorLocationRequest> CreateOrderConfirmRequest(const std::string& name,
        const std::string& orderId, const std::string& orderTotal,
        const std::string& productPurchasedId, const ObjectMap& parameters);
    static void ClearCookies();
    static std::string GetPcId();
    static std::string GetSessionId();
};

}  // namespace Velmora

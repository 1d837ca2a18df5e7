#include <velmora/Vantor.h>

#include "analytics/values.h"
#include "api/guard.h"
#include "core/runtime.h"
#include "vantor/vantor.h"

namespace Velmora {

using velmora::Runtime;

std::string Vantor::OrderIdKey() { return "orderId"; }
std::string Vantor::OrderTotalKey() { return "orderTotal"; }
std::string Vantor::ProductPurchasedIdKey() { return "productPurchasedId"; }
std::string Vantor::CategoryIdKey() { return "categoryId"; }
std::string Vantor::ThirdPartyIdKey() { return "mbox3rdPartyId"; }
std::string Vantor::PageValueKey() { return "mboxPageValue"; }
std::string Vantor::PcKey() { return "mboxPC"; }
std::string Vantor::SessionKey() { return "mboxSession"; }
std::string Vantor::HostKey() { return "mboxHost"; }

std::future<std::string> Vantor::LoadRequest(std::shared_ptr<VantorLocationRequest> request) {
    return velmora::GuardFuture<std::string>([&] {
        auto& runtime = Runtime::Process();
        if (!request) {
            runtime.Log().Debug("Vantor - Attempted to Load a null request, returning empty string");
            std::promise<std::string> empty;
            empty.set_value("");
            return empty.get_future();
        }
        velmora::OfferRequest offer{request->Name, request->DefaultContent,
                                    velmora::TranslateContextData(request->Parameters, runtime.Log())};
        return runtime.Get<velmora::Vantor>().LoadRequest(std::move(offer));
    });
}

std::shared_ptr<VantorLocationRequest> Vantor::CreateRequest(const std::string& name,
                                                             const std::string& defaultContent,
                                                             const ObjectMap& parameters) {
    return velmora::Guard(std::shared_ptr<VantorLocationRequest>(), [&] {
        return std::make_shared<VantorLocationRequest>(VantorLocationRequest{name, defaultContent, parameters});
    });
}

std::shared_ptr<VantorLocationRequest> Vantor::CreateOrderConfirmRequest(const std::string& name,
                                                                         const std::string& orderId,
                                                                         const std::string& orderTotal,
                                                                         const std::string& productPurchasedId,
                                                                         const ObjectMap& parameters) {
    return velmora::Guard(std::shared_ptr<VantorLocationRequest>(), [&] {
        auto request = std::make_shared<VantorLocationRequest>(VantorLocationRequest{name, "", parameters});
        request->Parameters.insert_or_assign("orderId", orderId);
        request->Parameters.insert_or_assign("orderTotal", orderTotal);
        request->Parameters.insert_or_assign("productPurchasedId", productPurchasedId);
        return request;
    });
}

void Vantor::ClearCookies() {
    velmora::Guard([] { Runtime::Process().Get<velmora::Vantor>().ClearCookies(); });
}

std::string Vantor::GetPcId() {
    return velmora::Guard(std::string(), [] { return Runtime::Process().Get<velmora::Vantor>().GetPcId(); });
}

std::string Vantor::GetSessionId() {
    return velmora::Guard(std::string(), [] { return Runtime::Process().Get<velmora::Vantor>().GetSessionId(); });
}

}  // namespace Velmora

#include <velmora/Vantor.h>

#include "analytics/values.h"
#include "api/guard.h"
#include "vantor/vantor.h"

namespace Velmora {

using velmora::Runtime;

std::string Vantor::OrderIdKey() { return velmora::kOrderIdKey; }
std::string Vantor::OrderTotalKey() { return velmora::kOrderTotalKey; }
std::string Vantor::ProductPurchasedIdKey() { return velmora::kProductPurchasedIdKey; }
std::string Vantor::CategoryIdKey() { return velmora::kCategoryIdKey; }
std::string Vantor::ThirdPartyIdKey() { return velmora::kThirdPartyIdKey; }
std::string Vantor::PageValueKey() { return velmora::kPageValueKey; }
std::string Vantor::PcKey() { return velmora::kPcIdKey; }
std::string Vantor::SessionKey() { return velmora::kSessionIdKey; }
std::string Vantor::HostKey() { return velmora::kHostKey; }

std::future<std::string> Vantor::LoadRequest(std::shared_ptr<VantorLocationRequest> request) {
    std::optional<velmora::OfferRequest> offer;
    velmora::Call([&](Runtime& runtime) {
        if (!request) {
            runtime.Log().Debug("Vantor - Attempted to Load a null request, returning empty string");
            return;
        }
        offer = velmora::OfferRequest{velmora::ToValidUtf8(request->Name), velmora::ToValidUtf8(request->DefaultContent),
                                      velmora::TranslateContextData(request->Parameters, runtime.Log())};
    });
    if (!offer) return velmora::ReadyFuture<std::string>(request ? request->DefaultContent : "");
    std::string fallback = offer->defaultContent;
    return velmora::PostForResult<std::string>(
        std::move(fallback), [offer = std::move(*offer)](Runtime& runtime, auto completion) mutable {
            auto& vantor = runtime.GetVantorClient();
            velmora::CompleteAfter(vantor.Queue(), vantor.LoadRequest(std::move(offer)), completion);
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
        request->Parameters.insert_or_assign(velmora::kOrderIdKey, orderId);
        request->Parameters.insert_or_assign(velmora::kOrderTotalKey, orderTotal);
        request->Parameters.insert_or_assign(velmora::kProductPurchasedIdKey, productPurchasedId);
        return request;
    });
}

void Vantor::ClearCookies() {
    velmora::Post([](Runtime& runtime) { runtime.GetVantorClient().ClearCookies(); });
}

// The identifiers are read from storage by the first load; before the module exists there is none.
std::string Vantor::GetPcId() {
    return velmora::Call(std::string(), [](Runtime& runtime) {
        auto* vantor = runtime.VantorClientIfCreated();
        return vantor != nullptr ? vantor->GetPcId() : std::string();
    });
}

std::string Vantor::GetSessionId() {
    return velmora::Call(std::string(), [](Runtime& runtime) {
        auto* vantor = runtime.VantorClientIfCreated();
        return vantor != nullptr ? vantor->GetSessionId() : std::string();
    });
}

}  // namespace Velmora

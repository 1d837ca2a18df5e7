// The C interface's offers and audience signals.
#include "api/c_api_support.h"

#include "cohorta/cohorta.h"
#include "vantor/vantor.h"

using velmora::Runtime;
using velmora::c_api::Continue;
using velmora::c_api::Copy;
using velmora::c_api::Objects;
using velmora::c_api::Text;

namespace {

using ContentDone = void (*)(const char* content, void* user_data);

velmora::SerialQueue& OfferQueue(Runtime& runtime) { return runtime.GetVantorClient().Queue(); }
velmora::SerialQueue& AudienceQueue(Runtime& runtime) { return runtime.GetCohortaClient().Queue(); }

void Load(std::shared_ptr<Velmora::VantorLocationRequest> request, ContentDone done, void* user_data) {
    // The answer a stopped library gives: the request's default content.
    std::string fallback = request ? request->DefaultContent : "";
    auto content = Velmora::Vantor::LoadRequest(std::move(request));
    if (done == nullptr) return;
    Continue<std::string>(std::move(content), std::move(fallback), OfferQueue,
                          [done, user_data](const std::string& value) { done(value.c_str(), user_data); });
}

}  // namespace

extern "C" {

void velmora_vantor_load_request(const char* name, const char* default_content, const velmora_map_t* parameters,
                                 ContentDone done, void* user_data) {
    velmora::Guard([&] {
        Load(Velmora::Vantor::CreateRequest(Text(name), Text(default_content), Objects(parameters)), done, user_data);
    });
}

void velmora_vantor_load_order_confirm_request(const char* name, const char* order_id, const char* order_total,
                                               const char* product_purchased_id, const velmora_map_t* parameters,
                                               ContentDone done, void* user_data) {
    velmora::Guard([&] {
        Load(Velmora::Vantor::CreateOrderConfirmRequest(Text(name), Text(order_id), Text(order_total),
                                                        Text(product_purchased_id), Objects(parameters)),
             done, user_data);
    });
}

void velmora_vantor_clear_cookies(void) { Velmora::Vantor::ClearCookies(); }

char* velmora_vantor_get_pc_id(void) { return Copy(Velmora::Vantor::GetPcId()); }

char* velmora_vantor_get_session_id(void) { return Copy(Velmora::Vantor::GetSessionId()); }

velmora_map_t* velmora_cohorta_get_visitor_profile(void) {
    return velmora::Guard(static_cast<velmora_map_t*>(nullptr), [] {
        auto profile = Velmora::Cohorta::GetVisitorProfile();
        return profile ? velmora::c_api::MapOf(*profile).release() : nullptr;
    });
}

char* velmora_cohorta_get_dpid(void) { return Copy(Velmora::Cohorta::GetDpid()); }

char* velmora_cohorta_get_dpuuid(void) { return Copy(Velmora::Cohorta::GetDpuuid()); }

void velmora_cohorta_set_dpid_and_dpuuid(const char* dpid, const char* dpuuid) {
    velmora::Guard([&] { Velmora::Cohorta::SetDpidAndDpuuid(Text(dpid), Text(dpuuid)); });
}

void velmora_cohorta_submit_signal(const velmora_map_t* traits,
                                   void (*done)(const velmora_map_t* profile, void* user_data), void* user_data) {
    using Profile = std::optional<Velmora::StringMap>;
    velmora::Guard([&] {
        auto profile = Velmora::Cohorta::SubmitSignal(Objects(traits));
        if (done == nullptr) return;
        Continue<Profile>(std::move(profile), std::nullopt, AudienceQueue, [done, user_data](const Profile& value) {
            auto map = value ? velmora::c_api::MapOf(*value) : nullptr;
            done(map.get(), user_data);
        });
    });
}

}  // extern "C"

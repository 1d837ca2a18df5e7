#include <velmora/Vantor.h>

#include <gtest/gtest.h>

namespace {

using Velmora::Object;
using Velmora::ObjectMap;
using Velmora::Vantor;

// An order confirmation carries its three order values under the service's keys, over any the
// caller put in its parameters; nothing is loaded, so no library thread starts.
TEST(VantorApi, AnOrderConfirmationCarriesItsOrderValuesUnderTheServiceKeys) {
    const ObjectMap parameters{{"orderId", std::string("caller")}, {"color", std::string("red")}, {"qty", 2}};
    const auto request = Vantor::CreateOrderConfirmRequest("thanks", "o-17", "9.90", "p-3", parameters);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->Name, "thanks");
    EXPECT_EQ(request->DefaultContent, "");
    EXPECT_EQ(request->Parameters, (ObjectMap{{"orderId", std::string("o-17")},
                                              {"orderTotal", std::string("9.90")},
                                              {"productPurchasedId", std::string("p-3")},
                                              {"color", std::string("red")}, {"qty", 2}}));
    const auto plain = Vantor::CreateRequest("home", "fallback", parameters);
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(std::make_tuple(plain->Name, plain->DefaultContent, plain->Parameters),
              std::make_tuple(std::string("home"), std::string("fallback"), parameters));
}

}  // namespace

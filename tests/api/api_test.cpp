#include "core/device.h"
#include "lifecycle/lifecycle.h"
#include "support/test_support.h"

#include <velmora/Velmora.h>

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <thread>

namespace velmora {
namespace {

using Velmora::Config;
using Velmora::VelmoraPrivacyStatus;

// The test runtime lends its directories and log to the process-wide one; Restart() makes a later
// run's runtime.
struct ConfigApi : ::testing::Test {
    void Start(const std::string& config) { ASSERT_TRUE(t.ConfigureProcess(config)); }
    test::TestRuntime t;
};

// The version needs no configuration: asking for it does not start the library, which Start() shows.
TEST_F(ConfigApi, PrivacyStatusKeepsAnInvalidValueInMemoryOnlyAndStoresTheRest) {
    EXPECT_EQ(Config::GetVersion(), VELMORA_VERSION_STRING);
    Start(R"({"analytics":{"privacyDefault":"optedin"}})");
    Config::SetDebugLogging(true);  // the warnings below show that it took effect
    Config::SetPrivacyStatus(VelmoraPrivacyStatus::OptOut);
    EXPECT_EQ(Config::GetPrivacyStatusAsync().get(), VelmoraPrivacyStatus::OptOut);
    EXPECT_TRUE(Config::GetDebugLogging());
    Config::SetPrivacyStatus(VelmoraPrivacyStatus::Unknown);  // refused without offline tracking
    Config::SetPrivacyStatus(static_cast<VelmoraPrivacyStatus>(7));
    EXPECT_EQ(static_cast<int>(Config::GetPrivacyStatusAsync().get()), 7);
    ASSERT_TRUE(Velmora::Host::Flush(std::chrono::seconds(10)));
    EXPECT_EQ(t.Restart()->GetConfigSettings().Privacy(), kPrivacyOptOut);
    EXPECT_TRUE(t.log.Contains("Velmora Warning:Analytics - Cannot set privacy status to unknown when offline tracking is disabled."));
    EXPECT_TRUE(t.log.Contains("Velmora Warning:Analytics - Invalid privacy status was ignored (7)"));
    EXPECT_FALSE(Velmora::Host::Configure({}));
    EXPECT_TRUE(t.log.Contains("Velmora Warning:Config - Host options were ignored because the library has already started"));
}

// The identifier and the lifecycle calls return at once; what their background work stores is
// what the next run finds.
TEST_F(ConfigApi, IdentifierAndLifecycleCallsStoreTheirStateInTheBackground) {
    Start("{}");
    EXPECT_EQ(Config::GetUserIdentifier(), "");
    Config::SetUserIdentifier("user-42");
    Config::CollectLifecycleData();
    ASSERT_TRUE(Velmora::Host::Flush(std::chrono::seconds(10)));
    EXPECT_EQ(Config::GetUserIdentifier(), "user-42");
    EXPECT_EQ(LookupText(t.Restart()->GetSettingsStore(), kVisitorIdKey), "user-42");
    EXPECT_FALSE(LookupText(t.Restart()->GetSettingsStore(), kPauseDateKey));
    Config::PauseCollectingLifecycleData();
    ASSERT_TRUE(Velmora::Host::Flush(std::chrono::seconds(10)));
    EXPECT_TRUE(LookupText(t.Restart()->GetSettingsStore(), kPauseDateKey));
}

// A toolkit's window is reachable from its own thread only: the size is asked for once, on the
// thread of the first call that needs it.
TEST(HostApi, TheWindowSizeIsAskedForOnTheThreadOfTheFirstCallThatNeedsIt) {
    using Velmora::Analytics;
    const std::function<void()> firstCalls[] = {
        [] { Config::CollectLifecycleData(); }, [] { Analytics::TrackState("s"); },
        [] { Analytics::TrackAction("a"); }, [] { Analytics::TrackLocation(1, 2, 3); },
        [] { Analytics::TrackLifetimeValueIncrease(1); }, [] { Analytics::TrackTimedActionEnd("t"); }};
    for (const auto& call : firstCalls) {
        test::TestRuntime process;
        std::mutex mutex;
        std::vector<std::thread::id> askedOn;
        HostOptions options;
        options.windowSize = [&]() -> std::optional<std::pair<double, double>> {
            std::lock_guard lock(mutex);
            askedOn.push_back(std::this_thread::get_id());
            return std::nullopt;
        };
        ASSERT_TRUE(process.ConfigureProcess(R"({"analytics":{"rsids":"r","server":"s","offlineEnabled":true,"privacyDefault":"optunknown"}})", options));
        call();
        call();
        Velmora::Host::Flush(std::chrono::seconds(10));
        std::lock_guard lock(mutex);
        EXPECT_EQ(askedOn, std::vector<std::thread::id>{std::this_thread::get_id()}) << &call - firstCalls;
    }
}

// An order confirmation carries its three order values under the service's keys, over any the
// caller put in its parameters; nothing is loaded, so no library thread starts.
TEST(VantorApi, AnOrderConfirmationCarriesItsOrderValuesUnderTheServiceKeys) {
    using Velmora::ObjectMap;
    using Velmora::Vantor;
    const ObjectMap parameters{{"orderId", std::string("caller")}, {"color", std::string("red")}, {"qty", 2}};
    const auto order = Vantor::CreateOrderConfirmRequest("thanks", "o-17", "9.90", "p-3", parameters);
    const auto plain = Vantor::CreateRequest("home", "fallback", parameters);
    ASSERT_TRUE(order && plain);
    EXPECT_EQ(std::tie(order->Name, order->DefaultContent, plain->Name, plain->DefaultContent, plain->Parameters),
              std::make_tuple("thanks", "", "home", "fallback", parameters));
    EXPECT_EQ(order->Parameters, (ObjectMap{{"orderId", std::string("o-17")}, {"orderTotal", std::string("9.90")},
                                            {"productPurchasedId", std::string("p-3")}, {"color", std::string("red")},
                                            {"qty", 2}}));
}

}  // namespace
}  // namespace velmora

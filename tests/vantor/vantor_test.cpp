#include "core/device.h"
#include "support/loopback_server.h"
#include "support/test_support.h"
#include "vantor/vantor.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

const std::string kHost = std::string("acme") + kVantorHostSuffix;
const std::string kPrefix = "/m2/acme/ubox/raw?mboxContentType=text%2Fplain%3Bcharset%3Dutf-8&t=1426000000";

class Offers : public ::testing::Test {
protected:
    Offers() {
        log.SetDebugEnabled(true);
        config.vantorClientCode = "acme";
        config.vantorTimeout = 1;
        config.privacyStatus = kPrivacyOptIn;
    }
    // A module on the local directory's settings, as each run of the application makes it.
    std::unique_ptr<VantorClient> Make() {
        store = std::make_unique<SettingsStore>(local.path(), log);
        return std::make_unique<VantorClient>(config, gates, *store, http, clock, log,
                                        VantorClient::Sources{[this] { return lifecycle; }, [this] { return ltv; }}, executor);
    }
    test::LoopbackServer server;
    test::TempDir local;
    test::LogCapture capture;
    Logger log{capture.Sink()};
    Executor executor;
    ConfigSettings config;
    ModuleGates gates{config};
    ManualClock clock{1'426'000'000'000};
    HttpClient http{log, {kHost + ":80:" + server.Address()}, clock};
    std::unique_ptr<SettingsStore> store;
    StringMap lifecycle;
    float ltv = 0;
};

TEST_F(Offers, IdentifiersOfAnAnswerGoBackAsUrlPartsAndCookiesInTheNextRunUntilCleared) {
    server.OnGet([](const httplib::Request&, httplib::Response& response) {
        response.headers.emplace("Set-Cookie", "mboxPC=pc-1; Path=/");
        response.headers.emplace("Set-Cookie", "mboxSession=s-9; Path=/");
        response.set_content("<offer/>", "text/plain");
    });
    auto vantor = Make();
    EXPECT_EQ(vantor->LoadRequest({"home", "fallback", {}}).get(), "<offer/>");
    EXPECT_EQ(vantor->GetPcId() + " " + vantor->GetSessionId(), "pc-1 s-9");
    vantor.reset();
    vantor = Make();
    vantor->LoadRequest({"home", "fallback", {}}).get();
    vantor->ClearCookies();
    ASSERT_TRUE(vantor->Flush(std::chrono::seconds(10)));
    EXPECT_FALSE(store->HasKey(kPcIdKey) || store->HasKey(kSessionIdKey) || !vantor->GetPcId().empty());
    vantor->LoadRequest({"home", "fallback", {}}).get();
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].Header("Host"), kHost);
    for (std::size_t i : {0, 2}) EXPECT_EQ(requests[i].target + requests[i].Header("Cookie"), kPrefix + "&mboxDefault=none&mbox=home&a.ltv.amount=0");
    EXPECT_EQ(requests[1].target, kPrefix + "&mboxXDomain=disabled&mboxSession=s-9&mboxPC=pc-1&mboxDefault=none&mbox=home&a.ltv.amount=0");
    EXPECT_EQ(requests[1].Header("Cookie"), "mboxPC=pc-1; mboxSession=s-9");
    EXPECT_TRUE(capture.Contains("Velmora Debug:Vantor - LocationRequest (home) Result: <offer/>"));
}

TEST_F(Offers, ParametersComeInGroupsInKeyOrderEscapedAndEmptyOnesDropped) {
    auto vantor = Make();
    lifecycle = {{"a.Launches", "3"}, {"a.empty", ""}};
    ltv = 12.5f;
    vantor->SetPersistentParameter("a.loc.poi", "Main St");
    vantor->SetPersistentParameter("", "ignored");
    vantor->LoadRequest({"cart & more", "d", {{"x y", "1"}, {"a", ""}, {"", "v"}, {"b", "ü"}}}).get();
    EXPECT_EQ(server.Targets(), std::vector<std::string>{kPrefix + "&mboxDefault=none&mbox=cart%20%26%20more&b=%C3%BC&x%20y=1"
                                                         "&a.Launches=3&a.loc.poi=Main%20St&a.ltv.amount=12.5"});
}

TEST_F(Offers, FailuresGiveTheDefaultContentWithTheirLine) {
    auto vantor = Make();
    server.Script({500});
    EXPECT_EQ(vantor->LoadRequest({"error", "dflt", {}}).get(), "dflt");
    EXPECT_EQ(vantor->LoadRequest({"empty", "dflt", {}}).get(), "dflt");
    EXPECT_TRUE(capture.Contains("Velmora Debug:Vantor - LocationRequest (empty) response was empty"));
    server.OnGet([this](const httplib::Request&, httplib::Response&) { server.Hold(); });
    EXPECT_EQ(vantor->LoadRequest({"slow", "dflt", {}}).get(), "dflt");
    EXPECT_TRUE(capture.Contains("Velmora Warning:Vantor - Request timed out"));
    config.vantorTimeout = 0;  // runs out at once, not never
    auto zero = vantor->LoadRequest({"zero", "dflt", {}});
    const bool done = zero.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    server.Release();
    EXPECT_TRUE(done && zero.get() == "dflt");
    config.vantorTimeout = 1;
    EXPECT_EQ(vantor->LoadRequest({"", "named-default", {}}).get(), "named-default");
    EXPECT_TRUE(capture.Contains("Velmora Warning:Vantor - VantorLocationRequest parameter must have a location name"));
    config.vantorClientCode = "bad host";
    EXPECT_EQ(vantor->LoadRequest({"home", "dflt", {}}).get(), "dflt");
    EXPECT_EQ(capture.Lines().back().rfind("Velmora Warning:Vantor - Unable to create URI object (", 0), 0u);
    EXPECT_EQ(server.Count(), 3u) << "an empty name or a bad URL makes no request";
    ConfigSettings none;
    ModuleGates closed{none};
    EXPECT_EQ(VantorClient(none, closed, *store, http, clock, log, {}, executor).LoadRequest({"home", "dflt", {}}).get(), "") << "not configured";
    EXPECT_TRUE(capture.Contains("Velmora Warning:Vantor - Your config file is not set up to use Vantor"));
}

}  // namespace
}  // namespace velmora

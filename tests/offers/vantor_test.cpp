#include "support/loopback_server.h"
#include "support/test_support.h"
#include "vantor/vantor.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using test::LogCapture;
using test::LoopbackServer;
using test::TempDir;

constexpr const char* kClient = "acme";
const std::string kHost = std::string(kClient) + kVantorHostSuffix;

class Offers : public ::testing::Test {
protected:
    Offers() : log(capture.Sink()) {
        log.SetDebugEnabled(true);
        config.vantorClientCode = kClient;
        config.vantorTimeout = 2;
    }
    std::unique_ptr<Vantor> Make(SettingsStore& store) {
        http = std::make_unique<HttpClient>(log, std::vector<std::string>{
                                                     kHost + ":80:127.0.0.1:" + std::to_string(server.Port())});
        return std::make_unique<Vantor>(config, gates, store, *http, clock, log,
                                        Vantor::Sources{[this] { return lifecycle; }, [this] { return ltv; }});
    }
    std::string Prefix() const {
        return "/m2/acme/ubox/raw?mboxContentType=text%2Fplain%3Bcharset%3Dutf-8&t=" +
               std::to_string(clock.NowSeconds());
    }

    LoopbackServer server;
    TempDir local;
    LogCapture capture;
    Logger log;
    ConfigSettings config;
    ModuleGates gates{config};
    ManualClock clock{1'426'000'000'000};
    std::unique_ptr<HttpClient> http;
    StringMap lifecycle;
    float ltv = 0;
};

TEST_F(Offers, IdentifiersFromTheFirstAnswerGoBackAsUrlPartsAndCookiesAndSurviveARestart) {
    server.OnGet([](const httplib::Request&, httplib::Response& response) {
        response.set_header("Set-Cookie", "mboxPC=pc-1; Path=/");
        response.headers.emplace("Set-Cookie", "mboxSession=s-9; Path=/");
        response.set_content("<offer/>", "text/plain");
    });
    {
        SettingsStore store(local.path(), log);
        auto vantor = Make(store);
        EXPECT_EQ(vantor->LoadRequest({"home", "fallback", {}}).get(), "<offer/>");
        EXPECT_EQ(vantor->GetPcId(), "pc-1");
        EXPECT_EQ(vantor->GetSessionId(), "s-9");
        vantor->Shutdown();
    }
    SettingsStore store(local.path(), log);
    auto vantor = Make(store);
    EXPECT_EQ(vantor->GetPcId(), "") << "identifiers are read from settings when a load needs them";
    EXPECT_EQ(vantor->LoadRequest({"home", "fallback", {}}).get(), "<offer/>");

    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].target, Prefix() + "&mboxDefault=none&mbox=home&a.ltv.amount=0");
    EXPECT_EQ(requests[0].Header("Cookie"), "");
    EXPECT_EQ(requests[0].Header("Host"), kHost);
    EXPECT_EQ(requests[1].target, Prefix() +
                                      "&mboxXDomain=disabled&mboxSession=s-9&mboxPC=pc-1"
                                      "&mboxDefault=none&mbox=home&a.ltv.amount=0");
    const std::string cookie = requests[1].Header("Cookie");
    EXPECT_NE(cookie.find("mboxPC=pc-1"), std::string::npos) << cookie;
    EXPECT_NE(cookie.find("mboxSession=s-9"), std::string::npos) << cookie;
    EXPECT_TRUE(capture.Contains("Velmora Debug:Vantor - LocationRequest (home) Result: <offer/>"));
}

TEST_F(Offers, ParametersComeInGroupsInKeyOrderEscapedAndEmptyOnesDropped) {
    server.OnGet([](const httplib::Request&, httplib::Response& response) { response.set_content("x", "text/plain"); });
    SettingsStore store(local.path(), log);
    auto vantor = Make(store);
    lifecycle = {{"a.Launches", "3"}, {"a.empty", ""}};
    ltv = 12.5f;
    vantor->SetPersistentParameter("a.loc.poi", "Main St");
    vantor->SetPersistentParameter("", "ignored");
    vantor->SetPersistentParameter("gone", "1");
    vantor->SetPersistentParameter("gone", "");
    EXPECT_EQ(vantor->LoadRequest({"cart & more", "d", {{"x y", "1"}, {"a", ""}, {"", "v"}, {"b", "ü"}}}).get(), "x");
    ASSERT_EQ(server.Count(), 1u);
    EXPECT_EQ(server.Requests()[0].target,
              Prefix() + "&mboxDefault=none&mbox=cart%20%26%20more" + "&b=%C3%BC&x%20y=1" + "&a.Launches=3" +
                  "&a.loc.poi=Main%20St&a.ltv.amount=12.5");
}

TEST_F(Offers, FailuresGiveTheDefaultContentWithOneLine) {
    SettingsStore store(local.path(), log);
    auto vantor = Make(store);

    server.OnGet([](const httplib::Request&, httplib::Response& response) { response.status = 200; });
    EXPECT_EQ(vantor->LoadRequest({"empty", "dflt", {}}).get(), "dflt");
    EXPECT_TRUE(capture.Contains("Velmora Debug:Vantor - LocationRequest (empty) response was empty"));

    config.vantorTimeout = 1;
    server.OnGet([](const httplib::Request&, httplib::Response& response) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // the server is slow, not the test
        response.set_content("late", "text/plain");
    });
    EXPECT_EQ(vantor->LoadRequest({"slow", "dflt", {}}).get(), "dflt");
    EXPECT_TRUE(capture.Contains("Velmora Warning:Vantor - Request timed out"));

    const std::size_t before = server.Count();
    EXPECT_EQ(vantor->LoadRequest({"", "named-default", {}}).get(), "named-default");
    EXPECT_TRUE(capture.Contains("Velmora Warning:Vantor - VantorLocationRequest parameter must have a location name"));
    EXPECT_EQ(server.Count(), before) << "an empty name makes no request";
}

TEST_F(Offers, ConnectionFailureAndBadUrlGiveTheDefaultContent) {
    SettingsStore store(local.path(), log);
    config.vantorClientCode = "bad host";
    auto vantor = Make(store);
    EXPECT_EQ(vantor->LoadRequest({"home", "dflt", {}}).get(), "dflt");
    bool uriLine = false;
    for (const auto& line : capture.Lines()) {
        uriLine |= line.rfind("Velmora Warning:Vantor - Unable to create URI object (", 0) == 0;
    }
    EXPECT_TRUE(uriLine);

    config.vantorClientCode = "acme";
    http = std::make_unique<HttpClient>(log, std::vector<std::string>{kHost + ":80:127.0.0.1:1"});
    Vantor closed(config, gates, store, *http, clock, log, {});
    EXPECT_EQ(closed.LoadRequest({"home", "dflt2", {}}).get(), "dflt2");
    EXPECT_TRUE(capture.Contains(
        "Velmora Warning:Vantor - Unexpected error getting response from server (A connection with the server "
        "specified in the uri parameter could not be established.)"));
}

TEST_F(Offers, UnconfiguredModuleAnswersEmptyAndClearCookiesWarns) {
    config.vantorClientCode.clear();
    SettingsStore store(local.path(), log);
    auto vantor = Make(store);
    EXPECT_EQ(vantor->LoadRequest({"home", "dflt", {}}).get(), "");
    vantor->ClearCookies();
    vantor->Flush(std::chrono::seconds(10));
    EXPECT_EQ(capture.Count("Velmora Warning:Vantor - Your config file is not set up to use Vantor"), 2u);
    EXPECT_EQ(server.Count(), 0u);
}

TEST_F(Offers, ClearCookiesForgetsBothIdentifiers) {
    SettingsStore store(local.path(), log);
    store.Insert(kPcIdKey, std::string("pc"));
    store.Insert(kSessionIdKey, std::string("s"));
    auto vantor = Make(store);
    vantor->LoadRequest({"home", "d", {}}).get();
    EXPECT_EQ(vantor->GetPcId(), "pc");
    vantor->ClearCookies();
    ASSERT_TRUE(vantor->Flush(std::chrono::seconds(10)));
    EXPECT_EQ(vantor->GetPcId(), "");
    EXPECT_EQ(vantor->GetSessionId(), "");
    EXPECT_FALSE(store.HasKey(kPcIdKey));
    EXPECT_FALSE(store.HasKey(kSessionIdKey));
}

}  // namespace
}  // namespace velmora

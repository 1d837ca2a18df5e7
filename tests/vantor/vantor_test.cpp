#include "support/fake_transport.h"
#include "support/test_support.h"
#include "vantor/vantor.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

const std::string kPrefix = std::string("http://acme") + kVantorHostSuffix +
                            "/m2/acme/ubox/raw?mboxContentType=text%2Fplain%3Bcharset%3Dutf-8&t=1426000000";

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
        return std::make_unique<VantorClient>(config, gates, *store, transport, clock, log,
                                              VantorClient::Sources{[this] { return lifecycle; }, [this] { return ltv; }},
                                              executor);
    }
    test::FakeTransport transport;
    test::TempDir local;
    test::LogCapture capture;
    Logger log{capture.Sink()};
    Executor executor;
    ConfigSettings config;
    ModuleGates gates{config};
    ManualClock clock{1'426'000'000'000};
    std::unique_ptr<SettingsStore> store;
    StringMap lifecycle;
    float ltv = 0;
};

TEST_F(Offers, IdentifiersOfAnAnswerGoBackAsUrlPartsAndCookiesInTheNextRunUntilCleared) {
    transport.Always(HttpOutcome::Answered(200, "<offer/>", {{"mboxPC", "pc-1"}, {"mboxSession", "s-9"}}));
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
    const auto requests = transport.Requests();
    ASSERT_EQ(requests.size(), 3u);
    for (std::size_t i : {0, 2}) {
        EXPECT_EQ(requests[i].url, kPrefix + "&mboxDefault=none&mbox=home&a.ltv.amount=0");
        EXPECT_TRUE(requests[i].cookies.empty());
    }
    EXPECT_EQ(requests[1].url, kPrefix + "&mboxXDomain=disabled&mboxSession=s-9&mboxPC=pc-1&mboxDefault=none&mbox=home&a.ltv.amount=0");
    EXPECT_EQ(requests[1].cookies, (StringMap{{"mboxPC", "pc-1"}, {"mboxSession", "s-9"}}));
    EXPECT_EQ(requests[1].timeoutMillis, 1000);
    EXPECT_TRUE(capture.Contains("Velmora Debug:Vantor - LocationRequest (home) Result: <offer/>"));
}

TEST_F(Offers, ParametersComeInGroupsInKeyOrderEscapedAndEmptyOnesDropped) {
    auto vantor = Make();
    store->Insert(kPcIdKey, std::string("pc-only"));  // without a session: a cookie, no URL part
    lifecycle = {{"a.Launches", "3"}, {"a.empty", ""}};
    ltv = 12.5f;
    vantor->SetPersistentParameter("a.loc.poi", "Main St");
    vantor->SetPersistentParameter("", "ignored");
    vantor->LoadRequest({"cart & more", "d", {{"x y", "1"}, {"a", ""}, {"", "v"}, {"b", "ü"}}}).get();
    EXPECT_EQ(transport.Urls(), std::vector<std::string>{kPrefix + "&mboxDefault=none&mbox=cart%20%26%20more&b=%C3%BC&x%20y=1"
                                                         "&a.Launches=3&a.loc.poi=Main%20St&a.ltv.amount=12.5"});
    EXPECT_EQ(transport.Requests()[0].cookies, (StringMap{{kPcIdKey, "pc-only"}}));
}

// Every failure gives the request's default content with its line; the offer module itself only
// asks when it may and can.
TEST_F(Offers, FailuresGiveTheDefaultContentWithTheirLine) {
    struct Row {
        std::string name;
        HttpOutcome outcome;
        std::string line;  // the last line logged
        std::function<void()> setUp = [] {};
        bool asked = true;
    };
    const std::string unexpected = "Velmora Warning:Vantor - Unexpected error getting response from server (";
    const Row rows[] = {
        {"error", HttpOutcome::Answered(500), "Velmora Debug:Vantor - LocationRequest (error) response was empty"},
        {"empty", HttpOutcome::Answered(200), "Velmora Debug:Vantor - LocationRequest (empty) response was empty"},
        {"slow", HttpOutcome::TimedOut(), "Velmora Warning:Vantor - Request timed out"},
        {"down", HttpOutcome::Failed(0x80072EFD, "refused"),
         unexpected + "A connection with the server specified in the uri parameter could not be established.)"},
        {"", {}, "Velmora Warning:Vantor - VantorLocationRequest parameter must have a location name", [] {}, false},
        {"home", {}, "Velmora Warning:Vantor - Unable to create URI object (", [this] { config.vantorClientCode = "bad host"; }, false},
        {"home", {}, "Velmora Debug:Vantor - Ignoring request due to privacy status being unknown",
         [this] { config.privacyStatus = kPrivacyUnknown; }, false},
        {"home", {}, "Velmora Debug:Vantor - Ignoring request due to privacy status being opted out",
         [this] { config.privacyStatus = kPrivacyOptOut; }, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        config.vantorClientCode = "acme";
        config.privacyStatus = kPrivacyOptIn;
        row.setUp();
        transport.Always(row.outcome);
        const std::size_t before = transport.Requests().size();
        EXPECT_EQ(Make()->LoadRequest({row.name, "dflt", {}}).get(), "dflt");
        EXPECT_EQ(capture.Lines().back().rfind(row.line, 0), 0u) << capture.Lines().back();
        EXPECT_EQ(transport.Requests().size() - before, row.asked ? 1u : 0u);
    }
    ConfigSettings none;
    ModuleGates closed{none};
    EXPECT_EQ(VantorClient(none, closed, *store, transport, clock, log, {}, executor).LoadRequest({"home", "dflt", {}}).get(),
              "") << "not configured";
    EXPECT_TRUE(capture.Contains("Velmora Warning:Vantor - Your config file is not set up to use Vantor"));
}

}  // namespace
}  // namespace velmora

#include "core/device.h"
#include "core/http.h"
#include "support/fake_transport.h"
#include "support/fault_server.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <sys/utsname.h>
#include <thread>

namespace velmora {
namespace {

using test::FaultServer;

// /loop redirects to itself, /moved sets a cookie and redirects; anything else sets each query
// parameter as a cookie.
struct Http : ::testing::Test {
    Http() {
        log.SetDebugEnabled(true);
        server.OnGet([](const httplib::Request& request, httplib::Response& response) {
            if (request.path == "/loop") return response.set_redirect("/loop");
            if (request.path == "/moved") {
                response.headers.emplace("Set-Cookie", "hop=first");
                return response.set_redirect("/cookies?final=yes");
            }
            for (const auto& [name, value] : request.params) response.headers.emplace("Set-Cookie", name + "=" + value);
        });
    }
    std::unique_ptr<RequestHandler> Request(const std::string& url, std::int32_t timeout = 5000) {
        auto request = std::make_unique<RequestHandler>(http, log, url);
        request->SetTimeout(timeout);
        return request;
    }
    test::LoopbackServer server;  // outlives the client, so the client closes its connections first
    test::LogCapture capture;
    Logger log{capture.Sink()};
    ManualClock clock;
    HttpClient http{{}, clock};
};

TEST_F(Http, TransportFailuresLogTheTableMessageAndThrow) {
    test::ClosedPort closed;
    FaultServer reset(FaultServer::Kind::kReset), early(FaultServer::Kind::kClose);
    auto local = [](int port) { return "http://127.0.0.1:" + std::to_string(port) + "/"; };
    const std::tuple<std::string, std::int64_t, std::string> cases[] = {  // url, code (0: no row), message
        {"http://velmora-test.invalid/id", 0x80072EE7,
         "The server name or address specified in the uri parameter could not be resolved."},
        {local(closed.Port()), 0x80072EFD, "A connection with the server specified in the uri parameter could not be established."},
        {local(reset.Port()), 0x80072EFF, "The connection with the server was reset."},
        {local(early.Port()), 0x80072EFE, "The connection with the server was terminated abnormally."},
        {server.Url("/loop"), 0x80072F80, "A redirection problem occurred."},
        {"http://exa mple.com/id", 123, "The syntax used in the uri parameter is incorrect."},
        {"ftp://127.0.0.1/file", 0, "Unknown COMException"}};
    for (const auto& [url, code, message] : cases) {
        for (bool body : {false, true}) {
            SCOPED_TRACE(url);
            try {
                if (body) Request(url)->GetResponseText(); else Request(url)->GetStatusCode();
                ADD_FAILURE() << "no exception";
            } catch (const TransportError& e) {
                EXPECT_STREQ(DescribeHResult(e.Code()), message.c_str());
                EXPECT_STRNE(e.what(), "") << "curl's own text when the table has no row";
                EXPECT_EQ(e.Refused(), code == 123 || code == 0) << "only a URL no retry can mend";
                EXPECT_TRUE(code == 0 || (e.Code() == code && e.what() == message)) << e.Code() << " " << e.what();
            }
        }
        EXPECT_EQ(capture.Lines(), std::vector<std::string>(2, "Velmora Debug:Request Handler - Error processing request (" + message + ")"));
        capture.Clear();
    }
    EXPECT_EQ(server.Count(), 2u * 11u) << "a request and ten redirects, twice";
    // No row for the Win32 form of 123, nor for a code past 32 bits.
    for (std::int64_t code : {0x8007007BLL, 0x180072EFFLL}) EXPECT_STREQ(DescribeHResult(code), "Unknown COMException") << code;
    EXPECT_STREQ(DescribeHResult(static_cast<std::int32_t>(0x80072EFF)), "The connection with the server was reset.");
}

// Sockets of this machine connected to `port` and still open on this side (ESTABLISHED or CLOSE-WAIT).
std::size_t OpenTo(int port) {
    std::ifstream table("/proc/net/tcp");
    std::size_t count = 0;
    std::string line, local, remote, state;
    std::getline(table, line);  // the heading
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        fields >> local >> local >> remote >> state;
        count += (state == "01" || state == "08") && std::stoi(remote.substr(remote.find(':') + 1), nullptr, 16) == port;
    }
    return count;
}

TEST_F(Http, StatusesComeBackSilentlyOverOneConnectionWhichIsClosedOnceIdle) {
    server.Script({404, 500, 202});
    for (int status : {404, 500, 202}) EXPECT_EQ(Request(server.Url("/"))->GetStatusCode(), status);
    EXPECT_TRUE(capture.Lines().empty());
    for (std::size_t connections = 1; connections <= 2; ++connections) {  // a second idle spell ends the same way
        EXPECT_EQ(server.Connections(), connections) << "consecutive requests reuse their connection";
        clock.Advance(std::chrono::seconds(2));
        EXPECT_EQ(OpenTo(server.Port()), 1u) << "used since the last check";
        clock.Advance(std::chrono::seconds(2));
        EXPECT_EQ(OpenTo(server.Port()), 0u);
        EXPECT_EQ(Request(server.Url("/"))->GetStatusCode(), 200);
    }
}

TEST_F(Http, AtMostEightIdleConnectionsStayOpen) {
    server.OnGet([this](const httplib::Request&, httplib::Response&) { server.Hold(); });
    std::vector<std::thread> requests;
    for (int i = 0; i < 9; ++i) requests.emplace_back([&] { EXPECT_EQ(Request(server.Url("/"))->GetStatusCode(), 200); });
    EXPECT_TRUE(test::WaitUntil([&] { return OpenTo(server.Port()) == 9; })) << "nine requests at once";
    server.Release();
    for (auto& request : requests) request.join();
    EXPECT_EQ(OpenTo(server.Port()), 8u) << "the ninth handle given back was closed";
}

// To the sender a time-out is a status, which offline tracking retries. A body's request that
// times out (an empty text) shows in the offer, audience and identifier tests.
TEST_F(Http, AStatusRequestWithoutAnAnswerInTimeComesBackAs408WithItsLine) {
    server.OnGet([this](const httplib::Request&, httplib::Response&) { server.Hold(); });
    EXPECT_EQ(Request(server.Url("/"), 200)->GetStatusCode(), 408);
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{"Velmora Debug:Request Handler - Request timed out"});
    server.Release();
    EXPECT_EQ(Request(server.Url("/"), 0)->GetResponseText(), "");
    EXPECT_EQ(server.Count(), 1u) << "no time at all: not even sent";
}

// Cookies going out and coming back, and none sticking to the pooled connection, show in the offer tests.
TEST_F(Http, HeadersGoOutVerbatimAndResponseCookiesComeBackFromEveryHop) {
    auto moved = Request(server.Url("/moved"));
    moved->SetHeader("X-Unchecked", "a,,b;; (c) \"d");
    moved->SetCookie("sent", "1");
    EXPECT_EQ(moved->GetStatusCode(), 200);
    EXPECT_EQ(moved->ResponseCookies(), (StringMap{{"final", "yes"}, {"hop", "first"}}));
    EXPECT_EQ(server.Requests()[0].Header("X-Unchecked"), "a,,b;; (c) \"d");
    EXPECT_EQ(server.Requests()[0].Header("Cookie"), "sent=1");
    HttpRequest remove;
    remove.method = "DELETE";
    remove.url = server.Url("/");
    EXPECT_EQ(http.Send(remove).status, 404) << "the server has no DELETE";
    // The pooled handle carries nothing of the requests before into the next one.
    HttpRequest plain;
    plain.url = server.Url("/plain");
    EXPECT_EQ(http.Send(plain).status, 200);
    EXPECT_EQ(server.Requests().back().path, "/plain");
    EXPECT_EQ(server.Requests().back().Header("Cookie"), "");
    EXPECT_EQ(server.Requests().back().Header("X-Unchecked"), "");
}

const std::regex kAidForm("^[0-7][0-9A-F]{15}-[0-3][0-9A-F]{15}$");
const std::string kRefused = "A connection with the server specified in the uri parameter could not be established.";

// A device context on temporary directories; its identifier requests go to a fake transport.
struct Device : ::testing::Test {
    Device() {
        log.SetDebugEnabled(true);
        host.packageDirectory = package.path();
        config.server = "collect.test";
    }
    DeviceContext& Context() {
        if (!context) {
            context = std::make_unique<DeviceContext>(host, config, settings, transport, log);
            context->SetSystemInfoDirectory(dmi.path());
        }
        return *context;
    }
    test::LogCapture capture;
    Logger log{capture.Sink()};
    test::FakeTransport transport;
    test::TempDir package, local, dmi;
    HostOptions host;
    ConfigSettings config;
    SettingsStore settings{local.path(), log};
    std::unique_ptr<DeviceContext> context;
};

TEST_F(Device, UserAgentAndDeviceNameUseWhatIsKnownOfMakerAndModel) {
    const std::vector<std::string> cases[] = {  // host maker, host model, system vendor, system product, agent part, name
        {"Microsoft", "Model 930", "", "", "; Microsoft Corporation; Model 930", "Microsoft Model 930"},
        {"Microsoft Mobile", "RM-1", "", "", "; Microsoft Mobile; RM-1", "Microsoft Mobile RM-1"},
        {"Contoso", "", "", "", "; Contoso", "Contoso Unknown"}, {"", "Lumia", "", "", "; Lumia", "Unknown Lumia"},
        {"", "", "", "", "", "Unknown Unknown"}, {"", "", "LENOVO\n", "ThinkPad X1\n", "; LENOVO; ThinkPad X1", "LENOVO ThinkPad X1"},
        {"Microsoft", "", "Dell Inc.\n", "XPS 13\n", "; Microsoft Corporation; XPS 13", "Microsoft XPS 13"}};
    for (const auto& c : cases) {
        host.deviceManufacturer = c[0];
        host.deviceModel = c[1];
        for (const char* file : {"sys_vendor", "product_name"}) std::filesystem::remove(dmi / file);
        if (!c[2].empty()) dmi.Write("sys_vendor", c[2]);
        if (!c[3].empty()) dmi.Write("product_name", c[3]);
        context.reset();
        EXPECT_EQ(Context().GetUserAgent(), "Mozilla/5.0 (Windows Phone 8.1; ARM; Trident/7.0; Touch; rv:11.0" + c[4] + ") like Gecko");
        EXPECT_EQ(Context().GetContextData()["a.DeviceName"], c[5]);
    }
}

TEST_F(Device, AUserAgentNamesTheHostsSystemAndMachineWhenTheHostGivesOne) {
    host.osVersion = "Debian GNU/Linux 12\r\nX-Injected: 1";
    host.deviceManufacturer = "Acme";
    struct utsname system {};
    ASSERT_EQ(::uname(&system), 0);
    EXPECT_EQ(Context().GetUserAgent(), std::string("Mozilla/5.0 (Debian GNU/Linux 12  X-Injected: 1; ") + system.machine + "; Acme)");
}

TEST_F(Device, ApplicationComesFromTheHostOrTheManifestReadOnce) {
    const auto manifest = [](const std::string& version, const std::string& name) {
        return "<?xml version=\"1.0\"?><Package xmlns=\"http://schemas.microsoft.com/appx/2010/manifest\"><Identity Name=\"app\" "
               "Version=\"" + version + "\"/><Properties><DisplayName>" + name + "</DisplayName></Properties></Package>";
    };
    const std::vector<std::string> cases[] = {  // manifest (empty: none), host name, host version, name|version|build|id, reason of the error line
        {manifest("2.1.5.3", "Größe &amp; Co"), "", "", "Größe & Co|2.1.3|5|Größe & Co 2.1.3 (5)", ""},
        {"", "", "", "Unknown|0.0.0|0|Unknown 0.0.0 (0)", "File was not found"},
        {"<Package><Identity Version=\"3.0.1.2\"><Properties>", "", "", "Unknown|0.0.0|0|Unknown 0.0.0 (0)", "Start-end tags mismatch"},
        {"<Package><Identity Version=\"3.0.1.2\"/><Properties/></Package>", "", "", "Unknown|3.0.2|1|Unknown 3.0.2 (1)",
         "No DisplayName element found"},
        {"", "Host", "7.2.9.4.8", "Host|7.2.4|9|Host 7.2.4 (9)", ""},  // a fifth part is left out
        {manifest("2.1.5.3", "App"), "Host", "7.x.9", "Host|7.0.0|9|Host 7.0.0 (9)", ""},
        {"", "Host", "7.2.9b.4", "Host|7.2.4|0|Host 7.2.4 (0)", ""},  // a part with trailing text counts as 0
        {manifest("2.1.5.3", "App"), "Host", "", "Host|2.1.3|5|Host 2.1.3 (5)", ""},
        {manifest("2.1.5.3", "App"), "", "7.2", "App|7.2.0|0|App 7.2.0 (0)", ""},
        {"", "", "7.2.9.4", "Unknown|7.2.4|9|Unknown 7.2.4 (9)", "File was not found"}};
    for (const auto& c : cases) {
        std::filesystem::remove(package / "AppxManifest.xml");
        if (!c[0].empty()) package.Write("AppxManifest.xml", c[0]);
        host.applicationName = c[1];
        host.applicationVersion = c[2];
        capture.Clear();
        context.reset();
        auto& d = Context();
        EXPECT_EQ(d.GetApplicationName() + "|" + d.GetApplicationVersion() + "|" + d.GetApplicationBuild() + "|" + d.GetApplicationId(), c[3]);
        EXPECT_EQ(d.GetContextData()["a.AppID"], d.GetApplicationId());
        const std::string error = "Velmora Error:Analytics - Unable to read AppxManifest file to obtain Application name (" + c[4] + ")";
        EXPECT_EQ(capture.Lines(), c[4].empty() ? std::vector<std::string>{} : std::vector<std::string>{error});
    }
}

TEST_F(Device, ConcurrentFirstUsesComputeEachValueOnce) {
    // No manifest, so each read of it would log one more error line; the window is first unknown, later known.
    std::atomic<int> windowCalls{0};
    host.windowSize = [&] { return ++windowCalls == 1 ? std::nullopt : std::optional(std::pair(480.0, 800.0)); };
    auto& d = Context();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {  // half take the map's lock first, half the single values' locks
        threads.emplace_back([&d, t] { t % 2 ? d.GetApplicationVersion() + d.GetApplicationId() + d.GetAid() : d.GetContextData()["a.AppID"] + d.GetAid(); });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::make_tuple(capture.Lines().size(), windowCalls.load(), transport.Requests().size()),
              std::make_tuple(1u, 1, 1u));
    EXPECT_EQ(d.GetContextData(), (StringMap{{"a.AppID", "Unknown 0.0.0 (0)"}, {"a.CarrierName", ""}, {"a.DeviceName", "Unknown Unknown"},
                                             {"a.OSVersion", "Windows Phone 8.1"}, {"a.Resolution", "Unknown"}}));
}

// The server's aid, else a generated one; either is stored, and a later context reuses it unasked.
// The identifier is asked for at "/id" of the tracking server, within 500 ms, and never after an
// opt-out.
TEST_F(Device, AidComesFromTheServerElseIsGeneratedAndIsStoredForLaterRuns) {
    const std::string fetched = "3F2504E04F8911D3-09A0300C04FF0A1B";
    const std::string failed = "Velmora Debug:Request Handler - Error processing request (" + kRefused + ")";
    struct Row {
        HttpOutcome answer;
        std::string aid;  // empty: generated
        std::vector<std::string> lines;
        std::int32_t privacy = kPrivacyOptIn;
        bool ssl = false;
    };
    const Row rows[] = {
        {HttpOutcome::Answered(200, "{\"id\":\"" + fetched + "\",\"other\":1}"), fetched, {}},
        {HttpOutcome::Answered(200, "{\"id\":\"" + fetched + "\"}"), fetched, {}, kPrivacyUnknown, true},
        {HttpOutcome::Answered(200, " {\"id\":\"x\"}"), "", {}}, {HttpOutcome::Answered(200, "{\"id\":42}"), "", {}},
        {HttpOutcome::TimedOut(), "", {"Velmora Debug:Request Handler - Request timed out"}},
        {HttpOutcome::Failed(0x80072EFD, kRefused), "", {failed, "Velmora Debug:Analytics - Unable to retrieve aid from server (" + kRefused + ")"}},
        {HttpOutcome::Answered(200, "{\"id\":\"" + fetched + "\"}"), "",
         {"Velmora Debug:Analytics - Not retrieving aid from server due to privacy status being opted out"}, kPrivacyOptOut}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.answer.body + row.answer.message);
        transport.Always(row.answer);
        config.privacyStatus = row.privacy;
        config.ssl = row.ssl;
        settings.Remove(kAidKey);
        capture.Clear();
        context.reset();
        const std::size_t before = transport.Requests().size();
        const std::string aid = Context().GetAid();
        EXPECT_TRUE(row.aid.empty() ? std::regex_match(aid, kAidForm) : aid == row.aid) << aid;
        EXPECT_EQ(LookupText(settings, kAidKey), aid);
        EXPECT_EQ(capture.Lines(), row.lines);
        const auto requests = transport.Requests();
        ASSERT_EQ(requests.size() - before, row.privacy == kPrivacyOptOut ? 0u : 1u);
        if (row.privacy != kPrivacyOptOut) {
            EXPECT_EQ(requests.back().url, std::string(row.ssl ? "https" : "http") + "://collect.test/id");
            EXPECT_EQ(requests.back().timeoutMillis, 500);
        }
        context.reset();
        EXPECT_EQ(Context().GetAid(), aid);
        EXPECT_EQ(transport.Requests().size(), requests.size()) << "a later run reuses the stored one";
    }
}

TEST_F(Device, GeneratedAidsFollowTheHalvesRule) {
    std::set<std::string> seen, leads;
    for (int i = 0; i < 4000; ++i) {
        const std::string aid = Context().GenerateAid();
        ASSERT_TRUE(std::regex_match(aid, kAidForm)) << aid;
        seen.insert(aid);
        leads.insert(std::string{aid[0], aid[17]});
    }
    EXPECT_EQ(seen.size(), 4000u);
    EXPECT_EQ(leads.size(), 8u * 4u) << "every allowed pair of leading digits turns up";
    // Allowed leads stay; others are replaced by an allowed one.
    EXPECT_EQ(Context().AidFromGuid("{0A1B2C3D-4E5F-6071-2293-A4B5C6D7E8F9}"), "0A1B2C3D4E5F6071-2293A4B5C6D7E8F9");
    EXPECT_TRUE(std::regex_match(Context().AidFromGuid("{f0000000-0000-0000-c000-0000000000ab}"),
                                 std::regex("^[0-7]000000000000000-[0-3]0000000000000AB$")));
}

TEST(Host, TheLanguageTagIsTheHostsElseTheFirstLocaleVariableSetInBcp47) {
    const test::ScopedEnv all("LC_ALL", ""), messages("LC_MESSAGES", "pt_BR@euro"), lang("LANG", "de_AT");
    EXPECT_EQ(LanguageTag(HostOptions{}), "pt-BR");
    for (const char* locale : {"C", "POSIX", "C.UTF-8"}) EXPECT_EQ(LanguageTagFromLocale(locale), "en-US") << locale;
}

}  // namespace
}  // namespace velmora

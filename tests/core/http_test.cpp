#include "core/http.h"
#include "support/fault_server.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

// The system's cpp-httplib is not built with ThreadSanitizer, so the synchronisation inside it is
// invisible and the memory calls it makes between its worker threads look like races. Only calls
// made from inside that library are ignored; our handlers running on its threads are still checked.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libcpp-httplib.so\n"; }

namespace velmora {
namespace {

using test::FaultServer;

// /hold answers only after the client gave up, /loop redirects to itself, /moved sets a cookie and
// redirects; anything else echoes the Cookie header and sets each query parameter as a cookie.
struct Http : ::testing::Test {
    Http() {
        log.SetDebugEnabled(true);
        server.OnGet([this](const httplib::Request& request, httplib::Response& response) {
            if (request.path == "/hold") return server.Hold();
            if (request.path == "/loop") return response.set_redirect("/loop");
            if (request.path == "/moved") {
                response.headers.emplace("Set-Cookie", "hop=first");
                return response.set_redirect("/cookies?final=yes");
            }
            for (const auto& [name, value] : request.params) response.headers.emplace("Set-Cookie", name + "=" + value);
            response.set_content(request.get_header_value("Cookie"), "text/plain");
        });
    }
    std::unique_ptr<RequestHandler> Request(const std::string& url, std::int32_t timeout = 5000) {
        auto request = std::make_unique<RequestHandler>(http, url);
        request->SetTimeout(timeout);
        return request;
    }
    test::LoopbackServer server;  // outlives the client, so the client closes its connections first
    test::LogCapture capture;
    Logger log{capture.Sink()};
    HttpClient http{log, {}};
};

TEST_F(Http, TransportFailuresLogTheTableMessageAndThrow) {
    test::ClosedPort closed;
    FaultServer reset({FaultServer::Kind::kReset}), early({FaultServer::Kind::kClose});
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
                EXPECT_TRUE(code == 0 || (e.Code() == code && e.what() == message)) << e.Code() << " " << e.what();
            }
        }
        EXPECT_EQ(capture.Lines(), std::vector<std::string>(2, "Velmora Debug:Request Handler - Error processing request (" + message + ")"));
        capture.Clear();
    }
    EXPECT_EQ(server.Count(), 2u * 11u) << "a request and ten redirects, twice";
    EXPECT_STREQ(DescribeHResult(0x8007007B), "Unknown COMException") << "the Win32 form of 123 has no row";
    EXPECT_STREQ(DescribeHResult(static_cast<std::int32_t>(0x80072EFF)), "The connection with the server was reset.");
}

TEST_F(Http, StatusesComeBackSilentlyOverOneConnectionAndATimeOutGives408AndEmptyText) {
    server.Script({404, 500, 202});
    for (int status : {404, 500, 202}) EXPECT_EQ(Request(server.Url("/"))->GetStatusCode(), status);
    EXPECT_EQ(server.Connections(), 1u) << "consecutive requests reuse their connection";
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(Request(server.Url("/hold"), 200)->GetStatusCode(), 408);
    EXPECT_EQ(Request(server.Url("/hold"), 200)->GetResponseText(), "");
    EXPECT_EQ(capture.Lines(), std::vector<std::string>(2, "Velmora Debug:Request Handler - Request timed out"));
}

TEST_F(Http, CookiesAndHeadersGoOutVerbatimAndResponseCookiesComeBackFromEveryHop) {
    auto request = Request(server.Url("/cookies?mboxPC=pc-2&mboxSession=s-2"));
    request->SetCookie("mboxPC", "pc-1");
    request->SetCookie("mboxSession", "s-1");
    request->SetHeader("X-Unchecked", "a,,b;; (c) \"d");
    EXPECT_EQ(request->GetResponseText(), "mboxPC=pc-1; mboxSession=s-1");
    EXPECT_EQ(request->ResponseCookies(), (StringMap{{"mboxPC", "pc-2"}, {"mboxSession", "s-2"}}));
    EXPECT_EQ(server.Requests()[0].Header("X-Unchecked"), "a,,b;; (c) \"d");
    EXPECT_EQ(Request(server.Url("/cookies"))->GetResponseText(), "") << "no cookie sticks to the pooled connection";
    auto moved = Request(server.Url("/moved"));
    EXPECT_EQ(moved->GetStatusCode(), 200);
    EXPECT_EQ(moved->ResponseCookies(), (StringMap{{"final", "yes"}, {"hop", "first"}}));
}

}  // namespace
}  // namespace velmora

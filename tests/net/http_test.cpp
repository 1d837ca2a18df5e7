#include "core/http.h"
#include "loopback.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace velmora {
namespace {

using test::BrokenServer;
using test::ClosedPort;
using test::LogCapture;
using test::LoopbackServer;

constexpr const char* kTimedOut = "Velmora Debug:Request Handler - Request timed out";

std::string ErrorLine(const std::string& message) {
    return "Velmora Debug:Request Handler - Error processing request (" + message + ")";
}

struct HttpTest : ::testing::Test {
    HttpTest() { log.SetDebugEnabled(true); }
    LoopbackServer server;  // outlives the client, so the client closes its connections first
    LogCapture capture;
    Logger log{capture.Sink()};
    HttpClient client{log, {}};
};

TEST(DescribeHResult, GivesTheMessageOfEachRow) {
    const std::pair<std::int64_t, const char*> rows[] = {
        {0x80070002, "The system cannot find the file specified."},
        {0x80070057, "The uri parameter was a null reference."},
        {0x8000000E, "A method was called at an unexpected time."},
        {0x80000013, "The object has been closed."},
        {0x80072EE7, "The server name or address specified in the uri parameter could not be resolved."},
        {0x80072EEE, "An incorrect password was presented to the server."},
        {0x80072EFD, "A connection with the server specified in the uri parameter could not be established."},
        {0x80072EFE, "The connection with the server was terminated abnormally."},
        {0x80072EFF, "The connection with the server was reset."},
        {0x80072F30, "There was a problem connecting to the server."},
        {0x80072F80, "A redirection problem occurred."},
        {0x800C0005, "The system cannot locate the resource specified in the uri parameter."},
        {0x800C0014, "A redirection problem occurred."},
        {123, "The syntax used in the uri parameter is incorrect."},
        // The Win32 form of 123 deliberately has no row of its own.
        {0x8007007B, "Unknown COMException"},
        {0, "Unknown COMException"},
        {0x80072EE8, "Unknown COMException"},
        {(std::int64_t{1} << 32) + 0x80072EE7, "Unknown COMException"},
        // A 32-bit result code that arrives sign-extended still finds its row.
        {static_cast<std::int32_t>(0x80072EFF), "The connection with the server was reset."},
    };
    for (const auto& [code, message] : rows) {
        EXPECT_STREQ(DescribeHResult(code), message) << std::hex << code;
    }
}

enum class Target { kInvalidHost, kClosedPort, kReset, kClosedEarly, kRedirectLoop, kMalformed, kUnsupported };

struct FailureCase {
    const char* name;
    Target target;
    std::int64_t code;  // 0: any code without a row
    const char* message;
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class TransportFailure : public HttpTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(TransportFailure, LogsTheTableMessageAndThrows) {
    const auto& c = GetParam();
    ClosedPort closed;
    BrokenServer reset(BrokenServer::Mode::kReset);
    BrokenServer early(BrokenServer::Mode::kClose);
    std::string url;
    switch (c.target) {
        case Target::kInvalidHost: url = "http://velmora-test.invalid/id"; break;
        case Target::kClosedPort: url = "http://127.0.0.1:" + std::to_string(closed.Port()) + "/"; break;
        case Target::kReset: url = "http://127.0.0.1:" + std::to_string(reset.Port()) + "/"; break;
        case Target::kClosedEarly: url = "http://127.0.0.1:" + std::to_string(early.Port()) + "/"; break;
        case Target::kRedirectLoop: url = server.Url("/loop"); break;
        case Target::kMalformed: url = "http://exa mple.com/id"; break;
        case Target::kUnsupported: url = "ftp://127.0.0.1/file"; break;
    }
    for (bool body : {false, true}) {
        RequestHandler request(client, url);
        request.SetTimeout(5000);
        try {
            if (body) {
                request.GetResponseText();
            } else {
                request.GetStatusCode();
            }
            ADD_FAILURE() << "no exception for " << url;
        } catch (const TransportError& e) {
            if (c.code != 0) {
                EXPECT_EQ(e.Code(), c.code);
                EXPECT_STREQ(e.what(), c.message);
            } else {
                EXPECT_STREQ(DescribeHResult(e.Code()), "Unknown COMException");
                EXPECT_STRNE(e.what(), "") << "curl's own text goes to the caller";
            }
        }
    }
    EXPECT_EQ(capture.Lines(), std::vector<std::string>(2, ErrorLine(c.message)));
    if (c.target == Target::kRedirectLoop) {
        EXPECT_EQ(server.Count("/loop"), 2u * 11u) << "the first request and ten redirects, twice";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, TransportFailure,
    ::testing::Values(
        FailureCase{"InvalidHost", Target::kInvalidHost, 0x80072EE7,
                    "The server name or address specified in the uri parameter could not be resolved."},
        FailureCase{"ClosedPort", Target::kClosedPort, 0x80072EFD,
                    "A connection with the server specified in the uri parameter could not be established."},
        FailureCase{"Reset", Target::kReset, 0x80072EFF, "The connection with the server was reset."},
        FailureCase{"ClosedWithoutAnswer", Target::kClosedEarly, 0x80072EFE,
                    "The connection with the server was terminated abnormally."},
        FailureCase{"RedirectLoop", Target::kRedirectLoop, 0x80072F80, "A redirection problem occurred."},
        FailureCase{"Malformed", Target::kMalformed, 123, "The syntax used in the uri parameter is incorrect."},
        FailureCase{"Unsupported", Target::kUnsupported, 0, "Unknown COMException"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(HttpTest, TimeOutGives408AndEmptyTextWithoutThrowing) {
    RequestHandler status(client, server.Url("/hold"));
    status.SetTimeout(200);
    EXPECT_EQ(status.GetStatusCode(), 408);
    RequestHandler text(client, server.Url("/hold"));
    text.SetTimeout(200);
    EXPECT_EQ(text.GetResponseText(), "");
    EXPECT_EQ(capture.Lines(), std::vector<std::string>(2, kTimedOut));
}

TEST_F(HttpTest, TimeOutLineOnlyWithDebugLogging) {
    log.SetDebugEnabled(false);
    RequestHandler request(client, server.Url("/hold"));
    request.SetTimeout(100);
    EXPECT_EQ(request.GetStatusCode(), 408);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(HttpTest, AnyStatusIsReturnedSilentlyWithItsBody) {
    for (int status : {200, 202, 307, 404, 500, 503}) {
        RequestHandler code(client, server.Url("/status/" + std::to_string(status)));
        code.SetTimeout(5000);
        EXPECT_EQ(code.GetStatusCode(), status);
        RequestHandler text(client, server.Url("/status/" + std::to_string(status)));
        text.SetTimeout(5000);
        EXPECT_EQ(text.GetResponseText(), "status " + std::to_string(status));
    }
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(HttpTest, FollowsRedirectsAndKeepsTheCookiesOfEveryHop) {
    server.Route("/moved", [](const httplib::Request&, httplib::Response& response) {
        response.headers.emplace("Set-Cookie", "hop=first");
        response.set_redirect("/cookies?final=yes");
    });
    RequestHandler request(client, server.Url("/moved"));
    request.SetTimeout(5000);
    EXPECT_EQ(request.GetStatusCode(), 200);
    EXPECT_EQ(request.ResponseCookies(), (StringMap{{"final", "yes"}, {"hop", "first"}}));
}

TEST_F(HttpTest, HeadersGoOutVerbatim) {
    RequestHandler request(client, server.Url("/status/200"));
    request.SetTimeout(5000);
    const std::string agent = "Mozilla/5.0 (Windows Phone 8.1; ARM; Trident/7.0; Touch; rv:11.0) like Gecko";
    request.SetHeader("User-Agent", agent);
    request.SetHeader("Accept-Language", "de-DE");
    request.SetHeader("X-Unchecked", "a,,b;; (c) \"d");
    ASSERT_EQ(request.GetStatusCode(), 200);
    const auto received = server.Requests();
    ASSERT_EQ(received.size(), 1u);
    const auto& headers = received[0].headers;
    auto value = [&](const char* name) {
        auto it = headers.find(name);
        return it == headers.end() ? std::string("<none>") : it->second;
    };
    EXPECT_EQ(value("User-Agent"), agent);
    EXPECT_EQ(value("Accept-Language"), "de-DE");
    EXPECT_EQ(value("X-Unchecked"), "a,,b;; (c) \"d");
    EXPECT_EQ(value("Cookie"), "<none>");
}

TEST_F(HttpTest, CookiesGoOutAndComeBack) {
    RequestHandler request(client, server.Url("/cookies?mboxPC=pc-2&mboxSession=s-2"));
    request.SetTimeout(5000);
    request.SetCookie("mboxPC", "pc-1");
    request.SetCookie("mboxSession", "s-1");
    EXPECT_EQ(request.GetResponseText(), "mboxPC=pc-1; mboxSession=s-1");
    EXPECT_EQ(request.ResponseCookies(), (StringMap{{"mboxPC", "pc-2"}, {"mboxSession", "s-2"}}));

    // Nothing of one request's cookies sticks to the pooled connection for the next one.
    RequestHandler next(client, server.Url("/cookies"));
    next.SetTimeout(5000);
    EXPECT_EQ(next.GetResponseText(), "");
    EXPECT_TRUE(next.ResponseCookies().empty());
}

TEST_F(HttpTest, ConsecutiveRequestsReuseOneConnection) {
    for (const char* path : {"/status/200", "/status/404", "/cookies", "/status/500"}) {
        RequestHandler request(client, server.Url(path));
        request.SetTimeout(5000);
        request.GetResponseText();
    }
    const auto received = server.Requests();
    ASSERT_EQ(received.size(), 4u);
    for (const auto& r : received) EXPECT_EQ(r.remotePort, received[0].remotePort) << r.path;
}

TEST_F(HttpTest, ParallelRequestsEachGetTheirAnswer) {
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                const int status = 200 + t;
                RequestHandler request(client, server.Url("/status/" + std::to_string(status)));
                request.SetTimeout(5000);
                right += request.GetResponseText() == "status " + std::to_string(status);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(right.load(), 40);
}

TEST(HttpClientRuntime, ConnectToRoutesEveryRequestOfTheRuntime) {
    LoopbackServer server;
    HostOptions options;
    options.connectTo = {"offers.velmora.test:80:127.0.0.1:" + std::to_string(server.Port())};
    test::TestRuntime t("", options);
    auto& client = t.runtime->Get<HttpClient>();
    EXPECT_EQ(&client, &t.runtime->Get<HttpClient>());
    for (int i = 0; i < 2; ++i) {
        RequestHandler request(client, "http://offers.velmora.test/status/200");
        request.SetTimeout(5000);
        EXPECT_EQ(request.GetStatusCode(), 200);
    }
    const auto received = server.Requests();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[1].headers.find("Host")->second, "offers.velmora.test");
}

}  // namespace
}  // namespace velmora

#pragma once

#include "core/clock.h"
#include "core/log.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace velmora {

// A transport failure of one request (name resolution, refused or reset connection, redirect
// loop, malformed URL...). `Code()` is the platform-style result code the failure maps onto, so
// DescribeHResult gives the message of the request service's table.
class TransportError : public std::runtime_error {
public:
    TransportError(std::int64_t code, const std::string& message, bool refused = false)
        : std::runtime_error(message), code_(code), refused_(refused) {}
    std::int64_t Code() const { return code_; }
    // The request was never attempted: the transport refused the URL itself (malformed, too long,
    // an unsupported scheme). Sending it again cannot succeed.
    bool Refused() const { return refused_; }

private:
    std::int64_t code_;
    bool refused_;
};

// The message of the request service's table for a result code; "Unknown COMException" otherwise.
const char* DescribeHResult(std::int64_t code);

// One synchronous GET, as a sender sees it: the status code (408 when the time-out ran out), or
// TransportError when no answer came. Tests put a fake in place of the HTTP client.
class Transport {
public:
    using Headers = std::vector<std::pair<std::string, std::string>>;
    virtual ~Transport() = default;
    virtual std::int32_t Get(const std::string& url, const Headers& headers, std::int32_t timeoutMillis) = 0;
};

// Shared by every request of a runtime: the host's connect-to entries and a connection cache, so
// that consecutive requests to one server reuse their connection. A connection left idle for a
// while is closed (checked on `clock`'s timer), so that an idle process keeps none that its server
// has closed.
class HttpClient : public Transport {
public:
    HttpClient(const Logger& log, std::vector<std::string> connectTo, Clock& clock);
    ~HttpClient() override;

    std::int32_t Get(const std::string& url, const Headers& headers, std::int32_t timeoutMillis) override;

    // Ends the requests in flight at once (they fail as aborted connections) and makes every later
    // request fail the same way: the end of the process must not wait out a server's time-out.
    void Abort();

    struct Shared;
    Shared& shared() { return *shared_; }
    const Logger& log() const { return log_; }

private:
    const Logger& log_;
    std::shared_ptr<Shared> shared_;
};

// One HTTP GET. A time-out covers the whole request (resolution, connection and response) and is
// no failure: GetStatusCode gives 408 and GetResponseText "". Every other transport failure is
// logged as a debug line and thrown as TransportError for the caller to handle.
class RequestHandler {
public:
    RequestHandler(HttpClient& client, std::string uri);
    ~RequestHandler();
    RequestHandler(const RequestHandler&) = delete;
    RequestHandler& operator=(const RequestHandler&) = delete;

    // Zero or less runs out at once, without sending.
    void SetTimeout(std::int32_t milliseconds) { timeoutMilliseconds_ = milliseconds; }
    void SetHeader(const std::string& name, const std::string& value);  // added without validation
    void SetCookie(const std::string& name, const std::string& value);  // sent with the request

    std::int32_t GetStatusCode();
    std::string GetResponseText();

    // Whether the last request ran out of time (GetStatusCode gave 408, GetResponseText "").
    bool TimedOut() const { return timedOut_; }

    // Cookies set by the response ("Set-Cookie"), by name, after GetStatusCode / GetResponseText.
    const StringMap& ResponseCookies() const { return responseCookies_; }

private:
    struct Result;
    Result Perform(bool wantBody);

    HttpClient& client_;
    std::string uri_;
    std::int32_t timeoutMilliseconds_ = 30'000;  // no request waits without a limit
    std::vector<std::string> headers_;
    StringMap cookies_;
    StringMap responseCookies_;
    bool timedOut_ = false;
};

}  // namespace velmora

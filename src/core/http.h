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

// Why `url` does not parse as an absolute URL (curl's words); empty when it does.
std::string UrlParseError(const std::string& url);

// One outgoing request of the library, whatever it is for: hits, offers, audience signals and their
// destinations, the identifier.
struct HttpRequest {
    using Headers = std::vector<std::pair<std::string, std::string>>;
    std::string method = "GET";
    std::string url;
    Headers headers;                       // sent verbatim, an empty value as an empty header
    StringMap cookies;                     // sent with the request, in name order
    std::int32_t timeoutMillis = 30'000;   // the whole request; zero or less runs out at once
    bool wantBody = true;                  // false: only the status is of interest
};

// What came of a request: an answer, the time-out, or a failure of the transport.
struct HttpOutcome {
    enum class Kind { kAnswered, kTimedOut, kFailed };
    Kind kind = Kind::kFailed;
    std::int32_t status = 0;   // kAnswered: the HTTP status, whatever it is
    std::string body;          // kAnswered, when asked for
    StringMap cookies;         // kAnswered: set by the answer ("Set-Cookie"), of every hop, by name
    std::int64_t code = 0;     // kFailed: the platform-style result code (DescribeHResult)
    std::string message;       // kFailed: what went wrong
    bool refused = false;      // kFailed: the transport would not even try the URL

    static HttpOutcome Answered(std::int32_t status, std::string body = "", StringMap cookies = {}) {
        HttpOutcome outcome;
        outcome.kind = Kind::kAnswered;
        outcome.status = status;
        outcome.body = std::move(body);
        outcome.cookies = std::move(cookies);
        return outcome;
    }
    static HttpOutcome TimedOut() {
        HttpOutcome outcome;
        outcome.kind = Kind::kTimedOut;
        return outcome;
    }
    static HttpOutcome Failed(std::int64_t code, std::string message, bool refused = false) {
        HttpOutcome outcome;
        outcome.code = code;
        outcome.message = std::move(message);
        outcome.refused = refused;
        return outcome;
    }
};

// The seam every request of the library goes through: the curl client implements it, tests put a
// fake in its place. Send never throws for what happens on the network; it reports it.
class Transport {
public:
    virtual ~Transport() = default;
    virtual HttpOutcome Send(const HttpRequest& request) = 0;
};

// Shared by every request of a runtime: the host's connect-to entries and a connection cache, so
// that consecutive requests to one server reuse their connection. A connection left idle for a
// while is closed (checked on `clock`'s timer), so that an idle process keeps none that its server
// has closed.
class HttpClient : public Transport {
public:
    HttpClient(std::vector<std::string> connectTo, Clock& clock);
    ~HttpClient() override;

    HttpOutcome Send(const HttpRequest& request) override;

    // Ends the requests in flight at once (they fail as aborted connections) and makes every later
    // request fail the same way: the end of the process must not wait out a server's time-out.
    void Abort();

    struct Shared;

private:
    std::shared_ptr<Shared> shared_;
};

// One request as its caller sees it. A time-out is no failure: GetStatusCode gives 408 and
// GetResponseText "", after a debug line. Every other failure of the transport is logged as a
// debug line and thrown as TransportError for the caller to handle.
class RequestHandler {
public:
    RequestHandler(Transport& transport, const Logger& log, std::string uri);
    RequestHandler(const RequestHandler&) = delete;
    RequestHandler& operator=(const RequestHandler&) = delete;

    // Zero or less runs out at once, without sending.
    void SetTimeout(std::int32_t milliseconds) { request_.timeoutMillis = milliseconds; }
    void SetHeader(const std::string& name, const std::string& value);  // added without validation
    void SetCookie(const std::string& name, const std::string& value);  // sent with the request

    std::int32_t GetStatusCode();
    std::string GetResponseText();

    // Whether the last request ran out of time (GetStatusCode gave 408, GetResponseText "").
    bool TimedOut() const { return timedOut_; }

    // Cookies set by the response ("Set-Cookie"), by name, after GetStatusCode / GetResponseText.
    const StringMap& ResponseCookies() const { return responseCookies_; }

private:
    HttpOutcome Perform(bool wantBody);

    Transport& transport_;
    const Logger& log_;
    HttpRequest request_;
    StringMap responseCookies_;
    bool timedOut_ = false;
};

}  // namespace velmora

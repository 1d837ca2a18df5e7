#include "core/http.h"

#include "core/mutex.h"

#include <curl/curl.h>
#include <openssl/crypto.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

namespace velmora {
namespace {

// Result codes of the table that curl failures map onto.
constexpr std::int64_t kNameNotResolved = 0x80072EE7;
constexpr std::int64_t kCannotConnect = 0x80072EFD;
constexpr std::int64_t kConnectionAborted = 0x80072EFE;
constexpr std::int64_t kConnectionReset = 0x80072EFF;
constexpr std::int64_t kRedirectFailed = 0x80072F80;
constexpr std::int64_t kInvalidName = 123;
// Curl codes without a row keep their number above every 32-bit result code; failures of curl's
// multi interface keep theirs above those.
constexpr std::int64_t kUnmappedCurlBase = std::int64_t{1} << 32;
constexpr std::int64_t kMultiCodeBase = 1 << 16;

// A platform client gives up after this many hops; a redirect loop ends here.
constexpr long kMaxRedirects = 10;
// Easy handles kept for reuse; more than this many parallel requests is unusual.
constexpr std::size_t kMaxIdleHandles = 8;
// An idle connection is closed between one and two of these after its last request: a burst of
// requests shares it, but a server's closing of it (CLOSE-WAIT on our side) is not kept for long.
constexpr std::chrono::milliseconds kIdleConnectionCheck{2000};

std::int64_t MapCurlCode(CURLcode code) {
    switch (code) {
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return kNameNotResolved;
        case CURLE_COULDNT_CONNECT:
            return kCannotConnect;
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
            return kConnectionReset;
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_ABORTED_BY_CALLBACK:
            return kConnectionAborted;
        case CURLE_TOO_MANY_REDIRECTS:
            return kRedirectFailed;
        case CURLE_URL_MALFORMAT:
            return kInvalidName;
        default:
            return kUnmappedCurlBase + static_cast<std::int64_t>(code);
    }
}

void InitCurlOnce() {
    // Trivially destructible, so safe for threads that outlive static destruction.
    static std::once_flag once;
    std::call_once(once, [] {
        // Without this, the TLS library frees itself in an exit handler of its own, which may run
        // while a library thread is still starting it or sending, and crash the ending process.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
        curl_global_init(CURL_GLOBAL_DEFAULT);
    });
}

std::string_view Trim(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return text;
}

struct Transfer {
    bool wantBody = false;
    std::string body;
    StringMap cookies;
};

// Callbacks run inside curl: nothing may be thrown through it, so a failure ends the transfer.
size_t OnBody(char* data, size_t size, size_t count, void* user) noexcept {
    auto* transfer = static_cast<Transfer*>(user);
    try {
        if (transfer->wantBody) transfer->body.append(data, size * count);
    } catch (...) {
        return 0;
    }
    return size * count;
}

// "Set-Cookie: name=value; attributes" gives name and value; other lines are ignored, and cost no
// allocation: every response has several.
void ReadSetCookie(std::string_view line, StringMap& cookies) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return;
    constexpr std::string_view kSetCookie = "set-cookie";
    const std::string_view name = Trim(line.substr(0, colon));
    if (name.size() != kSetCookie.size() || strncasecmp(name.data(), kSetCookie.data(), name.size()) != 0) return;
    std::string_view pair = line.substr(colon + 1);
    pair = pair.substr(0, pair.find(';'));
    const auto equals = pair.find('=');
    if (equals == std::string_view::npos) return;
    const std::string_view cookieName = Trim(pair.substr(0, equals));
    if (!cookieName.empty()) cookies[std::string(cookieName)] = std::string(Trim(pair.substr(equals + 1)));
}

// Called once per header line of every response, redirects included; a later hop's cookie wins.
size_t OnHeader(char* data, size_t size, size_t count, void* user) noexcept {
    try {
        ReadSetCookie(std::string_view(data, size * count), static_cast<Transfer*>(user)->cookies);
    } catch (...) {
        return 0;
    }
    return size * count;
}

struct SlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

Slist MakeSlist(const std::vector<std::string>& lines) {
    Slist list;
    for (const auto& line : lines) {
        curl_slist* appended = curl_slist_append(list.get(), line.c_str());
        if (appended == nullptr) throw std::bad_alloc();
        list.release();
        list.reset(appended);
    }
    return list;
}

}  // namespace

std::string UrlParseError(const std::string& url) {
    const std::unique_ptr<CURLU, void (*)(CURLU*)> handle(curl_url(), curl_url_cleanup);
    if (!handle) return "out of memory";
    const CURLUcode rc = curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0);
    return rc == CURLUE_OK ? std::string() : curl_url_strerror(rc);
}

const char* DescribeHResult(std::int64_t code) {
    // A 32-bit result code may arrive sign-extended.
    if (code < 0 && code >= INT32_MIN) code = static_cast<std::uint32_t>(code);
    switch (code) {
        case 0x80070002: return "The system cannot find the file specified.";
        case 0x80070057: return "The uri parameter was a null reference.";
        case 0x8000000E: return "A method was called at an unexpected time.";
        case 0x80000013: return "The object has been closed.";
        case 0x80072EE7: return "The server name or address specified in the uri parameter could not be resolved.";
        case 0x80072EEE: return "An incorrect password was presented to the server.";
        case 0x80072EFD: return "A connection with the server specified in the uri parameter could not be established.";
        case 0x80072EFE: return "The connection with the server was terminated abnormally.";
        case 0x80072EFF: return "The connection with the server was reset.";
        case 0x80072F30: return "There was a problem connecting to the server.";
        case 0x80072F80: return "A redirection problem occurred.";
        case 0x800C0005: return "The system cannot locate the resource specified in the uri parameter.";
        case 0x800C0014: return "A redirection problem occurred.";
        case 123: return "The syntax used in the uri parameter is incorrect.";  // the plain number only
        default: return "Unknown COMException";
    }
}

// Idle transfer handles. Each easy handle runs inside a multi handle of its own, which keeps the
// connection cache, so a request that takes the pair the previous one gave back reuses that
// request's connection; the multi handle also lets Abort wake a transfer that is waiting.
struct HttpClient::Shared : std::enable_shared_from_this<HttpClient::Shared> {
    struct Handle {
        CURL* easy = nullptr;
        CURLM* multi = nullptr;
    };

    explicit Shared(Clock& timers) : clock(timers) {}

    Clock& clock;
    Slist connectTo;
    Mutex mutex;
    std::vector<Handle> idle GUARDED_BY(mutex);
    std::vector<CURLM*> active GUARDED_BY(mutex);  // transfers that Abort must wake
    bool aborted GUARDED_BY(mutex) = false;
    bool usedSinceCheck GUARDED_BY(mutex) = false;
    std::shared_ptr<Timer> idleCheck GUARDED_BY(mutex);  // runs while idle handles are kept

    // Null once aborted: no new request starts.
    std::optional<Handle> Take() {
        {
            MutexLock lock(mutex);
            if (aborted) return std::nullopt;
            if (!idle.empty()) {
                Handle handle = idle.back();
                idle.pop_back();
                return handle;
            }
        }
        InitCurlOnce();  // here, not in the constructor: starting the TLS library costs milliseconds
        Handle handle{curl_easy_init(), curl_multi_init()};
        if (handle.easy == nullptr || handle.multi == nullptr) {
            Close(handle);
            throw std::bad_alloc();
        }
        // What every request shares is set once: resetting the handle and setting it all again
        // took about a sixth of each request's CPU time on loopback.
        CURL* curl = handle.easy;
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
        curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
        if (connectTo) curl_easy_setopt(curl, CURLOPT_CONNECT_TO, connectTo.get());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnBody);
        curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, OnHeader);
        return handle;
    }

    void Give(Handle handle) {
        {
            MutexLock lock(mutex);
            usedSinceCheck = true;
            if (idle.size() < kMaxIdleHandles && !aborted) {
                idle.push_back(handle);
                if (!idleCheck) {
                    std::weak_ptr<Shared> self = shared_from_this();
                    idleCheck = clock.Every(kIdleConnectionCheck, [self] {
                        if (auto shared = self.lock()) shared->CloseIdleUnlessUsed();
                    });
                }
                return;
            }
        }
        Close(handle);
    }

    // The timer's tick: the handles idle since the last tick are closed with their connections.
    void CloseIdleUnlessUsed() {
        std::vector<Handle> closing;
        {
            MutexLock lock(mutex);
            if (std::exchange(usedSinceCheck, false)) return;
            closing.swap(idle);
            if (idleCheck) idleCheck->Cancel();
            idleCheck.reset();
        }
        for (const auto& handle : closing) Close(handle);
    }

    // False when the client was aborted before the transfer could be registered.
    bool Register(CURLM* multi) {
        MutexLock lock(mutex);
        if (aborted) return false;
        active.push_back(multi);
        return true;
    }
    void Unregister(CURLM* multi) {
        MutexLock lock(mutex);
        active.erase(std::remove(active.begin(), active.end(), multi), active.end());
    }
    bool Aborted() {
        MutexLock lock(mutex);
        return aborted;
    }

    static void Close(Handle handle) {
        if (handle.multi != nullptr) curl_multi_cleanup(handle.multi);
        if (handle.easy != nullptr) curl_easy_cleanup(handle.easy);
    }
};

namespace {

// What a transfer ended with: curl's code, or a failure of the multi interface that drives it.
struct TransferEnd {
    CURLcode code = CURLE_OK;
    CURLMcode multi = CURLM_OK;
};

// curl_easy_perform, but on the handle's multi handle so that HttpClient::Abort can end the wait.
TransferEnd RunTransfer(HttpClient::Shared& shared, const HttpClient::Shared::Handle& handle) {
    TransferEnd end;
    if ((end.multi = curl_multi_add_handle(handle.multi, handle.easy)) != CURLM_OK) return end;
    end.code = CURLE_ABORTED_BY_CALLBACK;
    if (shared.Register(handle.multi)) {
        for (;;) {
            int running = 0;
            if ((end.multi = curl_multi_perform(handle.multi, &running)) != CURLM_OK) break;
            if (running == 0) {
                int left = 0;
                while (CURLMsg* message = curl_multi_info_read(handle.multi, &left)) {
                    if (message->msg == CURLMSG_DONE) end.code = message->data.result;
                }
                break;
            }
            if (shared.Aborted()) break;
            curl_multi_poll(handle.multi, nullptr, 0, 1000, nullptr);
        }
        shared.Unregister(handle.multi);
    }
    curl_multi_remove_handle(handle.multi, handle.easy);
    return end;
}

}  // namespace

HttpClient::HttpClient(std::vector<std::string> connectTo, Clock& clock) : shared_(std::make_shared<Shared>(clock)) {
    shared_->connectTo = MakeSlist(connectTo);
}

HttpClient::~HttpClient() {
    MutexLock lock(shared_->mutex);
    if (shared_->idleCheck) shared_->idleCheck->Cancel();
    for (const auto& handle : shared_->idle) Shared::Close(handle);
    shared_->idle.clear();
}

void HttpClient::Abort() {
    MutexLock lock(shared_->mutex);
    shared_->aborted = true;
    for (CURLM* multi : shared_->active) curl_multi_wakeup(multi);
}

HttpOutcome HttpClient::Send(const HttpRequest& request) {
    // The time allowed has run out before the request could start; curl would read 0 as no limit.
    if (request.timeoutMillis <= 0) return HttpOutcome::TimedOut();
    auto& shared = *shared_;
    Transfer transfer;
    transfer.wantBody = request.wantBody;
    std::vector<std::string> lines;
    for (const auto& [name, value] : request.headers) {
        // "Name:" alone would make curl drop the header; "Name;" sends it with an empty value.
        lines.push_back(value.empty() ? name + ";" : name + ": " + value);
    }
    Slist headers = MakeSlist(lines);
    std::string cookieHeader;
    for (const auto& [name, value] : request.cookies) {
        if (!cookieHeader.empty()) cookieHeader += "; ";
        cookieHeader += name + "=" + value;
    }
    char error[CURL_ERROR_SIZE] = {};

    const auto handle = shared.Take();
    if (!handle) return HttpOutcome::Failed(kConnectionAborted, DescribeHResult(kConnectionAborted));
    // Every option a request may change is set by each request, so that none is left from the last.
    CURL* curl = handle->easy;
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method != "GET" ? request.method.c_str() : nullptr);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeoutMillis));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl, CURLOPT_COOKIE, cookieHeader.empty() ? nullptr : cookieHeader.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);

    const TransferEnd end = RunTransfer(shared, *handle);
    long status = 0;
    if (end.multi == CURLM_OK && end.code == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    // The handle must not keep pointers into this frame once it is back in the pool.
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, nullptr);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, nullptr);
    shared.Give(*handle);

    if (end.multi != CURLM_OK) {
        return HttpOutcome::Failed(kUnmappedCurlBase + kMultiCodeBase + end.multi,
                                   std::string("curl's multi interface failed: ") + curl_multi_strerror(end.multi));
    }
    if (end.code == CURLE_OPERATION_TIMEDOUT) return HttpOutcome::TimedOut();
    if (end.code != CURLE_OK) {
        const std::int64_t mapped = MapCurlCode(end.code);
        // Failures of the table carry its message; the rest carry curl's own account of them.
        std::string message = DescribeHResult(mapped);
        if (mapped >= kUnmappedCurlBase) message = error[0] != '\0' ? error : curl_easy_strerror(end.code);
        const bool refused = end.code == CURLE_URL_MALFORMAT || end.code == CURLE_UNSUPPORTED_PROTOCOL ||
                             end.code == CURLE_BAD_FUNCTION_ARGUMENT;
        return HttpOutcome::Failed(mapped, message, refused);
    }
    return HttpOutcome::Answered(static_cast<std::int32_t>(status), std::move(transfer.body),
                                 std::move(transfer.cookies));
}

RequestHandler::RequestHandler(Transport& transport, const Logger& log, std::string uri)
    : transport_(transport), log_(log) {
    request_.url = std::move(uri);
}

void RequestHandler::SetHeader(const std::string& name, const std::string& value) {
    request_.headers.emplace_back(name, value);
}

void RequestHandler::SetCookie(const std::string& name, const std::string& value) { request_.cookies[name] = value; }

HttpOutcome RequestHandler::Perform(bool wantBody) {
    request_.wantBody = wantBody;
    HttpOutcome outcome = transport_.Send(request_);
    responseCookies_ = outcome.cookies;
    timedOut_ = outcome.kind == HttpOutcome::Kind::kTimedOut;
    if (timedOut_) log_.Debug("Request Handler - Request timed out");
    if (outcome.kind == HttpOutcome::Kind::kFailed) {
        log_.Debug("Request Handler - Error processing request (%s)", DescribeHResult(outcome.code));
        throw TransportError(outcome.code, outcome.message, outcome.refused);
    }
    return outcome;
}

std::int32_t RequestHandler::GetStatusCode() {
    HttpOutcome outcome = Perform(false);
    return timedOut_ ? 408 : outcome.status;
}

std::string RequestHandler::GetResponseText() {
    HttpOutcome outcome = Perform(true);
    return timedOut_ ? std::string() : std::move(outcome.body);
}

}  // namespace velmora

#include "collector.h"

#include <optional>

#include "hit_decoder.h"
#include "page.h"
#include "render.h"

#include <nlohmann/json.hpp>

#include <sys/socket.h>

#include <charconv>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace velmora::collector {
namespace {

using nlohmann::json;

std::int64_t NowMillis() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string QueryOf(const std::string& target) {
    std::size_t question = target.find('?');
    return question == std::string::npos ? std::string() : target.substr(question + 1);
}

// "a=1; b=2" into its pairs; values are taken as they come.
StringMap ParseCookies(const std::string& header) {
    StringMap cookies;
    std::size_t start = 0;
    while (start < header.size()) {
        std::size_t end = header.find(';', start);
        if (end == std::string::npos) end = header.size();
        std::string item = header.substr(start, end - start);
        std::size_t first = item.find_first_not_of(' ');
        std::size_t equals = item.find('=');
        if (first != std::string::npos && equals != std::string::npos && equals > first) {
            cookies.emplace(item.substr(first, equals - first), item.substr(equals + 1));
        }
        start = end + 1;
    }
    return cookies;
}

json PairsObject(const QueryPairs& pairs) {
    json object = json::object();
    for (const auto& [key, value] : pairs) object[key] = value;
    return object;
}

}  // namespace

Collector::Collector(CollectorOptions options, Output output)
    : options_(std::move(options)), output_(std::move(output)), hits_(options_.keep) {
    // Quick restarts may reuse the address, but a second collector must not share the port and
    // take half of the hits: the library's default asks for SO_REUSEPORT.
    server_.set_socket_options([](socket_t socket) {
        int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    Routes();
}

Collector::~Collector() { Stop(); }

int Collector::Bind() {
    int port = options_.port == 0 ? server_.bind_to_any_port(options_.host)
                                  : (server_.bind_to_port(options_.host, options_.port) ? options_.port : -1);
    if (port < 0) {
        throw std::runtime_error("cannot listen on " + options_.host + " port " + std::to_string(options_.port));
    }
    port_ = port;
    return port;
}

void Collector::Serve() {
    {
        std::lock_guard lock(stateMutex_);
        if (stopping_) return;
        serving_ = true;
    }
    server_.listen_after_bind();
    serving_ = false;
}

void Collector::Stop() {
    {
        std::lock_guard lock(stateMutex_);
        stopping_ = true;
    }
    stopped_.notify_all();
    // Serve may have been entered but not yet reached its accept loop; stop() needs the loop.
    while (serving_ && !server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    server_.stop();
}

std::string Collector::Address() const {
    bool ipv6 = options_.host.find(':') != std::string::npos;
    return "http://" + (ipv6 ? "[" + options_.host + "]" : options_.host) + ":" + std::to_string(port_);
}

void Collector::Routes() {
    using httplib::Request;
    using httplib::Response;
    server_.Get(R"(/b/ss/.*)", [this](const Request& q, Response& r) { OnHit(q, r); });
    server_.Get("/id", [this](const Request& q, Response& r) { OnId(q, r); });
    server_.Get(R"(/m2/[^/]+/ubox/raw)", [this](const Request& q, Response& r) { OnOffer(q, r); });
    server_.Get("/event", [this](const Request& q, Response& r) { OnAudience(q, r); });
    server_.Get("/hits.json", [this](const Request& q, Response& r) { OnHitsJson(q, r); });
    server_.Get("/", [](const Request&, Response& r) {
        r.set_header("Cache-Control", "no-store");
        r.set_content(PageHtml(), "text/html; charset=utf-8");
    });
    server_.Get("/favicon.ico", [](const Request&, Response& r) { r.status = 204; });
    server_.Get(".*", [this](const Request& q, Response& r) { Reject(q, r, 404, "no such endpoint"); });
    // The HTTP layer answers some requests by itself (a target over its 8 KiB limit, a broken
    // request line, a method without a route); every answer of ours carries a body.
    server_.set_error_handler(httplib::Server::HandlerWithResponse([this](const Request& q, Response& r) {
        if (!r.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        int status = r.status;
        Reject(q, r, status, status == 414 ? "request target too long" : "refused by the HTTP layer");
        return httplib::Server::HandlerResponse::Handled;
    }));
    server_.set_exception_handler([this](const Request& q, Response& r, std::exception_ptr error) {
        std::string what = "unexpected failure";
        try {
            if (error) std::rethrow_exception(error);
        } catch (const std::exception& e) {
            what = e.what();
        } catch (...) {
        }
        Reject(q, r, 500, what);
    });
}

void Collector::OnHit(const httplib::Request& request, httplib::Response& response) {
    ReceivedHit received;
    try {
        received.hit = DecodeHit(request.target);
    } catch (const MalformedRequest& e) {
        Reject(request, response, 400, e.what());
        return;
    }
    received.receivedMillis = NowMillis();
    received.status = options_.hitStatus;
    received.url = request.target;
    {
        std::lock_guard lock(printMutex_);
        ReceivedHit kept = hits_.Add(std::move(received));
        output_.out(options_.json ? JsonLine(HitJson(kept)) : HitBlock(kept));
    }
    WaitBeforeAnswer();
    response.status = options_.hitStatus;
    response.set_content(options_.hitStatus >= 400 ? "answered as asked by --status\n" : "", "text/plain");
}

void Collector::OnId(const httplib::Request& request, httplib::Response& response) {
    json answer{{"id", options_.aid}};
    Print(options_.json ? JsonLine({{"kind", "id"}, {"url", request.target}, {"id", options_.aid}})
                        : "id request answered with " + Printable(options_.aid) + "\n\n");
    response.set_content(answer.dump(), "application/json");
}

void Collector::OnOffer(const httplib::Request& request, httplib::Response& response) {
    auto query = QueryOrReject(request, response);
    if (!query) return;
    const QueryPairs& parameters = *query;
    StringMap cookies = ParseCookies(request.get_header_value("Cookie"));
    auto cookie = [&](const char* name, const std::string& fallback) {
        auto found = cookies.find(name);
        return found == cookies.end() || found->second.empty() ? fallback : found->second;
    };
    std::string pcId = cookie("mboxPC", options_.pcId);
    std::string sessionId = cookie("mboxSession", options_.sessionId);
    std::string mbox;
    for (const auto& [key, value] : parameters) {
        if (key == "mbox") mbox = value;
    }
    std::string client = request.path.substr(4, request.path.find('/', 4) - 4);
    if (options_.json) {
        Print(JsonLine({{"kind", "offer"}, {"url", request.target}, {"client", client}, {"mbox", mbox},
                        {"parameters", PairsObject(parameters)}}));
    } else {
        Print("offer request for \"" + Printable(mbox) + "\" (client " + Printable(client) + ") answered with " +
              std::to_string(options_.offerContent.size()) + " bytes, mboxPC " + Printable(pcId) +
              ", mboxSession " + Printable(sessionId) + "\n\n");
    }
    response.set_header("Set-Cookie", "mboxPC=" + pcId + "; Path=/");
    response.set_header("Set-Cookie", "mboxSession=" + sessionId + "; Path=/");
    response.set_content(options_.offerContent, "text/plain; charset=utf-8");
}

void Collector::OnAudience(const httplib::Request& request, httplib::Response& response) {
    auto query = QueryOrReject(request, response);
    if (!query) return;
    const QueryPairs& parameters = *query;
    json segments = json::array();
    StringMap traits;
    for (const auto& [key, value] : parameters) {
        if (key.size() > 2 && key.compare(0, 2, "c_") == 0) {
            segments.push_back({{"cn", key.substr(2)}, {"cv", value}});
            traits[key.substr(2)] = value;
        }
    }
    json destinations = json::array();
    for (const auto& url : options_.destinations) destinations.push_back({{"c", url}});
    json answer{{"uuid", options_.uuid}, {"dests", destinations}, {"stuff", segments}};

    if (options_.json) {
        Print(JsonLine({{"kind", "audience"}, {"url", request.target}, {"traits", traits},
                        {"parameters", PairsObject(parameters)}}));
    } else {
        std::string text = "audience signal answered with uuid " + Printable(options_.uuid) + " and " +
                           std::to_string(traits.size()) + " segments\n";
        Print(text + AlignedEntries(traits, 4) + "\n");
    }
    response.set_content(answer.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

void Collector::OnHitsJson(const httplib::Request& request, httplib::Response& response) {
    std::uint64_t since = 0;
    if (request.has_param("since")) {
        const std::string text = request.get_param_value("since");
        auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), since);
        if (error != std::errc() || end != text.data() + text.size()) {
            Reject(request, response, 400, "\"since\" is not a hit number");
            return;
        }
    }
    json list = json::array();
    for (const auto& hit : hits_.NewestFirst(since)) list.push_back(HitJson(hit));
    json answer{{"received", hits_.TotalReceived()}, {"kept", hits_.Size()}, {"hits", std::move(list)}};
    response.set_header("Cache-Control", "no-store");
    response.set_content(answer.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

std::optional<QueryPairs> Collector::QueryOrReject(const httplib::Request& request, httplib::Response& response) {
    try {
        return ParseQuery(QueryOf(request.target));
    } catch (const MalformedRequest& e) {
        Reject(request, response, 400, e.what());
        return std::nullopt;
    }
}

void Collector::Reject(const httplib::Request& request, httplib::Response& response, int status,
                       const std::string& reason) {
    response.status = status;
    response.set_content(reason + "\n", "text/plain; charset=utf-8");
    std::lock_guard lock(printMutex_);
    // A request the HTTP layer could not read has neither method nor target.
    std::string what = request.method.empty() ? "a request" : request.method + " " + Printable(request.target);
    output_.err("velmora-collector: " + std::to_string(status) + " for " + what + ": " + Printable(reason) + "\n");
}

void Collector::Print(const std::string& text) {
    std::lock_guard lock(printMutex_);
    output_.out(text);
}

void Collector::WaitBeforeAnswer() {
    if (options_.hitDelayMillis <= 0) return;
    std::unique_lock lock(stateMutex_);
    stopped_.wait_for(lock, std::chrono::milliseconds(options_.hitDelayMillis), [this] { return stopping_; });
}

}  // namespace velmora::collector

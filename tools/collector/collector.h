#pragma once

#include "recent_hits.h"
#include "options.h"

#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::collector {

// Where the collector writes: `out` gets the hit blocks or JSON lines, `err` one line per rejected
// request. Each call carries whole lines; calls may come from several threads.
struct Output {
    std::function<void(std::string_view)> out;
    std::function<void(std::string_view)> err;
};

// The collection server: hit, identifier, offer and audience endpoints, the live page and its
// JSON feed. Bind, then Serve on a thread of the caller's choice until Stop.
class Collector {
public:
    Collector(CollectorOptions options, Output output);
    ~Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    // Binds the listening socket and returns the port. Throws std::runtime_error on failure.
    int Bind();
    // Accepts requests until Stop; returns at once when Stop came first.
    void Serve();
    // Makes Serve return; delayed answers are cut short. Safe from any thread, more than once.
    void Stop();

    int Port() const { return port_; }
    std::string Address() const;  // "http://host:port"
    const RecentHits& Hits() const { return hits_; }

private:
    void Routes();
    void OnHit(const httplib::Request& request, httplib::Response& response);
    void OnId(const httplib::Request& request, httplib::Response& response);
    void OnOffer(const httplib::Request& request, httplib::Response& response);
    void OnAudience(const httplib::Request& request, httplib::Response& response);
    void OnHitsJson(const httplib::Request& request, httplib::Response& response);
    // The request's query, or nothing after answering 400 for a malformed one.
    std::optional<QueryPairs> QueryOrReject(const httplib::Request& request, httplib::Response& response);
    void Reject(const httplib::Request& request, httplib::Response& response, int status,
                const std::string& reason);
    void Print(const std::string& text);
    void WaitBeforeAnswer();

    const CollectorOptions options_;
    const Output output_;
    RecentHits hits_;
    httplib::Server server_;
    int port_ = -1;

    std::mutex printMutex_;  // keeps printed blocks whole and in hit order
    std::mutex stateMutex_;
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::atomic<bool> serving_{false};
};

}  // namespace velmora::collector

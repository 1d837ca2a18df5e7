#pragma once

#include <httplib.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velmora::test {

// A hit as a collection server sees it: its variables and its context data, decoded.
struct ReceivedHit {
    std::string target;
    std::map<std::string, std::string> variables, context;
};
// Decodes a hit's request target ("/b/ss/.../s123?AQB=1&ndh=1...&AQE=1").
ReceivedHit DecodeHit(const std::string& target);

// A real HTTP server on 127.0.0.1 and a free port. It records every request, answers scripted
// statuses first (see Script), then through the handler the test set (default: 200, empty body).
class LoopbackServer {
public:
    struct Request {
        std::string target;  // path and query as sent
        std::string path;
        httplib::Headers headers;
        int remotePort = -1;
        std::string Header(const std::string& name) const { auto it = headers.find(name); return it != headers.end() ? it->second : ""; }
    };
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    LoopbackServer();
    ~LoopbackServer();

    void OnGet(Handler handler) { std::lock_guard lock(mutex_); handler_ = std::move(handler); }
    // Answers for the next requests, in order.
    void Script(std::vector<int> statuses) { std::lock_guard lock(mutex_); script_.assign(statuses.begin(), statuses.end()); }
    // For handlers: blocks until Release() or the end of the server.
    void Hold() { std::unique_lock lock(mutex_); released_.wait(lock, [this] { return release_; }); }
    void Release() { std::lock_guard lock(mutex_); release_ = true; released_.notify_all(); }

    int Port() const { return port_; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string Url(const std::string& path = "") const { return "http://" + Address() + path; }

    std::vector<Request> Requests() const { std::lock_guard lock(mutex_); return requests_; }
    std::vector<std::string> Targets() const { std::vector<std::string> t; for (const auto& r : Requests()) t.push_back(r.target); return t; }
    std::vector<ReceivedHit> Hits() const;  // the requests under /b/ss/, decoded
    std::size_t Count() const { std::lock_guard lock(mutex_); return requests_.size(); }
    std::size_t Connections() const;  // distinct client ports seen
    bool WaitForRequests(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = -1;
    mutable std::mutex mutex_;
    std::condition_variable released_;
    bool release_ = false;
    Handler handler_;
    std::deque<int> script_;
    std::vector<Request> requests_;
};

// A TCP socket bound to a free port on 127.0.0.1, not yet listening; sets `port`.
int BoundSocket(int& port);

// A port on 127.0.0.1 that is bound but never listens, so every connection attempt is refused.
class ClosedPort {
public:
    ClosedPort() : socket_(BoundSocket(port_)) {}
    ~ClosedPort() { ::close(socket_); }
    int Port() const { return port_; }

private:
    int port_ = -1;
    int socket_;
};

}  // namespace velmora::test

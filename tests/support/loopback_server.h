#pragma once

#include <httplib.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velmora::test {

// A real HTTP server on 127.0.0.1 and a free port that records every request it receives and
// answers through a handler the test can change at any time.
class LoopbackServer {
public:
    struct Request {
        std::string target;  // path and query as sent
        std::string path;
        httplib::Headers headers;
        int remotePort = -1;
        std::string Header(const std::string& name) const;
    };
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    LoopbackServer();
    ~LoopbackServer();

    void OnGet(Handler handler);  // default: 200 with an empty body
    int Port() const { return port_; }
    std::string Url(const std::string& path = "") const;
    std::vector<Request> Requests() const;
    std::size_t Count() const;
    bool WaitForRequests(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = -1;
    mutable std::mutex mutex_;
    Handler handler_;
    std::vector<Request> requests_;
};

}  // namespace velmora::test

#pragma once

#include <httplib.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velmora::test {

// An HTTP server on 127.0.0.1 that records what it receives. Built-in paths:
//   /status/<n>   answers status n with the body "status <n>"
//   /hold         answers only when Release() is called (or the server stops)
//   /loop         redirects to itself
//   /cookies      body = the request's Cookie header; every query parameter comes back as a
//                 Set-Cookie of that name and value
// Other paths answer 404 unless given a handler with Route().
class LoopbackServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;
    struct Received {
        std::string path;
        httplib::Headers headers;
        int remotePort = -1;
    };

    LoopbackServer();
    ~LoopbackServer();

    int Port() const { return port_; }
    std::string Url(const std::string& path) const;
    void Route(const std::string& path, Handler handler);
    std::vector<Received> Requests() const;
    std::size_t Count(const std::string& path) const;
    void Release();

private:
    void Dispatch(const httplib::Request& request, httplib::Response& response);
    void Hold();

    httplib::Server server_;
    int port_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable released_;
    bool release_ = false;
    std::map<std::string, Handler> routes_;
    std::vector<Received> received_;
};

// Accepts connections on 127.0.0.1, reads the request and then, instead of answering, resets the
// connection (RST) or closes it (FIN).
class BrokenServer {
public:
    enum class Mode { kReset, kClose };
    explicit BrokenServer(Mode mode);
    ~BrokenServer();
    int Port() const { return port_; }

private:
    void Serve();

    const Mode mode_;
    int listener_ = -1;
    int port_ = -1;
    std::thread thread_;
};

// A port on 127.0.0.1 that is bound but never listens, so every connection attempt is refused.
class ClosedPort {
public:
    ClosedPort();
    ~ClosedPort();
    int Port() const { return port_; }

private:
    int socket_ = -1;
    int port_ = -1;
};

}  // namespace velmora::test

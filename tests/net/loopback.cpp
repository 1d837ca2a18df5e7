#include "loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace velmora::test {
namespace {

int BoundSocket(int& port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof(address);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd);
        throw std::runtime_error("bind");
    }
    port = ntohs(address.sin_port);
    return fd;
}

}  // namespace

LoopbackServer::LoopbackServer() {
    server_.set_keep_alive_timeout(2);
    server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
        Dispatch(request, response);
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind the loopback server");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
}

LoopbackServer::~LoopbackServer() {
    Release();
    server_.stop();
    thread_.join();
}

std::string LoopbackServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void LoopbackServer::Route(const std::string& path, Handler handler) {
    std::lock_guard lock(mutex_);
    routes_[path] = std::move(handler);
}

std::vector<LoopbackServer::Received> LoopbackServer::Requests() const {
    std::lock_guard lock(mutex_);
    return received_;
}

std::size_t LoopbackServer::Count(const std::string& path) const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& r : received_) n += (r.path == path);
    return n;
}

void LoopbackServer::Release() {
    {
        std::lock_guard lock(mutex_);
        release_ = true;
    }
    released_.notify_all();
}

void LoopbackServer::Hold() {
    std::unique_lock lock(mutex_);
    released_.wait(lock, [this] { return release_; });
}

void LoopbackServer::Dispatch(const httplib::Request& request, httplib::Response& response) {
    Handler handler;
    {
        std::lock_guard lock(mutex_);
        received_.push_back({request.path, request.headers, request.remote_port});
        auto it = routes_.find(request.path);
        if (it != routes_.end()) handler = it->second;
    }
    if (handler) {
        handler(request, response);
    } else if (request.path.rfind("/status/", 0) == 0) {
        response.status = std::stoi(request.path.substr(8));
        response.set_content("status " + request.path.substr(8), "text/plain");
    } else if (request.path == "/hold") {
        Hold();
        response.set_content("late", "text/plain");
    } else if (request.path == "/loop") {
        response.set_redirect("/loop");
    } else if (request.path == "/cookies") {
        for (const auto& [name, value] : request.params) {
            response.headers.emplace("Set-Cookie", name + "=" + value + "; Path=/");
        }
        response.set_content(request.get_header_value("Cookie"), "text/plain");
    } else {
        response.status = 404;
    }
}

BrokenServer::BrokenServer(Mode mode) : mode_(mode) {
    listener_ = BoundSocket(port_);
    if (::listen(listener_, 8) != 0) {
        ::close(listener_);
        throw std::runtime_error("listen");
    }
    thread_ = std::thread([this] { Serve(); });
}

BrokenServer::~BrokenServer() {
    ::shutdown(listener_, SHUT_RDWR);  // wakes the blocked accept
    thread_.join();
    ::close(listener_);
}

void BrokenServer::Serve() {
    for (;;) {
        int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) return;
        // Wait for the whole request head, so the failure hits the client while it reads.
        std::string head;
        char buffer[1024];
        while (head.find("\r\n\r\n") == std::string::npos) {
            ssize_t n = ::recv(connection, buffer, sizeof(buffer), 0);
            if (n <= 0) break;
            head.append(buffer, static_cast<std::size_t>(n));
        }
        if (mode_ == Mode::kReset) {
            linger hard{1, 0};
            ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        }
        ::close(connection);
    }
}

ClosedPort::ClosedPort() { socket_ = BoundSocket(port_); }

ClosedPort::~ClosedPort() { ::close(socket_); }

}  // namespace velmora::test

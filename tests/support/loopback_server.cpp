#include "support/loopback_server.h"

#include "support/test_support.h"

#include <hit_decoder.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <set>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace velmora::test {

int BoundSocket(int& port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd);
        throw std::runtime_error("bind");
    }
    port = ntohs(address.sin_port);
    return fd;
}

ReceivedHit DecodeHit(const std::string& target) {
    auto hit = collector::DecodeHit(target);
    return {target, hit.variables, hit.contextData};
}

LoopbackServer::LoopbackServer() {
    server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
        Handler handler;
        int scripted = 0;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back({request.target, request.path, request.headers, request.remote_port});
            if (!script_.empty()) {
                scripted = script_.front();
                script_.pop_front();
            }
            handler = handler_;
        }
        if (scripted != 0) response.status = scripted;
        else if (handler) handler(request, response);
    });
    // An idle kept-alive connection must not hold the server open for long when it stops.
    server_.set_keep_alive_timeout(1);
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    if (!WaitUntil([this] { return server_.is_running(); })) throw std::runtime_error("server did not start");
}

LoopbackServer::~LoopbackServer() {
    Release();
    server_.stop();
    if (thread_.joinable()) thread_.join();
}

std::vector<ReceivedHit> LoopbackServer::Hits() const {
    std::vector<ReceivedHit> hits;
    for (const auto& request : Requests()) if (request.path.rfind("/b/ss/", 0) == 0) hits.push_back(DecodeHit(request.target));
    return hits;
}

std::size_t LoopbackServer::Connections() const {
    std::lock_guard lock(mutex_);
    std::set<int> ports;
    for (const auto& request : requests_) ports.insert(request.remotePort);
    return ports.size();
}

bool LoopbackServer::WaitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
    return WaitUntil([&] { return Count() >= count; }, limit);
}

}  // namespace velmora::test

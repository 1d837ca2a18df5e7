#include "support/loopback_server.h"

#include "support/test_support.h"

#include <stdexcept>

namespace velmora::test {

std::string LoopbackServer::Request::Header(const std::string& name) const {
    auto it = headers.find(name);
    return it != headers.end() ? it->second : "";
}

LoopbackServer::LoopbackServer() {
    server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
        Handler handler;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back({request.target, request.path, request.headers, request.remote_port});
            handler = handler_;
        }
        if (handler) handler(request, response);
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    if (!WaitUntil([this] { return server_.is_running(); })) throw std::runtime_error("server did not start");
}

LoopbackServer::~LoopbackServer() {
    server_.stop();
    if (thread_.joinable()) thread_.join();
}

void LoopbackServer::OnGet(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

std::string LoopbackServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<LoopbackServer::Request> LoopbackServer::Requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::size_t LoopbackServer::Count() const {
    std::lock_guard lock(mutex_);
    return requests_.size();
}

bool LoopbackServer::WaitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
    return WaitUntil([&] { return Count() >= count; }, limit);
}

}  // namespace velmora::test

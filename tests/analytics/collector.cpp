#include "collector.h"

#include "support/test_support.h"

#include <stdexcept>

namespace velmora::test {

Collector::Collector() {
    server_.set_keep_alive_max_count(100000);
    // Stopping waits for open keep-alive connections, such as the process-wide runtime's.
    server_.set_keep_alive_timeout(1);
    server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
        std::function<void(const std::string&)> observer;
        int status = 200;
        {
            std::lock_guard lock(mutex_);
            observer = observer_;
            if (!script_.empty()) {
                status = script_.front();
                script_.erase(script_.begin());
            }
        }
        if (observer) observer(request.target);
        {
            std::lock_guard lock(mutex_);
            targets_.push_back(request.target);
            clientPorts_.insert(request.remote_port);
        }
        response.status = status;
        response.set_content("", "text/plain");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    WaitUntil([this] { return server_.is_running(); });
}

Collector::~Collector() {
    server_.stop();
    if (thread_.joinable()) thread_.join();
}

void Collector::Script(std::vector<int> statuses) {
    std::lock_guard lock(mutex_);
    script_ = std::move(statuses);
}

void Collector::OnRequest(std::function<void(const std::string& target)> observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

std::vector<std::string> Collector::Targets() const {
    std::lock_guard lock(mutex_);
    return targets_;
}

std::size_t Collector::Count() const {
    std::lock_guard lock(mutex_);
    return targets_.size();
}

std::size_t Collector::Connections() const {
    std::lock_guard lock(mutex_);
    return clientPorts_.size();
}

bool Collector::WaitForCount(std::size_t count) const {
    return WaitUntil([&] { return Count() >= count; });
}

std::string AnalyticsConfig(const std::string& server, bool offline, int batchLimit, const std::string& privacy) {
    return R"({"analytics":{"rsids":"rs1,rs2","server":")" + server + R"(","charset":"UTF-8","offlineEnabled":)" +
           (offline ? "true" : "false") + R"(,"batchLimit":)" + std::to_string(batchLimit) +
           R"(,"privacyDefault":")" + privacy + R"(","ssl":false}})";
}

}  // namespace velmora::test

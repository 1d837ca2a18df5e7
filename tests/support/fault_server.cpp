#include "support/fault_server.h"

#include "support/loopback_server.h"

#include <cerrno>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace velmora::test {
namespace {

constexpr int kPollMillis = 20;  // how often waits look at the stop flag

}  // namespace

FaultServer::FaultServer() : FaultServer(Answer{}) {}

FaultServer::FaultServer(Answer otherwise) : otherwise_(otherwise) {
    listener_ = BoundSocket(port_);
    if (::listen(listener_, 16) != 0) {
        ::close(listener_);
        throw std::runtime_error("cannot listen on a loopback port");
    }
    thread_ = std::thread([this] { Serve(); });
}

FaultServer::~FaultServer() {
    stopping_ = true;
    thread_.join();
    ::close(listener_);
}

void FaultServer::Script(std::vector<Answer> answers) {
    std::lock_guard lock(mutex_);
    script_.assign(answers.begin(), answers.end());
}

std::vector<FaultServer::Exchange> FaultServer::Exchanges() const {
    std::lock_guard lock(mutex_);
    return exchanges_;
}

bool FaultServer::WaitForCount(std::size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return exchanges_.size() >= count; });
}

bool FaultServer::Pause(std::chrono::milliseconds duration) {
    const auto deadline = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < deadline) {
        if (stopping_) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(kPollMillis));
    }
    return !stopping_;
}

void FaultServer::Serve() {
    while (!stopping_) {
        pollfd fd{listener_, POLLIN, 0};
        if (::poll(&fd, 1, kPollMillis) <= 0) continue;
        const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        Handle(connection);
    }
}

void FaultServer::Handle(int connection) {
    // The request head; a GET has no body.
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos && !stopping_) {
        pollfd fd{connection, POLLIN, 0};
        if (::poll(&fd, 1, kPollMillis) <= 0) continue;
        const ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        request.append(buffer, static_cast<std::size_t>(n));
    }
    const auto first = request.find(' ');
    const auto second = request.find(' ', first + 1);
    Exchange exchange{"", otherwise_};
    if (first != std::string::npos && second != std::string::npos) {
        exchange.target = request.substr(first + 1, second - first - 1);
    }
    {
        std::lock_guard lock(mutex_);
        if (!script_.empty()) {
            exchange.answer = script_.front();
            script_.pop_front();
        }
    }

    int status = exchange.answer.status;
    switch (exchange.answer.kind) {
        case Kind::kReset: {
            linger abortive{1, 0};  // closing sends a reset instead of an orderly end
            ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
            status = 0;
            break;
        }
        case Kind::kClose:
            status = 0;
            break;
        case Kind::kSilence:
            // Holds the connection until the client gives up and closes it.
            while (!stopping_) {
                pollfd fd{connection, POLLIN, 0};
                if (::poll(&fd, 1, kPollMillis) > 0 && ::recv(connection, buffer, sizeof buffer, 0) <= 0) break;
            }
            status = 0;
            break;
        case Kind::kSlow:
            if (!Pause(exchange.answer.delay)) status = 0;
            break;
        case Kind::kStatus:
            break;
    }
    if (status != 0) {
        const std::string answer = "HTTP/1.1 " + std::to_string(status) +
                                   " Scripted\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
        ::shutdown(connection, SHUT_WR);
    }
    ::close(connection);
    {
        std::lock_guard lock(mutex_);
        exchanges_.push_back(std::move(exchange));
    }
    changed_.notify_all();
}

}  // namespace velmora::test

#pragma once

#include "support/loopback_server.h"

#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

namespace velmora::test {

// A loopback server that reads each request and then resets the connection or closes it without
// an answer. Plain sockets: an HTTP library cannot fail that way on purpose.
class FaultServer {
public:
    enum class Kind { kReset, kClose };

    explicit FaultServer(Kind kind) : kind_(kind), listener_(BoundSocket(port_)) {
        if (::listen(listener_, 16) != 0) {
            ::close(listener_);
            throw std::runtime_error("cannot listen on a loopback port");
        }
        thread_ = std::thread([this] {
            while (!stopping_) {
                const int connection = Ready(listener_) ? ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
                if (connection >= 0) Fail(connection);
            }
        });
    }
    ~FaultServer() {
        stopping_ = true;
        thread_.join();
        ::close(listener_);
    }

    int Port() const { return port_; }

private:
    static bool Ready(int fd) {
        pollfd poll{fd, POLLIN, 0};
        return ::poll(&poll, 1, 20) > 0;  // short, so that the stop flag is seen soon
    }

    void Fail(int connection) {
        // The whole request head first: closing with unread data would reset in either case.
        std::string request;
        char buffer[4096];
        while (request.find("\r\n\r\n") == std::string::npos && !stopping_) {
            if (!Ready(connection)) continue;
            const ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            request.append(buffer, static_cast<std::size_t>(n));
        }
        if (kind_ == Kind::kReset) {
            linger abortive{1, 0};  // closing sends a reset instead of an orderly end
            ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
        }
        ::close(connection);
    }

    const Kind kind_;
    int port_ = 0;
    const int listener_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace velmora::test

#pragma once

#include "support/loopback_server.h"

#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace velmora::test {

// A loopback server that reads each request and then resets the connection or closes it without
// an answer. Plain sockets: an HTTP library cannot fail that way on purpose.
class FaultServer {
public:
    enum class Kind { kReset, kClose };

    explicit FaultServer(Kind kind) : listener_(BoundSocket(port_)) {
        if (::listen(listener_, 16) != 0) {
            ::close(listener_);
            throw std::runtime_error("cannot listen on a loopback port");
        }
        thread_ = std::thread([this, kind] {
            for (int connection; (connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                // The whole request head first: closing with unread data would reset in either case.
                std::string request;
                char buffer[4096];
                for (ssize_t n; request.find("\r\n\r\n") == std::string::npos &&
                                (n = ::recv(connection, buffer, sizeof buffer, 0)) > 0;) {
                    request.append(buffer, static_cast<std::size_t>(n));
                }
                if (kind == Kind::kReset) {
                    linger abortive{1, 0};  // closing sends a reset instead of an orderly end
                    ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
                }
                ::close(connection);
            }
        });
    }
    ~FaultServer() {
        ::shutdown(listener_, SHUT_RDWR);  // ends the blocked accept
        thread_.join();
        ::close(listener_);
    }

    int Port() const { return port_; }

private:
    int port_ = 0;
    const int listener_;
    std::thread thread_;
};

}  // namespace velmora::test

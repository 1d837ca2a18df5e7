#pragma once

#include "support/loopback_server.h"

#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>

namespace velmora::test {

// A loopback HTTP server that misbehaves on purpose. Each request takes the next scripted answer
// (`otherwise` once the script is used up): a status, a connection reset or closed before any
// answer, silence until the client gives up, or a 200 after a delay. Each connection serves one
// request, so that the next request gets its own answer. Plain sockets: a reset and silence are
// beyond an HTTP library.
class FaultServer {
public:
    enum class Kind { kStatus, kReset, kClose, kSilence, kSlow };
    struct Answer {
        Kind kind = Kind::kStatus;
        int status = 200;
        std::chrono::milliseconds delay{0};
    };
    struct Exchange {
        std::string target;
        Answer answer;
    };

    FaultServer() : FaultServer(Answer{}) {}
    explicit FaultServer(Answer otherwise) : otherwise_(otherwise), listener_(BoundSocket(port_)) {
        if (::listen(listener_, 16) != 0) {
            ::close(listener_);
            throw std::runtime_error("cannot listen on a loopback port");
        }
        thread_ = std::thread([this] {
            while (!stopping_) {
                const int connection = Ready(listener_) ? ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
                if (connection >= 0) Handle(connection);
            }
        });
    }
    ~FaultServer() {
        stopping_ = true;
        thread_.join();
        ::close(listener_);
    }

    int Port() const { return port_; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }
    void Script(std::vector<Answer> answers) {
        std::lock_guard lock(mutex_);
        script_.assign(answers.begin(), answers.end());
    }
    std::vector<Exchange> Exchanges() const {
        std::lock_guard lock(mutex_);
        return exchanges_;
    }
    // Waits (in real time) until `count` requests have been answered.
    bool WaitForCount(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return exchanges_.size() >= count; });
    }

private:
    static constexpr int kPollMillis = 20;  // how often waits look at the stop flag

    static bool Ready(int fd) {
        pollfd poll{fd, POLLIN, 0};
        return ::poll(&poll, 1, kPollMillis) > 0;
    }

    void Handle(int connection) {
        // The request head; a GET has no body.
        std::string request;
        char buffer[4096];
        while (request.find("\r\n\r\n") == std::string::npos && !stopping_) {
            if (!Ready(connection)) continue;
            const ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            request.append(buffer, static_cast<std::size_t>(n));
        }
        const auto first = request.find(' ');
        const auto second = request.find(' ', first + 1);
        Exchange exchange{"", otherwise_};
        if (second != std::string::npos) exchange.target = request.substr(first + 1, second - first - 1);
        {
            std::lock_guard lock(mutex_);
            if (!script_.empty()) {
                exchange.answer = script_.front();
                script_.pop_front();
            }
        }
        const Answer& answer = exchange.answer;
        if (answer.kind == Kind::kReset) {
            linger abortive{1, 0};  // closing sends a reset instead of an orderly end
            ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
        }
        // Silence holds the connection until the client gives up and closes it.
        while (answer.kind == Kind::kSilence && !stopping_) {
            if (Ready(connection) && ::recv(connection, buffer, sizeof buffer, 0) <= 0) break;
        }
        for (auto end = std::chrono::steady_clock::now() + answer.delay; !stopping_ && std::chrono::steady_clock::now() < end;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kPollMillis));
        }
        if (answer.kind == Kind::kStatus || (answer.kind == Kind::kSlow && !stopping_)) {
            const std::string text = "HTTP/1.1 " + std::to_string(answer.status) +
                                     " Scripted\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
            ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
            ::shutdown(connection, SHUT_WR);
        }
        ::close(connection);
        {
            std::lock_guard lock(mutex_);
            exchanges_.push_back(std::move(exchange));
        }
        changed_.notify_all();
    }

    const Answer otherwise_;
    int port_ = 0;
    const int listener_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::deque<Answer> script_;
    std::vector<Exchange> exchanges_;
};

}  // namespace velmora::test

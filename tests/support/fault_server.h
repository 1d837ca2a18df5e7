#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velmora::test {

// A loopback HTTP server that misbehaves on purpose. Each request takes the next scripted answer
// (`otherwise` once the script is used up): a status, a connection reset or closed before any
// answer, silence until the client gives up, or a 200 after a delay. Each connection serves one request, so that the
// next request gets its own answer. Plain sockets: a reset and silence are beyond an HTTP library.
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

    FaultServer();
    explicit FaultServer(Answer otherwise);
    ~FaultServer();

    int Port() const { return port_; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }
    void Script(std::vector<Answer> answers);
    std::vector<Exchange> Exchanges() const;
    // Waits (in real time) until `count` requests have been answered.
    bool WaitForCount(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(20)) const;

private:
    void Serve();
    void Handle(int connection);
    // Sleeps unless the server stops first; false when it stopped.
    bool Pause(std::chrono::milliseconds duration);

    const Answer otherwise_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::deque<Answer> script_;
    std::vector<Exchange> exchanges_;
};

}  // namespace velmora::test

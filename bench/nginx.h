#pragma once

// nginx on loopback for the delivery benchmarks (bash bench/setup.sh installs it).
#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace velmora::bench {

// nginx on loopback answering every request with 200, started from a scratch directory; skipped
// where it is not installed (apt-get install nginx-light).
class Nginx {
public:
    explicit Nginx(const std::filesystem::path& dir) {
        if (::access(kBinary, X_OK) != 0) return;
        port_ = FreePort();
        const std::string root = dir.string();
        std::ofstream(dir / "nginx.conf") << ("daemon off; master_process off; worker_processes 1; pid " + root +
                                    "/nginx.pid; error_log " + root + "/error.log;\nevents {}\nhttp { access_log off; "
                                    "keepalive_requests 1000000; client_body_temp_path " + root + "; server { listen "
                                    "127.0.0.1:" + std::to_string(port_) + "; location / { return 200; } } }\n");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::execl(kBinary, kBinary, "-p", root.c_str(), "-c", (root + "/nginx.conf").c_str(), nullptr);
            ::_exit(127);
        }
        for (int i = 0; i < 100 && !Accepts(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ~Nginx() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    bool Running() const { return pid_ > 0 && Accepts(); }
    int Port() const { return port_; }

private:
    static constexpr const char* kBinary = "/usr/sbin/nginx";
    static sockaddr_in Loopback(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }
    static int FreePort() {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = Loopback(0);
        socklen_t length = sizeof address;
        ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        ::close(fd);
        return ntohs(address.sin_port);
    }
    bool Accepts() const {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = Loopback(port_);
        const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        return connected;
    }
    int port_ = 0;
    pid_t pid_ = -1;
};


}  // namespace velmora::bench

#pragma once

#include "core/log.h"

#include <httplib.h>

#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

namespace velmora::test {

// One hit as it reached the server: its variables and its (flat) context group, decoded.
struct ReceivedHit {
    StringMap variables, context;
};

// A collection server on 127.0.0.1 that answers 200 to hits and 404 to anything else.
class HitCollector {
public:
    HitCollector() {
        server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
            response.status = request.path.rfind("/b/ss/", 0) == 0 ? 200 : 404;
            std::lock_guard lock(mutex_);
            if (response.status == 200) hits_.push_back(Decode(request.target.substr(request.target.find('?') + 1)));
        });
        server_.set_keep_alive_max_count(1);  // no idle connection keeps the server from stopping
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~HitCollector() {
        server_.stop();
        thread_.join();
    }
    int Port() const { return port_; }
    std::vector<ReceivedHit> Hits() const {
        std::lock_guard lock(mutex_);
        return hits_;
    }

private:
    static ReceivedHit Decode(const std::string& query) {
        ReceivedHit hit;
        bool inContext = false;
        std::istringstream pieces(query);
        for (std::string piece; std::getline(pieces, piece, '&');) {
            if (piece == "c." || piece == ".c") {
                inContext = piece == "c.";
                continue;
            }
            const auto equals = piece.find('=');
            if (equals == std::string::npos) continue;
            (inContext ? hit.context : hit.variables)[httplib::detail::decode_url(piece.substr(0, equals), false)] =
                httplib::detail::decode_url(piece.substr(equals + 1), false);
        }
        return hit;
    }

    httplib::Server server_;
    int port_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<ReceivedHit> hits_;
};

}  // namespace velmora::test

#pragma once

#include "core/actions.h"
#include "core/file_store.h"

#include <httplib.h>

#include <condition_variable>
#include <ctime>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace velmora::test {

// Records what modules send through the analytics side.
struct RecordingTracker : ActionTracker {
    struct Hit {
        bool internal;
        std::string name;
        StringMap data;
        std::int32_t timestamp;
    };
    void TrackAction(const std::string& name, const StringMap& data) override { Add({false, name, data, 0}); }
    void TrackInternalAction(const std::string& name, const StringMap& data, std::int32_t timestamp) override {
        Add({true, name, data, timestamp});
    }
    std::vector<Hit> Hits() const {
        std::lock_guard lock(mutex);
        return hits;
    }
    void Add(Hit hit) {
        std::lock_guard lock(mutex);
        hits.push_back(std::move(hit));
    }
    mutable std::mutex mutex;
    std::vector<Hit> hits;
};

// The real data files, with a write that fails while `failWrites` is set.
struct FailingFiles : FileStore {
    using FileStore::FileStore;
    void WriteAtomic(const std::string& name, std::string_view text) override {
        if (failWrites) throw std::runtime_error("disk full");
        FileStore::WriteAtomic(name, text);
    }
    bool failWrites = false;
};

// A server on 127.0.0.1 that records each request's target (path and query as sent) and answers
// the body given for its path with 200, or `otherStatus` for other paths. "HOLD" as a body makes
// the request wait until the server stops.
class AudienceServer {
public:
    AudienceServer() {
        server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
            std::unique_lock lock(mutex_);
            targets_.push_back(request.target);
            auto it = bodies_.find(request.path);
            if (it == bodies_.end()) {
                response.status = otherStatus;
                return;
            }
            if (it->second == "HOLD") stopped_.wait_for(lock, std::chrono::seconds(10), [this] { return stopping_; });
            response.set_content(it->second, "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~AudienceServer() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        stopped_.notify_all();
        server_.stop();
        thread_.join();
    }
    std::string Host() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string Url(const std::string& path) const { return "http://" + Host() + path; }
    void Answer(const std::string& path, const std::string& body) {
        std::lock_guard lock(mutex_);
        bodies_[path] = body;
    }
    std::vector<std::string> Targets(const std::string& prefix = "/") const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> matching;
        for (const auto& target : targets_) {
            if (target.rfind(prefix, 0) == 0) matching.push_back(target);
        }
        return matching;
    }
    int otherStatus = 404;

private:
    httplib::Server server_;
    int port_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::map<std::string, std::string> bodies_;
    std::vector<std::string> targets_;
};

inline void SetTimeZone(const char* tz) {
    ::setenv("TZ", tz, 1);
    ::tzset();
}

// Seconds since 1970 of a calendar moment `offsetHours` east of UTC, computed with timegm, which
// ignores TZ, so that expectations do not share the conversion under test.
inline std::int32_t AtOffset(int year, int month, int day, int hour, int minute, int offsetHours) {
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    return static_cast<std::int32_t>(::timegm(&fields) - offsetHours * 3600);
}

}  // namespace velmora::test

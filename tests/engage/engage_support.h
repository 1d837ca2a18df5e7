#pragma once

#include "core/actions.h"
#include "core/file_store.h"

#include <httplib.h>

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace velmora::test {

// Records what modules send through the analytics side.
class RecordingTracker : public ActionTracker {
public:
    struct Hit {
        bool internal = false;
        std::string name;
        StringMap data;
        std::int32_t timestamp = 0;
    };
    void TrackAction(const std::string& name, const StringMap& contextData) override;
    void TrackInternalAction(const std::string& name, const StringMap& contextData, std::int32_t timestamp) override;
    std::vector<Hit> Hits() const;
    void Clear();

private:
    mutable std::mutex mutex_;
    std::vector<Hit> hits_;
};

// The real data files, with a write that fails while `failWrites` is set.
class FailingFiles : public FileStore {
public:
    using FileStore::FileStore;
    void WriteAtomic(const std::string& name, std::string_view text) override {
        if (failWrites) throw std::runtime_error("disk full");
        FileStore::WriteAtomic(name, text);
    }
    bool failWrites = false;
};

// An audience, destination and collection server on 127.0.0.1 that records each request's target
// (path and query as sent). A path without a route answers 404 unless told otherwise; Hold() makes a route wait until
// Release() (or the server stops), for time-outs.
class AudienceServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;
    AudienceServer();
    ~AudienceServer();

    int Port() const { return port_; }
    std::string Host() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string Url(const std::string& path) const { return "http://" + Host() + path; }
    void Route(const std::string& path, Handler handler);
    void Answer(const std::string& path, const std::string& body);  // 200 with a JSON body
    void Hold(const std::string& path);
    void AnswerOthers(int status);  // paths without a route: `status` with an empty body
    void Release();
    std::vector<std::string> Targets() const;
    std::size_t Count(const std::string& path) const;

private:
    httplib::Server server_;
    int port_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable released_;
    bool release_ = false;
    std::map<std::string, Handler> routes_;
    int otherStatus_ = 404;
    std::vector<std::string> targets_;
    std::vector<std::string> paths_;
};

// A port on 127.0.0.1 that is bound but never listens: every connection to it is refused.
class ClosedPort {
public:
    ClosedPort();
    ~ClosedPort();
    int Port() const { return port_; }

private:
    int socket_ = -1;
    int port_ = -1;
};

// Sets the process's time zone for the C library's local time.
void SetTimeZone(const char* tz);

// Seconds since 1970 of a calendar moment at a fixed offset from UTC, computed without the C
// library's time zone, so that tests do not share the code they check.
std::int32_t AtOffset(int year, int month, int day, int hour, int minute, int offsetHours);

}  // namespace velmora::test

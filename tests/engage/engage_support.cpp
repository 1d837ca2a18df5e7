#include "engage_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace velmora::test {

void RecordingTracker::TrackAction(const std::string& name, const StringMap& contextData) {
    std::lock_guard lock(mutex_);
    hits_.push_back({false, name, contextData, 0});
}

void RecordingTracker::TrackInternalAction(const std::string& name, const StringMap& contextData,
                                           std::int32_t timestamp) {
    std::lock_guard lock(mutex_);
    hits_.push_back({true, name, contextData, timestamp});
}

std::vector<RecordingTracker::Hit> RecordingTracker::Hits() const {
    std::lock_guard lock(mutex_);
    return hits_;
}

void RecordingTracker::Clear() {
    std::lock_guard lock(mutex_);
    hits_.clear();
}

AudienceServer::AudienceServer() {
    server_.set_keep_alive_timeout(1);
    server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
        Handler handler;
        {
            std::lock_guard lock(mutex_);
            targets_.push_back(request.target);
            paths_.push_back(request.path);
            auto it = routes_.find(request.path);
            if (it != routes_.end()) handler = it->second;
            response.status = otherStatus_;
        }
        if (handler) {
            response.status = 200;
            handler(request, response);
        }
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind the audience server");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
}

AudienceServer::~AudienceServer() {
    Release();
    server_.stop();
    thread_.join();
}

void AudienceServer::Route(const std::string& path, Handler handler) {
    std::lock_guard lock(mutex_);
    routes_[path] = std::move(handler);
}

void AudienceServer::Answer(const std::string& path, const std::string& body) {
    Route(path, [body](const httplib::Request&, httplib::Response& response) {
        response.set_content(body, "application/json");
    });
}

void AudienceServer::Hold(const std::string& path) {
    Route(path, [this](const httplib::Request&, httplib::Response& response) {
        std::unique_lock lock(mutex_);
        released_.wait_for(lock, std::chrono::seconds(10), [this] { return release_; });
        response.set_content("{}", "application/json");
    });
}

void AudienceServer::AnswerOthers(int status) {
    std::lock_guard lock(mutex_);
    otherStatus_ = status;
}

void AudienceServer::Release() {
    {
        std::lock_guard lock(mutex_);
        release_ = true;
    }
    released_.notify_all();
}

std::vector<std::string> AudienceServer::Targets() const {
    std::lock_guard lock(mutex_);
    return targets_;
}

std::size_t AudienceServer::Count(const std::string& path) const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& p : paths_) n += (p == path);
    return n;
}

ClosedPort::ClosedPort() {
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (socket_ < 0 || ::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot bind a closed port");
    }
    port_ = ntohs(address.sin_port);
}

ClosedPort::~ClosedPort() {
    if (socket_ >= 0) ::close(socket_);
}

void SetTimeZone(const char* tz) {
    ::setenv("TZ", tz, 1);
    ::tzset();
}

std::int32_t AtOffset(int year, int month, int day, int hour, int minute, int offsetHours) {
    // Days from the civil date (proleptic Gregorian), after H. Hinnant's algorithm.
    const int y = year - (month <= 2 ? 1 : 0);
    const int era = (y >= 0 ? y : y - 399) / 400;
    const int yoe = y - era * 400;
    const int mp = (month + 9) % 12;
    const int doy = (153 * mp + 2) / 5 + day - 1;
    const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const long long days = static_cast<long long>(era) * 146097 + doe - 719468;
    return static_cast<std::int32_t>(days * 86400 + hour * 3600 + minute * 60 - offsetHours * 3600);
}

}  // namespace velmora::test

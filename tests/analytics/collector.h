#pragma once

#include <httplib.h>

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace velmora::test {

// A collection server on 127.0.0.1 that records every request target (path and query, as sent) in
// order of arrival. It answers with the scripted statuses first, then 200.
class Collector {
public:
    Collector();
    ~Collector();

    std::string Server() const { return "127.0.0.1:" + std::to_string(port_); }
    void Script(std::vector<int> statuses);
    // Runs inside the request handler before the answer, e.g. to look at the queue file.
    void OnRequest(std::function<void(const std::string& target)> observer);

    std::vector<std::string> Targets() const;
    std::size_t Count() const;
    std::size_t Connections() const;  // distinct client ports seen
    bool WaitForCount(std::size_t count) const;

private:
    httplib::Server server_;
    int port_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<int> script_;
    std::function<void(const std::string&)> observer_;
    std::vector<std::string> targets_;
    std::set<int> clientPorts_;
};

// "VelmoraConfig.json" with an analytics section for `server`.
std::string AnalyticsConfig(const std::string& server, bool offline, int batchLimit,
                            const std::string& privacy = "optedin");

}  // namespace velmora::test

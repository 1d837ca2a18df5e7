#pragma once

#include "collector.h"

#include <httplib.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velmora::collector::test {

// A collector serving on a free loopback port for the life of the object, with what it prints
// kept line by line.
class RunningCollector {
public:
    explicit RunningCollector(CollectorOptions options = {}) {
        options.port = 0;
        collector_ = std::make_unique<Collector>(options, Output{Sink(out_), Sink(err_)});
        collector_->Bind();
        thread_ = std::thread([this] { collector_->Serve(); });
    }
    ~RunningCollector() { Stop(); }

    void Stop() {
        collector_->Stop();
        if (thread_.joinable()) thread_.join();
    }

    Collector& collector() { return *collector_; }
    int port() const { return collector_->Port(); }

    // A client that sends targets exactly as given, escapes included.
    std::unique_ptr<httplib::Client> Client() const {
        auto client = std::make_unique<httplib::Client>("127.0.0.1", collector_->Port());
        client->set_url_encode(false);
        client->set_read_timeout(30, 0);
        return client;
    }

    std::vector<std::string> OutLines() const { return Lines(out_); }
    std::vector<std::string> ErrLines() const { return Lines(err_); }

private:
    struct Captured {
        mutable std::mutex mutex;
        std::string text;
    };

    static std::function<void(std::string_view)> Sink(Captured& captured) {
        return [&captured](std::string_view text) {
            std::lock_guard lock(captured.mutex);
            captured.text.append(text);
        };
    }

    static std::vector<std::string> Lines(const Captured& captured) {
        std::lock_guard lock(captured.mutex);
        std::vector<std::string> lines;
        std::size_t start = 0;
        for (std::size_t end; (end = captured.text.find('\n', start)) != std::string::npos; start = end + 1) {
            lines.push_back(captured.text.substr(start, end - start));
        }
        return lines;
    }

    Captured out_;
    Captured err_;
    std::unique_ptr<Collector> collector_;
    std::thread thread_;
};

}  // namespace velmora::collector::test

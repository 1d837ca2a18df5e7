#pragma once

#include "collector.h"
#include "support/test_support.h"

#include <httplib.h>

#include <memory>
#include <thread>

namespace velmora::collector::test {

// A collector serving on a free loopback port for the life of the object. What it prints is kept
// one write per entry: a JSON line or a hit block in `out`, a rejected request's line in `err`.
class RunningCollector {
public:
    explicit RunningCollector(CollectorOptions options = {}) {
        options.port = 0;
        collector_ = std::make_unique<Collector>(options, Output{out.Sink(), err.Sink()});
        collector_->Bind();
        thread_ = std::thread([this] { collector_->Serve(); });
    }
    ~RunningCollector() { Stop(); }

    void Stop() {
        collector_->Stop();
        if (thread_.joinable()) thread_.join();
    }

    Collector& collector() { return *collector_; }

    // A client that sends targets exactly as given, escapes included.
    std::unique_ptr<httplib::Client> Client() const {
        auto client = std::make_unique<httplib::Client>("127.0.0.1", collector_->Port());
        client->set_url_encode(false);
        client->set_read_timeout(30, 0);
        return client;
    }

    velmora::test::LogCapture out, err;  // declared first: they outlive the collector's threads

private:
    std::unique_ptr<Collector> collector_;
    std::thread thread_;
};

}  // namespace velmora::collector::test

#pragma once

#include "core/http.h"

#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace velmora::test {

// The request seam's fake: every request is recorded and answered by `respond` (by default a 200
// without a body), so that the rules of the modules that make requests are tested without sockets.
class FakeTransport : public Transport {
public:
    using Respond = std::function<HttpOutcome(const HttpRequest&)>;

    HttpOutcome Send(const HttpRequest& request) override {
        Respond respond;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
            respond = respond_;
        }
        return respond ? respond(request) : HttpOutcome::Answered(200);
    }
    void OnSend(Respond respond) {
        std::lock_guard lock(mutex_);
        respond_ = std::move(respond);
    }
    // Every request gets this outcome.
    void Always(HttpOutcome outcome) { OnSend([outcome](const HttpRequest&) { return outcome; }); }
    std::vector<HttpRequest> Requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    std::vector<std::string> Urls() const {
        std::vector<std::string> urls;
        for (const auto& request : Requests()) urls.push_back(request.url);
        return urls;
    }

private:
    mutable std::mutex mutex_;
    Respond respond_;
    std::vector<HttpRequest> requests_;
};

}  // namespace velmora::test

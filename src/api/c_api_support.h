#pragma once

// What the C interface's files share: the opaque types behind the handles, the conversions at the
// edge, and the way a future's value reaches a C callback.
#include <velmora.h>
#include <velmora/Velmora.h>

#include "api/guard.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

struct velmora_options {
    Velmora::HostOptions host;
};

// Kept sorted by key, like Velmora::ObjectMap, with each value's wire text made when it is set, so
// that reading an entry by index is cheap and never changes the map.
struct velmora_map {
    struct Entry {
        std::string key;
        Velmora::Object value;
        std::string text;
    };
    std::vector<Entry> entries;
};

struct velmora_media_settings {
    std::shared_ptr<Velmora::MediaSettings> settings;
};

namespace velmora::c_api {

inline std::string Text(const char* text) { return text != nullptr ? std::string(text) : std::string(); }

// A copy the caller frees with velmora_free; null only when out of memory.
char* Copy(const std::string& text) noexcept;

Velmora::ObjectMap Objects(const velmora_map_t* map);
void Set(velmora_map_t* map, const char* key, Velmora::Object value);
std::unique_ptr<velmora_map> MapOf(const StringMap& texts);

// Hands a future's value to a C callback without making anyone wait for it. The continuation is
// posted behind the completion of the future, on the queue that completes it (`queueOf`; none:
// the general queue), so when it runs the value is there. If the library stops before that, the
// continuation is dropped and its destructor calls back with whatever value is ready, else
// `fallback`: the callback is called exactly once either way.
template <class R>
class Continuation {
public:
    using Done = std::function<void(const R&)>;
    Continuation(std::future<R> future, R fallback, Done done)
        : future_(std::move(future)), fallback_(std::move(fallback)), done_(std::move(done)) {}
    ~Continuation() { Finish(/*onQueue=*/false); }
    Continuation(const Continuation&) = delete;
    Continuation& operator=(const Continuation&) = delete;

    // On the queue the value waits at most for the work posted before, as CompleteAfter does.
    void Finish(bool onQueue) noexcept {
        if (!done_) return;
        Done done = std::move(done_);
        done_ = nullptr;
        R value = fallback_;
        Guard([&] {
            const bool ready = future_.valid() && (onQueue || future_.wait_for(std::chrono::seconds(0)) ==
                                                                  std::future_status::ready);
            if (ready) value = future_.get();
        });
        Guard([&] { done(value); });
    }

private:
    std::future<R> future_;
    R fallback_;
    Done done_;
};

using QueueOf = SerialQueue& (*)(Runtime&);

template <class R>
void Continue(std::future<R> future, R fallback, QueueOf queueOf, typename Continuation<R>::Done done) noexcept {
    Guard([&] {
        auto continuation = std::make_shared<Continuation<R>>(std::move(future), std::move(fallback), std::move(done));
        Post([continuation, queueOf](Runtime& runtime) {
            if (queueOf == nullptr) return continuation->Finish(/*onQueue=*/true);
            queueOf(runtime).Post([continuation] { continuation->Finish(/*onQueue=*/true); });
        });
    });
}

}  // namespace velmora::c_api

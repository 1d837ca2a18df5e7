#pragma once

#include "runtime/runtime.h"
#include "core/utf8.h"

#include <exception>
#include <future>
#include <memory>
#include <utility>

namespace velmora {

// The public edge: nothing thrown inside the library reaches the application.
void ReportEscapedError(const char* what) noexcept;

template <class R, class F>
R Guard(R fallback, F&& body) noexcept {
    try {
        return body();
    } catch (const std::exception& e) {
        ReportEscapedError(e.what());
    } catch (...) {
        ReportEscapedError("unknown error");
    }
    return fallback;
}

template <class F>
void Guard(F&& body) noexcept {
    Guard(0, [&] {
        body();
        return 0;
    });
}

// The process's runtime for a public call; null once Host::Shutdown has run, when the call is
// ignored (the first ignored call logs a warning).
Runtime* OpenRuntime();

// A public call that answers on the caller's thread.
template <class R, class F>
R Call(R fallback, F&& body) noexcept {
    return Guard(fallback, [&]() -> R {
        Runtime* runtime = OpenRuntime();
        return runtime != nullptr ? body(*runtime) : fallback;
    });
}

template <class F>
void Call(F&& body) noexcept {
    Guard([&] {
        if (Runtime* runtime = OpenRuntime()) body(*runtime);
    });
}

// Runs `work(runtime)` on the general queue. Configuration, settings and modules are loaded and
// created there, so the caller's thread never waits for a file, the database or the network; a
// failure of `work` is logged under `module`.
template <class F>
void Post(const char* module, F work) noexcept {
    Call([&](Runtime& runtime) {
        runtime.GeneralQueue().Post(module, [&runtime, work = std::move(work)]() mutable { work(runtime); });
    });
}

template <class F>
void Post(F work) noexcept {
    Post("Config", std::move(work));
}

// The application's side of an asynchronous result. It always completes: with the value the work
// sets, or with `fallback` when the work never got to set one (the library stopped first).
template <class R>
class Completion {
public:
    explicit Completion(R fallback) : fallback_(std::move(fallback)) {}
    ~Completion() {
        try {
            if (!done_) promise_.set_value(std::move(fallback_));
        } catch (...) {
        }
    }
    Completion(const Completion&) = delete;
    Completion& operator=(const Completion&) = delete;

    void Set(R value) {
        if (done_) return;
        done_ = true;
        promise_.set_value(std::move(value));
    }
    std::future<R> Future() { return promise_.get_future(); }

private:
    std::promise<R> promise_;
    R fallback_;
    bool done_ = false;
};

template <class R>
std::future<R> Ready(R value) {
    std::promise<R> promise;
    promise.set_value(std::move(value));
    return promise.get_future();
}

// A ready future, or (when even that fails) an invalid one.
template <class R>
std::future<R> ReadyFuture(R value) noexcept {
    return Guard(std::future<R>(), [&] { return Ready(std::move(value)); });
}

// Posts `work(runtime, completion)` to the general queue and returns the completion's future.
template <class R, class F>
std::future<R> PostForResult(R fallback, F work) noexcept {
    auto future = Guard(std::future<R>(), [&] {
        Runtime* runtime = OpenRuntime();
        if (runtime == nullptr) return Ready(fallback);
        auto completion = std::make_shared<Completion<R>>(fallback);
        auto result = completion->Future();
        runtime->GeneralQueue().Post([runtime, completion, work = std::move(work)]() mutable {
            work(*runtime, completion);
        });
        return result;
    });
    return future.valid() ? std::move(future) : ReadyFuture(std::move(fallback));
}

// Completes `completion` with `future`'s value once `queue` has run what was posted before: post
// this right after the work that makes `future`, on the same queue, and nothing waits.
template <class R>
void CompleteAfter(SerialQueue& queue, std::future<R> future, std::shared_ptr<Completion<R>> completion) {
    auto shared = std::make_shared<std::future<R>>(std::move(future));
    queue.Post([shared, completion] { completion->Set(shared->get()); });
}

}  // namespace velmora

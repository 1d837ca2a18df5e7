#pragma once

#include "core/log.h"

#include <cstdio>
#include <exception>
#include <future>
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

// A future that is always ready with `R{}` when the body fails, so callers never see an exception.
template <class R, class F>
std::future<R> GuardFuture(F&& body) noexcept {
    auto future = Guard(std::future<R>(), std::forward<F>(body));
    if (future.valid()) return future;
    return Guard(std::future<R>(), [] {
        std::promise<R> promise;
        promise.set_value(R{});
        return promise.get_future();
    });
}

}  // namespace velmora

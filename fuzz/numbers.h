#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <limits>

// Any floating-point number, including those a plain provider never gives: NaN, the infinities,
// negative zero, the smallest denormal and the extremes.
template <class T>
T ConsumeAnyFloat(FuzzedDataProvider& input) {
    using Limits = std::numeric_limits<T>;
    static constexpr T kSpecial[] = {Limits::quiet_NaN(), Limits::infinity(), -Limits::infinity(), T(-0.0),
                                     Limits::denorm_min(), Limits::max(), Limits::lowest()};
    if (input.ConsumeIntegralInRange(0, 3) == 0) return input.PickValueInArray(kSpecial);
    return input.ConsumeFloatingPoint<T>();
}

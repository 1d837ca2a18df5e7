#pragma once

#include "core/actions.h"
#include "core/log.h"
#include "core/settings_store.h"

#include <memory>
#include <string>

namespace velmora {

inline constexpr const char* kLifetimeValueKey = "VLM_LIFETIME_VALUE";

// The running total of the amounts the application reports, kept in local settings as text with two
// decimals and handled as a single-precision float. It has no queue: the public operation runs it
// on the general queue after the analytics gate. Settings failures reach the caller.
class LifetimeValue {
public:
    LifetimeValue(SettingsStore& settings, ActionTracker& tracker, const Logger& log);

    // Adds `amount` (0 included, negatives refused), stores the total and sends it as
    // "LifetimeValueIncrease".
    void Increase(float amount, StringMap contextData);

    // The stored total; 0 when none is stored. Safe from any thread.
    float GetLifetimeValue();
    // The stored text read in double precision, as the public getter reports it.
    double GetLifetimeValueAsDouble();
    void SetLifetimeValue(float total);

private:
    SettingsStore& settings_;
    ActionTracker& tracker_;
    const Logger& log_;
};

// The stored total read in double precision, as the public getter reports it; 0 when none is
// stored. Reads only the settings, so the getter needs no module (and no configuration).
double StoredLifetimeValue(SettingsStore& settings);

// "%.2f" of `value`, independent of the process's locale.
std::string FormatTwoDecimals(double value);

}  // namespace velmora

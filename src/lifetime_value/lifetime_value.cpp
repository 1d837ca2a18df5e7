#include "lifetime_value/lifetime_value.h"

#include "core/number_text.h"

#include <charconv>

namespace velmora {
namespace {

// The longest numeric prefix of the text; 0 when there is none.
template <class T>
T ParseNumber(const std::string& text) {
    T value{};
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() ? value : T{};
}

}  // namespace

std::string FormatTwoDecimals(double value) { return FixedText(value, 2); }

LifetimeValue::LifetimeValue(SettingsStore& settings, ActionTracker& tracker, const Logger& log)
    : settings_(settings), tracker_(tracker), log_(log) {}


float LifetimeValue::GetLifetimeValue() {
    auto text = LookupText(settings_, kLifetimeValueKey);
    return text ? ParseNumber<float>(*text) : 0.0f;
}

double LifetimeValue::GetLifetimeValueAsDouble() { return StoredLifetimeValue(settings_); }

double StoredLifetimeValue(SettingsStore& settings) {
    auto text = LookupText(settings, kLifetimeValueKey);
    return text ? ParseNumber<double>(*text) : 0.0;
}

void LifetimeValue::SetLifetimeValue(float total) {
    settings_.Insert(kLifetimeValueKey, FormatTwoDecimals(total));
}

void LifetimeValue::Increase(float amount, StringMap contextData) {
    if (amount < 0) {
        log_.Warning("Analytics - TrackLifetimeValueIncrease failed.  Amount must be positive, invalid amount "
                     "specified '%s'",
                     FormatTwoDecimals(amount).c_str());
        return;
    }
    // Single precision throughout; the stored text is rounded, so the next increase starts from it.
    const float total = amount + GetLifetimeValue();
    SetLifetimeValue(total);
    contextData["a.ltv.amount"] = FormatTwoDecimals(total);
    tracker_.TrackInternalAction("LifetimeValueIncrease", contextData, 0);
}

}  // namespace velmora

// The C interface's host options, start, flush, stop and counters.
#include "api/c_api_support.h"

#include <cstdlib>
#include <string_view>

using velmora::c_api::Text;

namespace {

velmora_log_level_t LevelOf(std::string_view line) {
    if (line.rfind("Velmora Error:", 0) == 0) return VELMORA_LOG_ERROR;
    if (line.rfind("Velmora Warning:", 0) == 0) return VELMORA_LOG_WARNING;
    return VELMORA_LOG_DEBUG;
}

template <class F>
void Change(velmora_options_t* options, F change) noexcept {
    if (options != nullptr) velmora::Guard([&] { change(options->host); });
}

std::int64_t Seconds(std::chrono::system_clock::time_point when) {
    return std::chrono::duration_cast<std::chrono::seconds>(when.time_since_epoch()).count();
}

}  // namespace

extern "C" {

const char* velmora_version(void) { return VELMORA_VERSION_STRING; }

void velmora_free(void* pointer) { std::free(pointer); }

velmora_options_t* velmora_options_new(void) {
    return velmora::Guard(static_cast<velmora_options_t*>(nullptr), [] { return new velmora_options(); });
}

void velmora_options_free(velmora_options_t* options) { delete options; }

void velmora_options_set_package_directory(velmora_options_t* options, const char* path) {
    Change(options, [&](Velmora::HostOptions& host) { host.packageDirectory = Text(path); });
}

void velmora_options_set_local_directory(velmora_options_t* options, const char* path) {
    Change(options, [&](Velmora::HostOptions& host) { host.localDirectory = Text(path); });
}

void velmora_options_set_device(velmora_options_t* options, const char* manufacturer, const char* model) {
    Change(options, [&](Velmora::HostOptions& host) {
        host.deviceManufacturer = Text(manufacturer);
        host.deviceModel = Text(model);
    });
}

void velmora_options_set_language_tag(velmora_options_t* options, const char* tag) {
    Change(options, [&](Velmora::HostOptions& host) { host.languageTag = Text(tag); });
}

void velmora_options_set_application(velmora_options_t* options, const char* name, const char* version) {
    Change(options, [&](Velmora::HostOptions& host) {
        host.applicationName = Text(name);
        host.applicationVersion = Text(version);
    });
}

void velmora_options_set_os_version(velmora_options_t* options, const char* os_version) {
    Change(options, [&](Velmora::HostOptions& host) { host.osVersion = Text(os_version); });
}

void velmora_options_add_connect_to(velmora_options_t* options, const char* entry) {
    Change(options, [&](Velmora::HostOptions& host) { host.connectTo.push_back(Text(entry)); });
}

void velmora_options_set_window_size_func(velmora_options_t* options,
                                          int (*func)(double* width, double* height, void* user_data),
                                          void* user_data) {
    Change(options, [&](Velmora::HostOptions& host) {
        host.windowSize = nullptr;
        if (func == nullptr) return;
        host.windowSize = [func, user_data]() -> std::optional<std::pair<double, double>> {
            double width = 0, height = 0;
            if (func(&width, &height, user_data) == 0) return std::nullopt;
            return std::make_pair(width, height);
        };
    });
}

void velmora_options_set_internet_func(velmora_options_t* options, int (*func)(void* user_data), void* user_data) {
    Change(options, [&](Velmora::HostOptions& host) {
        host.internetAvailable = nullptr;
        if (func != nullptr) host.internetAvailable = [func, user_data] { return func(user_data) != 0; };
    });
}

void velmora_options_set_log_func(velmora_options_t* options,
                                  void (*func)(velmora_log_level_t level, const char* line, void* user_data),
                                  void* user_data) {
    Change(options, [&](Velmora::HostOptions& host) {
        host.logSink = nullptr;
        if (func == nullptr) return;
        host.logSink = [func, user_data](std::string_view line) {
            line.remove_suffix(1);  // the logger's line feed, which a C callback does not want
            func(LevelOf(line), std::string(line).c_str(), user_data);
        };
    });
}

int velmora_configure(velmora_options_t* options) {
    std::unique_ptr<velmora_options> owned(options);
    return velmora::Guard(0, [&] { return Velmora::Host::Configure(owned ? std::move(owned->host) : Velmora::HostOptions{}) ? 1 : 0; });
}

int velmora_flush(int32_t timeout_ms) { return Velmora::Host::Flush(std::chrono::milliseconds(timeout_ms)) ? 1 : 0; }

int velmora_shutdown(int32_t timeout_ms) {
    return Velmora::Host::Shutdown(std::chrono::milliseconds(timeout_ms)) ? 1 : 0;
}

velmora_stats_t velmora_stats(void) {
    const Velmora::DeliveryStats stats = Velmora::Host::Stats();
    velmora_stats_t answer{};
    answer.queued = stats.queued;
    answer.delivered = stats.delivered;
    answer.retried = stats.retried;
    answer.dropped = stats.dropped;
    answer.waiting = stats.waiting;
    answer.last_status = stats.lastStatus;
    answer.last_delivered = stats.lastDelivered == std::chrono::system_clock::time_point{} ? 0 : Seconds(stats.lastDelivered);
    return answer;
}

}  // extern "C"

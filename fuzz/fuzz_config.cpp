// The configuration file: any text must give a record or the parse error, never a crash.
#include "core/config.h"

#include <filesystem>
#include <unistd.h>

namespace {

velmora::SettingsStore& Store() {
    static velmora::Logger log([](std::string_view) {});
    static auto* store = [] {
        auto dir = std::filesystem::temp_directory_path() / ("velmora-fuzz-config-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        return new velmora::SettingsStore(dir, log);
    }();
    return *store;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static velmora::Logger log([](std::string_view) {});
    log.SetDebugEnabled(true);
    std::string text(reinterpret_cast<const char*>(data), size);
    auto config = velmora::ParseConfig(text, Store(), log);
    if (config) {
        for (const auto& poi : config->pointsOfInterest) {
            if (poi.name.size() > size) __builtin_trap();
        }
    }
    return 0;
}

// The audience service's answer: any body gives the parsed answer or the parse error, never a
// crash; a profile it carries is stored in and read back from the settings database unchanged.
#include "cohorta/cohorta.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <exception>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace {

const velmora::Logger& Log() {
    static auto* log = new velmora::Logger([](std::string_view) {});
    return *log;
}

velmora::SettingsStore& Store() {
    static auto* store = [] {
        auto dir = std::filesystem::temp_directory_path() / ("velmora-fuzz-audience-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        return new velmora::SettingsStore(dir, Log());
    }();
    return *store;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    velmora::SignalAnswer answer;
    try {
        answer = velmora::ParseSignalAnswer(body);
    } catch (const std::exception&) {
        return 0;
    }
    const auto root = nlohmann::json::parse(body);
    const auto dests = root.find("dests");
    if (answer.destinations.size() != (dests == root.end() ? 0 : dests->size())) __builtin_trap();
    const auto stuff = root.find("stuff");
    if (answer.profile.size() > (stuff == root.end() ? 0 : stuff->size())) __builtin_trap();
    if (answer.userId.has_value() != root.contains("uuid")) __builtin_trap();

    if (!answer.profile.empty()) {
        (void)velmora::FormatMapForLog(answer.profile);
        Store().Insert(velmora::kCohortaProfileKey, answer.profile);
        const auto stored = Store().Lookup(velmora::kCohortaProfileKey);
        if (!stored || *stored != velmora::SettingValue(answer.profile)) __builtin_trap();
    }
    return 0;
}

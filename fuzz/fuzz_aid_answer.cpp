// The tracking server's "/id" answer: any body gives an identifier or nothing, never a crash, and
// an identifier only from a JSON object that holds it as its "id" string.
#include "core/device.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    const std::string aid = velmora::AidFromAnswer(body);
    if (aid.empty()) return 0;
    if (body.front() != '{') __builtin_trap();
    const auto json = nlohmann::json::parse(body, nullptr, false);
    if (!json.is_object()) __builtin_trap();
    const auto id = json.find("id");
    if (id == json.end() || !id->is_string() || id->get<std::string>() != aid) __builtin_trap();
    return 0;
}

#include "api/c_api_support.h"

#include "analytics/values.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace velmora::c_api {

char* Copy(const std::string& text) noexcept {
    auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

Velmora::ObjectMap Objects(const velmora_map_t* map) {
    Velmora::ObjectMap objects;
    if (map == nullptr) return objects;
    for (const auto& entry : map->entries) objects.emplace_hint(objects.end(), entry.key, entry.value);
    return objects;
}

void Set(velmora_map_t* map, const char* key, Velmora::Object value) {
    if (map == nullptr) return;
    std::string name = Text(key);
    std::string text = ValueText(value).value_or("");
    auto& entries = map->entries;
    auto at = std::lower_bound(entries.begin(), entries.end(), name,
                               [](const velmora_map::Entry& entry, const std::string& k) { return entry.key < k; });
    if (at != entries.end() && at->key == name) {
        at->value = std::move(value);
        at->text = std::move(text);
    } else {
        entries.insert(at, velmora_map::Entry{std::move(name), std::move(value), std::move(text)});
    }
}

std::unique_ptr<velmora_map> MapOf(const StringMap& texts) {
    auto map = std::make_unique<velmora_map>();
    map->entries.reserve(texts.size());
    for (const auto& [key, text] : texts) map->entries.push_back({key, text, text});
    return map;
}

}  // namespace velmora::c_api

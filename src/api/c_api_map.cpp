// Context data for the C interface: a sorted map whose entries read back as their wire text.
#include "api/c_api_support.h"

using velmora::c_api::Set;

extern "C" {

velmora_map_t* velmora_map_new(void) {
    return velmora::Guard(static_cast<velmora_map_t*>(nullptr), [] { return new velmora_map(); });
}

void velmora_map_free(velmora_map_t* map) { delete map; }

void velmora_map_set_string(velmora_map_t* map, const char* key, const char* value) {
    velmora::Guard([&] { Set(map, key, velmora::c_api::Text(value)); });
}

void velmora_map_set_int(velmora_map_t* map, const char* key, int64_t value) {
    velmora::Guard([&] { Set(map, key, std::int64_t{value}); });
}

void velmora_map_set_double(velmora_map_t* map, const char* key, double value) {
    velmora::Guard([&] { Set(map, key, value); });
}

void velmora_map_set_bool(velmora_map_t* map, const char* key, int value) {
    velmora::Guard([&] { Set(map, key, value != 0); });
}

size_t velmora_map_size(const velmora_map_t* map) { return map != nullptr ? map->entries.size() : 0; }

const char* velmora_map_key(const velmora_map_t* map, size_t index) {
    return map != nullptr && index < map->entries.size() ? map->entries[index].key.c_str() : nullptr;
}

const char* velmora_map_text(const velmora_map_t* map, size_t index) {
    return map != nullptr && index < map->entries.size() ? map->entries[index].text.c_str() : nullptr;
}

}  // extern "C"

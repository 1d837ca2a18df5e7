// The context the benchmarks send with each hit: ten entries of the kinds applications send.
#pragma once

#include <velmora/Velmora.h>

#include <cstdint>
#include <string>

inline Velmora::ObjectMap TenEntries(std::int64_t visit = 42) {
    return {{"a.media.name", std::string("Episode 12: The Return")},
            {"user.segment", std::string("gold member")},
            {"cart.value", 19.99},
            {"cart.items", std::int32_t{3}},
            {"campaign", std::string("spring-sale/2024")},
            {"logged in", true},
            {"page.section", std::string("checkout")},
            {"&&events", std::string("purchase,event7")},
            {"ab.test", std::string("variant B")},
            {"visit.number", visit}};
}

// The hit queue file: any text gives the hits before the first damage (and maybe the error), never
// a crash; what was read, written back the way the queue saves it, reads back unchanged.
#include "analytics/hit_queue.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<velmora::QueuedHit> hits;
    try {
        velmora::ParseQueueFile(text, hits);
    } catch (const std::runtime_error&) {
        // Damage: what came before it is kept in `hits`.
    }

    std::string saved = "{\"Hits\":[";
    for (std::size_t i = 0; i < hits.size(); ++i) {
        if (i != 0) saved += ',';
        if (!hits[i].json || *hits[i].json != velmora::QueueFileMember(hits[i].hit, hits[i].timestamp)) {
            __builtin_trap();
        }
        saved += *hits[i].json;
    }
    saved += "]}";

    std::vector<velmora::QueuedHit> reread;
    velmora::ParseQueueFile(saved, reread);  // a document the queue wrote must never fail
    if (reread.size() != hits.size()) __builtin_trap();
    for (std::size_t i = 0; i < hits.size(); ++i) {
        if (reread[i].hit != hits[i].hit || reread[i].timestamp != hits[i].timestamp) __builtin_trap();
    }
    return 0;
}

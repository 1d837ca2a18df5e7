// The hit queue file: any text gives the hits before the first damage (and maybe the error), never
// a crash. The queue's own reading (which takes its layout without the JSON parser) finds what
// the JSON parser salvages; opened by the queue, which repairs or rewrites the file, and given one
// more hit, the file then holds those hits and the new one, and reads back the same.
#include "analytics/hit_store.h"

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

bool Same(const std::vector<velmora::QueuedHit>& a, const std::vector<velmora::QueuedHit>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i].hit != b[i].hit || a[i].timestamp != b[i].timestamp) return false;
    }
    return true;
}

const std::filesystem::path& Directory() {
    static const auto path = [] {
        // In memory where there is such a file system: the queue waits for the disk when it replaces its file.
        const std::filesystem::path base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
        auto dir = base / ("velmora-fuzz-queue-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        return dir;
    }();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<velmora::QueuedHit> parsed;
    try {
        velmora::ParseQueueFile(text, parsed);
    } catch (const std::runtime_error&) {
        // Damage: what came before it is kept in `parsed`.
    }

    const auto& dir = Directory();
    std::filesystem::remove(dir / velmora::QueueFile::kIndexName);
    std::ofstream(dir / velmora::QueueFile::kFileName, std::ios::binary | std::ios::trunc) << text;
    std::vector<velmora::QueuedHit> read;
    try {
        velmora::QueueFile::ReadQueued(dir, read);
    } catch (const std::runtime_error&) {
    }
    if (!Same(read, parsed)) __builtin_trap();

    velmora::Logger log;
    velmora::FileStore files(dir);
    {
        velmora::HitStore store(log, files);
        store.Load();
        if (store.Size() != parsed.size()) __builtin_trap();
        store.Append("s1?AQB=1&ndh=1&AQE=1", 7);
    }
    parsed.push_back({"s1?AQB=1&ndh=1&AQE=1", 7});
    read.clear();
    velmora::QueueFile::ReadQueued(dir, read);  // a file the queue wrote must never fail
    if (!Same(read, parsed)) __builtin_trap();
    return 0;
}

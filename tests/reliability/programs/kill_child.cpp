// The child of the kill tests. It writes one kind of persistent state as fast as an eager
// application would, numbering what it writes, until its parent kills it:
//   velmora_kill_child hits|settings <package dir> <local dir> <round>
// (states tracked while offline, or values inserted into the settings). It prints "ready" once its
// first entry is written, and never ends by itself.
#include "core/log.h"
#include "core/settings_store.h"

#include <velmora/Velmora.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace {

using namespace Velmora;

// Names sort in the order they are made, across rounds too.
std::string Name(int round, int i) {
    char name[32];
    std::snprintf(name, sizeof name, "r%03dn%06d", round, i);
    return name;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    const std::string mode = argv[1];
    const int round = std::stoi(argv[4]);
    velmora::Logger log([](std::string_view line) { velmora::WriteToStandardError(line); });
    std::unique_ptr<velmora::SettingsStore> store;
    // Writes entry i; entry 0 is saved before "ready".
    std::function<void(int)> write;
    if (mode == "settings") {  // the store alone
        store = std::make_unique<velmora::SettingsStore>(argv[3], log);
        write = [&](int i) { store->Insert(Name(round, i), std::int32_t{i}); };
    } else {
        HostOptions options;
        options.packageDirectory = argv[2];
        options.localDirectory = argv[3];
        options.internetAvailable = [] { return false; };
        options.logSink = [](std::string_view line) { velmora::WriteToStandardError(line); };
        Host::Configure(options);
        write = [&](int i) {
            Analytics::TrackState(Name(round, i));
            if (i == 0) Host::Flush(std::chrono::seconds(30));  // false: the hit stays queued, but saved
        };
    }
    write(0);
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
    // Pauses give the library's threads room, so that a kill finds them at every stage of their
    // work, and keep the files of thirty rounds small enough to read back quickly.
    for (int i = 1;; ++i) {
        write(i);
        if (mode == "hits" || i % 4 == 3) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

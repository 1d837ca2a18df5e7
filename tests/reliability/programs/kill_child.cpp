// The child of the kill tests. It writes one kind of persistent state as fast as an eager
// application would, numbering what it writes, until its parent kills it:
//   velmora_kill_child hits <package dir> <local dir> <round>      states tracked while offline
//   velmora_kill_child timed <package dir> <local dir> <round>     timed actions started and updated
//   velmora_kill_child settings <package dir> <local dir> <round>  values inserted into the settings
// It prints "ready" once its first entry is written, and never ends by itself.
#include "core/log.h"
#include "core/settings_store.h"

#include <velmora/Velmora.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

// Gives the library's threads room, so that a kill finds them at every stage of their work, and
// keeps the files of fifty rounds small enough to read back quickly.
void Breathe(int i, int every) {
    if (i % every == every - 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void Ready() {
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
}

// The names sort in the order they are made, across rounds too.
std::string Name(int round, int i) {
    char name[32];
    std::snprintf(name, sizeof name, "r%03dn%06d", round, i);
    return name;
}

[[noreturn]] void TrackStates(int round) {
    Velmora::Analytics::TrackState(Name(round, 0));
    Velmora::Host::Flush(std::chrono::seconds(30));  // false: the hit stays queued, but it is saved
    Ready();
    for (int i = 1;; ++i) {
        Velmora::Analytics::TrackState(Name(round, i));
        Breathe(i, 1);
    }
}

[[noreturn]] void StartTimedActions(int round) {
    Velmora::Analytics::TrackTimedActionStart(Name(round, 0), {{"i", std::int32_t{0}}});
    // The answer comes after the start's save.
    Velmora::Analytics::TrackingTimedActionExistsAsync(Name(round, 0)).get();
    Ready();
    for (int i = 1;; ++i) {
        Velmora::Analytics::TrackTimedActionStart(Name(round, i), {{"i", std::int32_t{i}}});
        // Each action is updated once, after its successor has started.
        Velmora::Analytics::TrackTimedActionUpdate(Name(round, i - 1), {{"next", std::int32_t{i}}});
        Breathe(i, 4);
    }
}

[[noreturn]] void InsertSettings(const char* local, int round) {
    velmora::Logger log([](std::string_view line) { velmora::WriteToStandardError(line); });
    velmora::SettingsStore store(local, log);
    store.Insert(Name(round, 0), std::int32_t{0});
    Ready();
    for (int i = 1;; ++i) {
        store.Insert(Name(round, i), std::int32_t{i});
        Breathe(i, 4);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s hits|timed|settings <package dir> <local dir> <round>\n", argv[0]);
        return 2;
    }
    const std::string mode = argv[1];
    const int round = std::stoi(argv[4]);
    if (mode == "settings") InsertSettings(argv[3], round);
    Velmora::HostOptions options;
    options.packageDirectory = argv[2];
    options.localDirectory = argv[3];
    options.internetAvailable = [] { return false; };
    options.logSink = [](std::string_view line) { velmora::WriteToStandardError(line); };
    Velmora::Host::Configure(options);
    if (mode == "hits") TrackStates(round);
    if (mode == "timed") StartTimedActions(round);
    std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
    return 2;
}

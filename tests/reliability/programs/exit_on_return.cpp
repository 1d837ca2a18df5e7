// Tracks a burst of hits and returns from main at once, while the library's queues are still
// building, saving and trying to send them.
//   velmora_exit_on_return <package dir> <local dir>
#include <velmora/Velmora.h>

#include <string>

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    Velmora::HostOptions options;
    options.packageDirectory = argv[1];
    options.localDirectory = argv[2];
    Velmora::Host::Configure(options);
    for (int i = 0; i < 50; ++i) {
        Velmora::Analytics::TrackState("Return" + std::to_string(i), {{"i", i}});
        Velmora::Analytics::TrackAction("Tap", {{"i", i}});
    }
    return 0;
}

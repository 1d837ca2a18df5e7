// Programs that end while the library is busy, as applications do:
//   velmora_exit_program return <package dir> <local dir>    tracks a burst of hits and returns from
//                                                            main while the queues still build, save
//                                                            and send them
//   velmora_exit_program cooldown <package dir> <local dir>  calls exit() while the sender waits out
//                                                            its 30 s cooldown after a failed send
//   velmora_exit_program loaded <package dir> <local dir>    uses every part (a session, a timed
//                                                            action, a playing media item with its
//                                                            monitor, queued hits) and returns
//                                                            without stopping anything
// The configuration names a closed port on 127.0.0.1, so every send fails at once.
#include <velmora/Velmora.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>

namespace {

using namespace Velmora;

// Lives until the process ends: the library may log from its threads while exit() runs.
struct Cooldown {
    std::mutex mutex;
    std::condition_variable reached;
    bool started = false;
};

int ReturnAtOnce() {
    for (int i = 0; i < 50; ++i) {
        Analytics::TrackState("Return" + std::to_string(i), {{"i", i}});
        Analytics::TrackAction("Tap", {{"i", i}});
    }
    return 0;
}

int ExitInCooldown(Cooldown& cooldown) {
    Analytics::TrackState("Cooldown");
    std::unique_lock lock(cooldown.mutex);
    if (!cooldown.reached.wait_for(lock, std::chrono::seconds(8), [&] { return cooldown.started; })) {
        std::fputs("the sender never reached its cooldown\n", stderr);
        return 4;
    }
    lock.unlock();
    std::exit(0);
}

int ReturnFullyLoaded() {
    Config::CollectLifecycleData();
    Config::SetUserIdentifier("user-1");
    Analytics::TrackState("Home", {{"loaded", true}});
    Analytics::TrackAction("Open");
    Analytics::TrackLocation(40.7127837, -74.0059413, 5);
    Analytics::TrackLifetimeValueIncrease(2.5f);
    Analytics::TrackTimedActionStart("Stay", {{"step", 1}});
    auto media = Media::SettingsWith("Clip", 120, "Player", "p1");
    media->Milestones = "25,50,75";
    Media::Open(media);
    Media::Play("Clip", 0);
    auto offer = Vantor::LoadRequest(Vantor::CreateRequest("home", "default", {}));
    auto signal = Cohorta::SubmitSignal({{"trait", 1}});
    auto exists = Analytics::TrackingTimedActionExistsAsync("Stay");
    auto identifier = Analytics::GetTrackingIdentifierAsync();

    // Everything has reached the library's queues; nothing is stopped before main returns.
    const auto limit = std::chrono::seconds(8);
    for (auto ready : {offer.wait_for(limit), signal.wait_for(limit), exists.wait_for(limit),
                       identifier.wait_for(limit)}) {
        if (ready != std::future_status::ready) {
            std::fputs("an answer did not come\n", stderr);
            return 4;
        }
    }
    if (!exists.get() || offer.get() != "default") {
        std::fputs("unexpected answers\n", stderr);
        return 5;
    }
    std::printf("queued %u\n", Analytics::GetQueueSize());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const std::string mode = argv[1];
    auto* cooldown = new Cooldown();
    HostOptions options;
    options.packageDirectory = argv[2];
    options.localDirectory = argv[3];
    // Online, so that the sender tries and fails; the offer host leads to the closed port.
    options.internetAvailable = [] { return true; };
    options.connectTo = {"acme.tt.vantor.example:80:127.0.0.1:9"};
    options.logSink = [cooldown](std::string_view line) {
        std::fwrite(line.data(), 1, line.size(), stderr);
        if (line.find("Unable to send hit, attempting to recover") == std::string_view::npos) return;
        std::lock_guard lock(cooldown->mutex);
        cooldown->started = true;
        cooldown->reached.notify_all();
    };
    Host::Configure(options);
    Config::SetDebugLogging(true);
    if (mode == "return") return ReturnAtOnce();
    if (mode == "cooldown") return ExitInCooldown(*cooldown);
    if (mode == "loaded") return ReturnFullyLoaded();
    return 2;
}

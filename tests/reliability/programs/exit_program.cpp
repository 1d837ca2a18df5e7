// Programs that end as applications do, through the public API of the shared library only:
//   velmora_exit_program MODE COUNT NETWORK PACKAGE LOCAL
// NETWORK is "up" or "down" (the host's connection callback). MODE:
//   return, exit      track COUNT states "S0", "S1", ..., then return from main or call exit()
//   shutdown          track COUNT states, print "shutdown 1" when Host::Shutdown left nothing
//                     queued ("shutdown 0" otherwise), then make two calls that must be ignored
//   deliver           track COUNT states and return once the sender delivers them
//   flush             print "flush 1" when Host::Flush left nothing queued
//   inflight          track COUNT states and return as soon as the first one is being sent
//   cooldown          track a state and call exit() while the sender waits out a cooldown
//   loaded            use every part (a session, a timed action, a playing media item with its
//                     monitor, an offer, a signal) and return without stopping anything
//   hung              the configuration file cannot be opened yet: every call that posts work
//                     must return at once; then, once the file can be read, flush
// Each mode prints "ending" just before it ends, so that the caller can time the end.
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
struct Signal {
    std::mutex mutex;
    std::condition_variable reached;
    bool seen = false;
    std::string awaited;

    void Note(std::string_view line) {
        if (awaited.empty() || line.find(awaited) == std::string_view::npos) return;
        std::lock_guard lock(mutex);
        seen = true;
        reached.notify_all();
    }
    bool Wait() {
        std::unique_lock lock(mutex);
        return reached.wait_for(lock, std::chrono::seconds(8), [this] { return seen; });
    }
};

void Ending() {
    std::puts("ending");
    std::fflush(stdout);
}

int ReturnFullyLoaded() {
    Config::CollectLifecycleData();
    Config::SetUserIdentifier("user-1");
    Analytics::TrackState("Home", {{"loaded", true}});
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
    const auto limit = std::chrono::seconds(8);
    for (auto ready : {offer.wait_for(limit), signal.wait_for(limit), exists.wait_for(limit),
                       identifier.wait_for(limit)}) {
        if (ready != std::future_status::ready) return 4;
    }
    if (!exists.get() || offer.get() != "default") return 5;
    Ending();
    return 0;
}

// Every call that only posts work, once; none may wait for the configuration file.
int CallWhileHung() {
    const auto start = std::chrono::steady_clock::now();
    Config::SetDebugLogging(true);
    Analytics::ClearQueue();
    Config::CollectLifecycleData();
    Config::SetPrivacyStatus(VelmoraPrivacyStatus::OptIn);
    Config::SetUserIdentifier("user-1");
    Analytics::TrackState("S0");
    Analytics::TrackAction("Tap");
    Analytics::TrackLocation(40.7, -74.0, 5);
    Analytics::TrackLifetimeValueIncrease(1);
    Analytics::TrackTimedActionStart("Stay");
    Analytics::TrackTimedActionEnd("Stay");
    auto media = Media::SettingsWith("Clip", 10, "Player", "p1");
    Media::Open(media);
    Media::Play("Clip", 0);
    Media::Close("Clip");
    auto offer = Vantor::LoadRequest(Vantor::CreateRequest("home", "default", {}));
    Vantor::ClearCookies();
    Cohorta::SetDpidAndDpuuid("1", "2");
    auto signal = Cohorta::SubmitSignal({{"trait", 1}});
    auto identifier = Analytics::GetTrackingIdentifierAsync();
    Analytics::TrackState("S1");
    Config::PauseCollectingLifecycleData();
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::printf("returned %lld\n", static_cast<long long>(spent.count()));
    std::fflush(stdout);
    std::printf("flush %d\n", Host::Flush(std::chrono::seconds(10)) ? 1 : 0);
    Ending();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) return 2;
    const std::string mode = argv[1];
    const int count = std::atoi(argv[2]);
    const bool up = std::string(argv[3]) == "up";
    auto* signal = new Signal();
    if (mode == "cooldown") signal->awaited = "Unable to send hit, attempting to recover";
    if (mode == "inflight" || mode == "deliver") signal->awaited = "Analytics - Sending hit";

    HostOptions options;
    options.packageDirectory = argv[4];
    options.localDirectory = argv[5];
    options.internetAvailable = [up] { return up; };
    options.connectTo = {"acme.tt.vantor.example:80:127.0.0.1:9"};  // offers reach a closed port
    options.logSink = [signal](std::string_view line) {
        std::fwrite(line.data(), 1, line.size(), stderr);
        signal->Note(line);
    };
    Host::Configure(options);
    if (mode == "hung") return CallWhileHung();
    Config::SetDebugLogging(true);

    if (mode == "flush") {
        std::printf("flush %d\n", Host::Flush(std::chrono::seconds(10)) ? 1 : 0);
    } else if (mode == "loaded") {
        return ReturnFullyLoaded();
    } else {
        for (int i = 0; i < (mode == "cooldown" ? 1 : count); ++i) Analytics::TrackState("S" + std::to_string(i), {{"i", i}});
    }
    if (!signal->awaited.empty() && !signal->Wait()) return 4;
    if (mode == "shutdown") {
        std::printf("shutdown %d\n", Host::Shutdown(std::chrono::seconds(5)) ? 1 : 0);
        Analytics::TrackState("Ignored");
        Config::SetPrivacyStatus(VelmoraPrivacyStatus::OptOut);
    }
    if (mode == "deliver") std::puts("tracked");
    Ending();
    if (mode == "exit" || mode == "cooldown") std::exit(0);
    return 0;
}

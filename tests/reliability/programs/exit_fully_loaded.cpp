// Uses every part of the library, leaves all of it running (a session, a timed action, a playing
// media item with its once-a-second monitor, queued hits) and returns from main without unloading
// or stopping anything.
//   velmora_exit_fully_loaded <package dir> <local dir>
#include <velmora/Velmora.h>

#include <chrono>
#include <cstdio>
#include <future>

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    Velmora::HostOptions options;
    options.packageDirectory = argv[1];
    options.localDirectory = argv[2];
    options.internetAvailable = [] { return false; };
    // The offer service's host leads to the closed port of the configuration, never outside.
    options.connectTo = {"acme.tt.vantor.example:80:127.0.0.1:9"};
    Velmora::Host::Configure(options);

    Velmora::Config::CollectLifecycleData();
    Velmora::Config::SetUserIdentifier("user-1");
    Velmora::Analytics::TrackState("Home", {{"loaded", true}});
    Velmora::Analytics::TrackAction("Open");
    Velmora::Analytics::TrackLocation(40.7127837, -74.0059413, 5);
    Velmora::Analytics::TrackLifetimeValueIncrease(2.5f);
    Velmora::Analytics::TrackTimedActionStart("Stay", {{"step", 1}});
    auto media = Velmora::Media::SettingsWith("Clip", 120, "Player", "p1");
    media->Milestones = "25,50,75";
    Velmora::Media::Open(media);
    Velmora::Media::Play("Clip", 0);
    auto offer = Velmora::Vantor::LoadRequest(Velmora::Vantor::CreateRequest("home", "default", {}));
    auto signal = Velmora::Cohorta::SubmitSignal({{"trait", 1}});
    auto exists = Velmora::Analytics::TrackingTimedActionExistsAsync("Stay");
    auto identifier = Velmora::Analytics::GetTrackingIdentifierAsync();

    // Everything has reached the library's queues; nothing is stopped before main returns.
    const auto limit = std::chrono::seconds(8);
    if (offer.wait_for(limit) != std::future_status::ready || signal.wait_for(limit) != std::future_status::ready ||
        exists.wait_for(limit) != std::future_status::ready ||
        identifier.wait_for(limit) != std::future_status::ready) {
        std::fputs("an answer did not come\n", stderr);
        return 4;
    }
    if (!exists.get() || offer.get() != "default") {
        std::fputs("unexpected answers\n", stderr);
        return 5;
    }
    std::printf("queued %u\n", Velmora::Analytics::GetQueueSize());
    return 0;
}

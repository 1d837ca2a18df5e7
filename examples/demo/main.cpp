// A small application instrumented with Velmora, written the way an app would use the library.
// Its hosts (collection, offers, audience) are routed to one local collector:
//   velmora-demo --collector 127.0.0.1:PORT [--local-dir DIR] [--verbose]

#include <velmora/Velmora.h>

#include <chrono>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

namespace {

struct Arguments {
    std::string collector;  // ADDRESS:PORT
    std::string localDirectory;
    bool verbose = false;
};

bool Parse(int argc, char** argv, Arguments& arguments) {
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i];
        if (flag == "--verbose") {
            arguments.verbose = true;
        } else if ((flag == "--collector" || flag == "--local-dir") && i + 1 < argc) {
            (flag == "--collector" ? arguments.collector : arguments.localDirectory) = argv[++i];
        } else {
            return false;
        }
    }
    return !arguments.collector.empty();
}

void Say(const std::string& line) { std::cout << "demo: " << line << std::endl; }

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    if (!Parse(argc, argv, arguments)) {
        std::cerr << "usage: velmora-demo --collector ADDRESS:PORT [--local-dir DIR] [--verbose]\n";
        return 2;
    }

    // Set once, before the first call into the library.
    Velmora::HostOptions host;
    host.localDirectory = arguments.localDirectory;
    host.windowSize = [] { return std::make_optional(std::make_pair(1280.0, 720.0)); };
    for (const char* name : {"collect.velmora.example", "demo.tt.vantor.example", "audience.velmora.example"}) {
        host.connectTo.push_back(std::string(name) + ":80:" + arguments.collector);
    }
    // The collector runs on this machine: it is reachable even where the machine has no route out.
    host.internetAvailable = [] { return true; };
    Velmora::Host::Configure(host);
    Velmora::Config::SetDebugLogging(arguments.verbose);
    Say("Velmora " + Velmora::Config::GetVersion());

    // The app comes to the foreground.
    Velmora::Config::CollectLifecycleData();

    Velmora::Analytics::TrackState("Home", {{"section", "front page"}, {"visitor.type", "new"}});
    Velmora::Analytics::TrackAction("AddToCart", {{"product", "Espresso cup"}, {"price", 12.5}, {"quantity", 2}});
    Say("tracked the Home state and the AddToCart action");

    Velmora::Analytics::TrackTimedActionStart("Checkout", {{"step", "cart"}});
    Velmora::Analytics::TrackTimedActionUpdate("Checkout", {{"step", "payment"}});
    Say(std::string("timed action Checkout running: ") +
        (Velmora::Analytics::TrackingTimedActionExistsAsync("Checkout").get() ? "yes" : "no"));
    Velmora::Analytics::TrackTimedActionEnd("Checkout");

    Velmora::Analytics::TrackLocation(40.7410, -73.9896, 15);
    Velmora::Analytics::TrackLifetimeValueIncrease(12.5f, {{"order", "A-100"}});
    Say("tracked a location near the Flatiron Building and a purchase of 12.50");

    auto video = Velmora::Media::SettingsWith("Product video", 30, "demo-player", "player-1");
    video->Milestones = "25,50,75";
    Velmora::Media::Open(video);
    Velmora::Media::Play("Product video", 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(2200));  // the player plays; the monitor ticks
    Velmora::Media::Track("Product video", {{"quality", "HD"}});
    Velmora::Media::Complete("Product video", 30);
    Velmora::Media::Close("Product video");
    Say("played the Product video");

    auto banner = Velmora::Vantor::CreateRequest("homepage-banner", "default banner", {{"category", "cups"}});
    Say("offer content: " + Velmora::Vantor::LoadRequest(banner).get());

    auto profile = Velmora::Cohorta::SubmitSignal({{"interest", "coffee"}}).get();
    Say("audience segments: " + std::to_string(profile ? profile->size() : 0));

    // Hits made while the privacy status is unknown wait in the queue until the user opts in.
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::Unknown);
    Velmora::Analytics::TrackAction("ConsentShown");
    Say("queued while the privacy status is unknown: " + std::to_string(Velmora::Analytics::GetQueueSize()));
    Velmora::Config::SetPrivacyStatus(Velmora::VelmoraPrivacyStatus::OptIn);

    // The app goes to the background.
    Velmora::Config::PauseCollectingLifecycleData();
    const bool delivered = Velmora::Host::Flush(std::chrono::seconds(20));
    Say(delivered ? "every hit delivered" : "some hits are still queued");
    return delivered ? 0 : 1;
}

// Programs that end as applications do, through the public API of the shared library only:
//   velmora_exit_program MODE COUNT NETWORK PACKAGE LOCAL
// NETWORK is "up" or "down" (the host's connection callback). MODE:
//   return, exit      track COUNT states "S0", "S1", ..., then return from main or call exit()
//   shutdown          track COUNT states, print "shutdown 1" when Host::Shutdown left nothing
//                     queued ("shutdown 0" otherwise), then make two calls that must be ignored
//   deliver           track COUNT states and return as soon as the first one is being sent
//   flush             print "flush 1" when Host::Flush left nothing queued
//   cooldown          track a state and call exit() while the sender waits out a cooldown
//   loaded            use every part (a timed action, a playing media item with its monitor, an
//                     offer, a signal) and return once they answered, without stopping anything
//   hung              the configuration file cannot be opened yet: every call that posts work
//                     must return at once ("returned <ms>"); then, once the file can be read, flush
//   endless           for the kill tests: track states "r<COUNT>n0", "r<COUNT>n1", ... (COUNT is
//                     the round) until killed, printing "ready" once the first is saved
//   session           start collecting lifecycle data, then end as COUNT says: "return", "exit",
//                     "shutdown", "abort" or "kill" (SIGKILL)
//   launch            start collecting lifecycle data and print "flush 1" when Host::Flush left
//                     nothing queued
//   drain             for the kill tests: deliver what the queue file holds, until killed
// The other modes print "ending" just before they end, so that the caller can time the end.
#include <velmora/Velmora.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

namespace {

using namespace Velmora;
constexpr auto kLimit = std::chrono::seconds(8);

// Calls into every part, "S0" the only state; the check waits for the answers.
std::function<bool()> UseEveryPart() {
    Config::CollectLifecycleData();
    Config::SetUserIdentifier("user-1");
    Analytics::TrackState("S0", {{"loaded", true}});
    Analytics::TrackAction("Tap");
    Analytics::TrackLocation(40.7127837, -74.0059413, 5);
    Analytics::TrackLifetimeValueIncrease(2.5f);
    Analytics::TrackTimedActionStart("Stay", {{"step", 1}});
    auto media = Media::SettingsWith("Clip", 120, "Player", "p1");
    media->Milestones = "25,50,75";
    Media::Open(media);
    Media::Play("Clip", 0);
    auto offer = Vantor::LoadRequest(Vantor::CreateRequest("home", "default", {})).share();
    auto signal = Cohorta::SubmitSignal({{"trait", 1}}).share();
    auto exists = Analytics::TrackingTimedActionExistsAsync("Stay").share();
    auto identifier = Analytics::GetTrackingIdentifierAsync().share();
    return [=] {
        for (auto ready : {offer.wait_for(kLimit), signal.wait_for(kLimit), exists.wait_for(kLimit), identifier.wait_for(kLimit)}) {
            if (ready != std::future_status::ready) return false;
        }
        return exists.get() && offer.get() == "default";
    };
}

void Print(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

// The kill tests' child: states "r<round>n0", "r<round>n1", ... without end. It gives up by itself
// after a minute (status 3): a test stopped by its time-out, which cannot kill it any more, must not
// leave it writing.
int TrackUntilKilled(int round) {
    const auto lastWrite = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (int i = 0; std::chrono::steady_clock::now() < lastWrite; ++i) {
        char name[32];  // names sort in the order they are made, across rounds too
        std::snprintf(name, sizeof name, "r%03dn%06d", round, i);
        Analytics::TrackState(name);
        if (i == 0) {
            Host::Flush(std::chrono::seconds(30));  // false: the hit stays queued, but saved
            Print("ready");
        }
        // Pauses give the library's threads room, so that a kill finds them at every stage of
        // their work, and keep the files of thirty rounds small enough to read back quickly.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return 3;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) return 2;
    const std::string mode = argv[1];
    const int count = mode == "cooldown" ? 1 : std::atoi(argv[2]);
    const std::string end = argv[2];
    const bool up = std::string(argv[3]) == "up";
    // Lives until the process ends: the library may log from its threads while exit() runs.
    struct Awaited {
        std::string line;
        std::promise<void> seen;
        std::atomic<bool> once{false};
    }* awaited = new Awaited();
    if (mode == "cooldown") awaited->line = "Unable to send hit, attempting to recover";
    if (mode == "deliver") awaited->line = "Analytics - Sending hit";
    auto seen = awaited->seen.get_future();

    HostOptions options;
    options.packageDirectory = argv[4];
    options.localDirectory = argv[5];
    options.internetAvailable = [up] { return up; };
    options.connectTo = {"acme.tt.vantor.example:80:127.0.0.1:9"};  // offers reach a closed port
    options.logSink = [awaited](std::string_view line) {
        std::fwrite(line.data(), 1, line.size(), stderr);
        if (!awaited->line.empty() && line.find(awaited->line) != std::string_view::npos && !awaited->once.exchange(true)) {
            awaited->seen.set_value();
        }
    };
    Host::Configure(options);
    if (mode == "endless") return TrackUntilKilled(count);
    if (mode == "drain") {
        Analytics::GetQueueSize();
        Host::Flush(std::chrono::minutes(1));
        return 3;  // delivered it all before the kill: the test had nothing to kill
    }
    if (mode == "hung") {
        const auto start = std::chrono::steady_clock::now();
        Config::SetDebugLogging(true);
        Analytics::ClearQueue();
        Config::SetPrivacyStatus(VelmoraPrivacyStatus::OptIn);
        UseEveryPart();
        Analytics::TrackTimedActionEnd("Stay");
        Media::Close("Clip");
        Vantor::ClearCookies();
        Cohorta::SetDpidAndDpuuid("1", "2");
        Analytics::TrackState("S1");
        Config::PauseCollectingLifecycleData();
        Print("returned " + std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                               std::chrono::steady_clock::now() - start).count()));
    }
    Config::SetDebugLogging(true);
    if (mode == "session" || mode == "launch") {
        Config::CollectLifecycleData();
        const bool flushed = Host::Flush(std::chrono::seconds(10));
        if (mode == "launch") Print("flush " + std::to_string(flushed));
        if (end == "shutdown") Host::Shutdown(std::chrono::seconds(5));
        Print("ending");
        if (end == "exit") std::exit(0);
        if (end == "abort") std::abort();
        if (end == "kill") std::raise(SIGKILL);
        return 0;
    }
    if (mode == "loaded" && !UseEveryPart()()) return 5;
    if (mode == "flush" || mode == "hung") Print("flush " + std::to_string(Host::Flush(std::chrono::seconds(10))));
    if (mode != "flush" && mode != "hung" && mode != "loaded") {
        for (int i = 0; i < count; ++i) Analytics::TrackState("S" + std::to_string(i), {{"i", i}});
    }
    if (!awaited->line.empty() && seen.wait_for(kLimit) != std::future_status::ready) return 4;
    if (mode == "shutdown") {
        Print("shutdown " + std::to_string(Host::Shutdown(std::chrono::seconds(5))));
        Analytics::TrackState("Ignored");
        Config::SetPrivacyStatus(VelmoraPrivacyStatus::OptOut);
    }
    Print("ending");
    if (mode == "exit" || mode == "cooldown") std::exit(0);
    return 0;
}

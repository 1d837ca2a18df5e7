// Calls exit() while the hit sender waits out its cooldown: the collection server answered 500
// and offline tracking is on, so the sender holds the hit and sleeps for 30 seconds.
//   velmora_exit_in_cooldown <package dir> <local dir>
#include <velmora/Velmora.h>

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

namespace {

// Lives until the process ends: the library may log from its threads while exit() runs.
struct Lines {
    std::mutex mutex;
    std::condition_variable changed;
    bool coolingDown = false;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    httplib::Server server;
    server.set_keep_alive_max_count(1);  // stopping need not wait for an idle connection
    server.Get(".*", [](const httplib::Request&, httplib::Response& response) { response.status = 500; });
    const int port = server.bind_to_any_port("127.0.0.1");
    if (port <= 0) return 3;
    std::thread serving([&server] { server.listen_after_bind(); });

    std::ofstream(std::string(argv[1]) + "/VelmoraConfig.json")
        << R"({"analytics":{"rsids":"rs","server":"127.0.0.1:)" << port
        << R"(","offlineEnabled":true,"batchLimit":0}})";

    auto* lines = new Lines();
    Velmora::HostOptions options;
    options.packageDirectory = argv[1];
    options.localDirectory = argv[2];
    options.logSink = [lines](std::string_view line) {
        std::fwrite(line.data(), 1, line.size(), stderr);
        if (line.find("imposing internal cooldown (30 seconds)") == std::string_view::npos) return;
        std::lock_guard lock(lines->mutex);
        lines->coolingDown = true;
        lines->changed.notify_all();
    };
    Velmora::Host::Configure(options);
    Velmora::Config::SetDebugLogging(true);
    Velmora::Analytics::TrackState("Cooldown");

    bool coolingDown;
    {
        std::unique_lock lock(lines->mutex);
        coolingDown = lines->changed.wait_for(lock, std::chrono::seconds(8), [lines] { return lines->coolingDown; });
    }
    server.stop();
    serving.join();
    if (!coolingDown) {
        std::fputs("the sender never reached its cooldown\n", stderr);
        return 4;
    }
    std::exit(0);
}

// The cost of the first public call of a process on the calling thread: each run starts this
// program afresh (`--once`), which times one TrackState on a new package and local directory; the
// parent reports the median of the runs. The configuration, the settings database and the
// device's files are all untouched before the call, as in a real application's first call.
#include <velmora/Velmora.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

constexpr int kRuns = 20;

int Once() {
    char pattern[] = "/tmp/velmora-first-XXXXXX";
    const std::filesystem::path dir = ::mkdtemp(pattern);
    std::ofstream(dir / "VelmoraConfig.json")
        << R"({"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true,"batchLimit":50}})";
    Velmora::HostOptions options;
    options.packageDirectory = dir;
    options.localDirectory = dir / "local";
    options.applicationName = "First";
    options.applicationVersion = "1.0.0.0";
    options.internetAvailable = [] { return false; };
    Velmora::Host::Configure(options);

    const auto start = std::chrono::steady_clock::now();
    Velmora::Analytics::TrackState("First", {{"key", std::string("value")}, {"n", 1}});
    const auto first = std::chrono::steady_clock::now() - start;
    const auto again = std::chrono::steady_clock::now();
    Velmora::Analytics::TrackState("Second", {{"key", std::string("value")}, {"n", 2}});
    const auto second = std::chrono::steady_clock::now() - again;

    std::printf("%lld %lld\n", static_cast<long long>(std::chrono::duration_cast<std::chrono::nanoseconds>(first).count()),
                static_cast<long long>(std::chrono::duration_cast<std::chrono::nanoseconds>(second).count()));
    Velmora::Host::Shutdown(std::chrono::seconds(2));
    std::filesystem::remove_all(dir);
    return 0;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--once") return Once();
    std::vector<double> firsts, seconds;
    for (int run = 0; run < kRuns; ++run) {
        int pipeFds[2];
        if (::pipe(pipeFds) != 0) return 1;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
        char once[] = "--once";
        char* childArgv[] = {argv[0], once, nullptr};
        pid_t pid = 0;
        if (::posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, childArgv, environ) != 0) return 1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipeFds[1]);
        char buffer[128] = {};
        const ssize_t n = ::read(pipeFds[0], buffer, sizeof buffer - 1);
        ::close(pipeFds[0]);
        int status = 0;
        ::waitpid(pid, &status, 0);
        long long first = 0, second = 0;
        if (n <= 0 || std::sscanf(buffer, "%lld %lld", &first, &second) != 2) return 1;
        firsts.push_back(static_cast<double>(first) / 1000.0);
        seconds.push_back(static_cast<double>(second) / 1000.0);
    }
    std::printf("first TrackState of a fresh process, calling thread: median %.1f us, max %.1f us (%d processes)\n",
                Median(firsts), *std::max_element(firsts.begin(), firsts.end()), kRuns);
    std::printf("second TrackState of the same process:             median %.1f us\n", Median(seconds));
    return 0;
}

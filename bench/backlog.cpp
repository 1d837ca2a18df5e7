// What a long offline queue costs, through the public API of the shared library only, for backlogs
// of 10,000, 100,000 and 1,000,000 hits (or the counts given as arguments). Each figure comes from
// a fresh process (this program started again with a mode):
//   track N   tracks N states with 10 context entries offline, 100 calls then Host::Flush at a
//             time; then 21 times one more state and Host::Flush, timed, with the bytes written
//             (/proc/self/io); prints the peak resident size (VmHWM) at the end
//   size      the first Analytics::GetQueueSize() of a process on that directory
//   drain     a bare loop (one curl handle, the queue's own hit URLs, one GET at a time to nginx
//             on loopback), then the library's delivery of the backlog to the same nginx (opt in,
//             Host::Flush until the queue is empty), then the bare loop again; the ratio is taken
//             against the mean of the two bare loops, so that a change of the machine's pace
//             during the run counts for both; three drains of copies of the backlog, the median
//             ratio reported
// Needs nginx (bash bench/setup.sh). Runs against whichever libvelmora.so the loader finds, so
// the same program measures an older build with LD_LIBRARY_PATH.
#include "nginx.h"

#include "ten_entries.h"

#include <velmora/Velmora.h>

#include <curl/curl.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr int kBatch = 100;  // calls between two Host::Flush: the work posted and not yet run stays small
constexpr int kMoreHits = 21;
constexpr int kSizeProcesses = 5;
constexpr int kDrainRuns = 3;

struct DrainRun {
    unsigned queued = 0, left = 0;
    int drained = 0;
    bool complete = false;
    double bareBefore = 0, bareAfter = 0, rate = 0;
    double BareRate() const { return (bareBefore + bareAfter) / 2; }
    double Ratio() const { return BareRate() > 0 ? rate / BareRate() : 0.0; }
};

double Millis(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

template <typename T>
T Median(std::vector<T> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void WriteConfig(const fs::path& package, const std::string& server, const char* privacy) {
    std::ofstream(package / "VelmoraConfig.json")
        << R"({"analytics":{"rsids":"bench-suite","server":")" << server
        << R"(","charset":"UTF-8","offlineEnabled":true,"batchLimit":0,"privacyDefault":")" << privacy << R"("}})";
}

void Configure(const fs::path& package, const fs::path& local, bool online) {
    Velmora::HostOptions options;
    options.packageDirectory = package;
    options.localDirectory = local;
    options.deviceManufacturer = "Acme";
    options.deviceModel = "Phone 1";
    options.internetAvailable = [online] { return online; };
    options.logSink = [](std::string_view) {};
    Velmora::Host::Configure(options);
}

std::map<std::string, long long> Io() {
    std::map<std::string, long long> fields;
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value) fields[key] = value;
    return fields;
}

double PeakMegabytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    }
    return -1;
}

int Track(int hits, const fs::path& package, const fs::path& local) {
    Configure(package, local, false);
    const auto start = Clock::now();
    for (int i = 0; i < hits;) {
        for (int end = std::min(hits, i + kBatch); i < end; ++i) Velmora::Analytics::TrackState("Page " + std::to_string(i), TenEntries(i));
        Velmora::Host::Flush(std::chrono::minutes(10));
    }
    const double trackSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> flushMs;
    std::vector<long long> written, stored;
    for (int i = 0; i < kMoreHits; ++i) {
        const auto before = Io();
        const auto t = Clock::now();
        Velmora::Analytics::TrackState("One more", TenEntries(i));
        Velmora::Host::Flush(std::chrono::minutes(10));
        flushMs.push_back(Millis(Clock::now() - t));
        auto after = Io();
        written.push_back(after["wchar:"] - before.at("wchar:"));
        stored.push_back(after["write_bytes:"] - before.at("write_bytes:"));
    }
    const unsigned size = Velmora::Analytics::GetQueueSize();
    std::printf("%u %.1f %.3f %.3f %lld %lld %.1f\n", size, PeakMegabytes(), Median(flushMs),
                *std::max_element(flushMs.begin(), flushMs.end()), Median(written), Median(stored), trackSeconds);
    std::fflush(stdout);
    Velmora::Host::Shutdown(std::chrono::seconds(60));
    return 0;
}

int Size(const fs::path& package, const fs::path& local) {
    Configure(package, local, false);
    const auto t = Clock::now();
    const unsigned size = Velmora::Analytics::GetQueueSize();
    std::printf("%u %.3f\n", size, Millis(Clock::now() - t));
    std::fflush(stdout);
    std::_Exit(0);  // the figure is taken; the end is not timed
}

// The hit strings of the first `count` entries of the queue file, as this library writes them.
std::vector<std::string> FirstHits(const fs::path& local, std::size_t count) {
    std::ifstream file(local / "VelmoraDataCache.json", std::ios::binary);
    std::vector<std::string> hits;
    std::string chunk(1 << 20, '\0'), text;
    while (hits.size() < count && file.read(chunk.data(), chunk.size()).gcount() > 0) {
        text.append(chunk.data(), static_cast<std::size_t>(file.gcount()));
        std::size_t at = 0;
        for (std::size_t h; hits.size() < count && (h = text.find("\"H\":\"", at)) != std::string::npos;) {
            const std::size_t end = text.find("\"}", h + 5);
            if (end == std::string::npos) break;
            hits.push_back(text.substr(h + 5, end - h - 5));
            at = end;
        }
        text.erase(0, at);
    }
    return hits;
}

// Requests per second of a bare loop over `urls`: one reused handle, one request at a time.
double BareLoop(const std::vector<std::string>& urls, long& ok) {
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "Accept-Language: en-US");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "Bench/1.0");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 5000L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, +[](char*, size_t size, size_t n, void*) { return size * n; });
    const auto start = Clock::now();
    for (const auto& url : urls) {
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        long status = 0;
        if (curl_easy_perform(curl) == CURLE_OK && curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK) ok += status == 200;
    }
    const double rate = static_cast<double>(urls.size()) / std::chrono::duration<double>(Clock::now() - start).count();
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return rate;
}

int Drain(int hits, const fs::path& package, const fs::path& local, int port) {
    const std::string base = "http://127.0.0.1:" + std::to_string(port) + "/b/ss/bench-suite/0/WINU-4.0.0/";
    auto urls = FirstHits(local, static_cast<std::size_t>(std::min(hits, 100000)));
    for (auto& url : urls) url.insert(0, base);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    long ok = 0;
    const double before = BareLoop(urls, ok);

    WriteConfig(package, "127.0.0.1:" + std::to_string(port), "optedin");
    Configure(package, local, true);
    const auto start = Clock::now();
    const unsigned queued = Velmora::Analytics::GetQueueSize();
    const bool drained = Velmora::Host::Flush(std::chrono::minutes(30));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const unsigned left = Velmora::Analytics::GetQueueSize();

    const double after = BareLoop(urls, ok);
    std::printf("%u %u %d %ld %zu %.0f %.0f %.0f\n", queued, left, drained, ok, 2 * urls.size(), before, after, queued / seconds);
    std::fflush(stdout);
    Velmora::Host::Shutdown(std::chrono::seconds(10));
    return 0;
}

// Runs this program with `arguments` and returns its standard output.
std::string Run(const std::vector<std::string>& arguments) {
    std::string out = (fs::temp_directory_path() / ("velmora-backlog-out-" + std::to_string(::getpid()))).string();
    std::vector<std::string> args{"/proc/self/exe"};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    if (posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), environ) != 0) return {};
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::ifstream file(out);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    fs::remove(out);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "track" && argc == 5) return Track(std::atoi(argv[2]), argv[3], argv[4]);
    if (mode == "size" && argc == 4) return Size(argv[2], argv[3]);
    if (mode == "drain" && argc == 6) return Drain(std::atoi(argv[2]), argv[3], argv[4], std::atoi(argv[5]));

    std::vector<int> backlogs;
    for (int i = 1; i < argc; ++i) backlogs.push_back(std::atoi(argv[i]));
    if (backlogs.empty()) backlogs = {10000, 100000, 1000000};
    std::printf("%9s | %9s | %24s | %18s | %12s | %30s\n", "backlog", "peak RSS", "one more hit: Flush ms",
                "bytes written", "fresh size", "drain / bare loop (hits/s)");
    std::printf("%9s | %9s | %24s | %18s | %12s | %30s\n", "", "MiB", "median (max) of 21", "syscall / block",
                "median of 5", "median of 3 (bare: before and after)");
    for (int hits : backlogs) {
        char pattern[] = "/tmp/velmora-backlog-XXXXXX";
        const fs::path dir = ::mkdtemp(pattern);
        const fs::path package = dir / "package", local = dir / "local", server = dir / "nginx";
        fs::create_directories(package);
        fs::create_directories(server);
        WriteConfig(package, "127.0.0.1:9", "optunknown");
        unsigned size = 0;
        double peak = 0, flushMedian = 0, flushMax = 0, trackSeconds = 0;
        long long written = 0, stored = 0;
        std::istringstream(Run({"track", std::to_string(hits), package.string(), local.string()})) >> size >> peak >>
            flushMedian >> flushMax >> written >> stored >> trackSeconds;
        std::error_code error;
        const double fileMegabytes = static_cast<double>(fs::file_size(local / "VelmoraDataCache.json", error)) / 1048576.0;
        std::vector<double> loads;
        for (int i = 0; i < kSizeProcesses; ++i) {
            unsigned known = 0;
            double ms = -1;
            std::istringstream(Run({"size", package.string(), local.string()})) >> known >> ms;
            loads.push_back(known == size ? ms : -1);
        }
        // Each drain delivers a copy of the backlog, so that the runs start alike.
        std::vector<DrainRun> drains;
        {
            velmora::bench::Nginx nginx(server);
            for (int run = 0; run < kDrainRuns && nginx.Running(); ++run) {
                const fs::path copy = dir / "drained";
                fs::copy(local, copy, fs::copy_options::recursive);
                DrainRun d;
                long ok = 0;
                std::size_t bare = 0;
                std::istringstream(Run({"drain", std::to_string(size), package.string(), copy.string(),
                                        std::to_string(nginx.Port())})) >> d.queued >> d.left >> d.drained >> ok >> bare >> d.bareBefore >> d.bareAfter >> d.rate;
                d.complete = d.queued == size && d.left == 0 && d.drained && ok == static_cast<long>(bare);
                drains.push_back(d);
                fs::remove_all(copy);
            }
        }
        std::sort(drains.begin(), drains.end(), [](const DrainRun& a, const DrainRun& b) { return a.Ratio() < b.Ratio(); });
        const DrainRun median = drains.empty() ? DrainRun{} : drains[drains.size() / 2];
        const bool complete = !drains.empty() && std::all_of(drains.begin(), drains.end(), [](const DrainRun& d) { return d.complete; });
        std::printf("%9d | %9.1f | %14.3f (%7.3f) | %8lld / %7lld | %9.1f ms | %8.0f / %8.0f = %5.2f %s\n", hits, peak, flushMedian,
                    flushMax, written, stored, Median(loads), median.rate, median.BareRate(), median.Ratio(),
                    complete ? "" : "(incomplete)");
        std::printf("%9s   drain / bare loop of the %zu runs:", "", drains.size());
        for (const auto& d : drains) std::printf(" %.2f (bare %.0f before, %.0f after)", d.Ratio(), d.bareBefore, d.bareAfter);
        std::printf("\n");
        std::printf("%9s   tracked %u hits in %.1f s, file %.1f MB\n", "", size, trackSeconds, fileMegabytes);
        std::fflush(stdout);
        fs::remove_all(dir);
    }
    return 0;
}

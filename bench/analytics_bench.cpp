// Analytics figures: hit building, the caller's cost of a tracking call, delivery to a loopback
// collection server, and an offline backlog in the queue file.
#include "analytics/hit_builder.h"
#include "analytics/hit_queue.h"
#include "analytics/tracker.h"
#include "analytics/values.h"
#include "core/device.h"
#include "runtime/runtime.h"

#include "nginx.h"

#include "ten_entries.h"

#include <velmora/Velmora.h>

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <sstream>
#include <thread>
#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <malloc.h>
#include <vector>

namespace {

using namespace velmora;
using Clock = std::chrono::steady_clock;

class ScratchDir {
public:
    ScratchDir() {
        static std::atomic<int> counter{0};
        path_ = std::filesystem::temp_directory_path() /
                ("velmora-bench-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        std::filesystem::create_directories(path_);
    }
    ~ScratchDir() {
        std::error_code error;
        std::filesystem::remove_all(path_, error);
    }
    const std::filesystem::path& path() const { return path_; }
    void Write(const std::string& name, const std::string& text) const {
        std::ofstream(path_ / name, std::ios::binary) << text;
    }

private:
    std::filesystem::path path_;
};

constexpr const char* kAid = "0123456789ABCDEF-0123456789ABCDEF";

std::string ConfigJson(const std::string& server, bool offline, const std::string& privacy) {
    return R"({"analytics":{"rsids":"bench-suite","server":")" + server + R"(","charset":"UTF-8","offlineEnabled":)" +
           (offline ? "true" : "false") + R"(,"batchLimit":0,"privacyDefault":")" + privacy + R"("}})";
}

Velmora::HostOptions Options(const ScratchDir& package, const ScratchDir& local, bool online) {
    Velmora::HostOptions options;
    options.packageDirectory = package.path();
    options.localDirectory = local.path();
    options.deviceManufacturer = "Acme";
    options.deviceModel = "Phone 1";
    options.windowSize = [] { return std::optional<std::pair<double, double>>({1080.0, 1920.0}); };
    options.internetAvailable = [online] { return online; };
    options.logSink = [](std::string_view) {};
    return options;
}

double StatusMegabytes(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field, 0) == 0) {
            std::istringstream fields(line.substr(std::string(field).size()));
            double kilobytes = 0;
            fields >> kilobytes;
            return kilobytes / 1024.0;
        }
    }
    return -1;
}

double Millis(Clock::duration duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

void BM_BuildAndSerializeHit(benchmark::State& state) {
    Logger log;
    HitBuilder builder(300);
    HitFacts facts;
    facts.deviceContext = {{"a.AppID", "Bench App 1.0.0 (0)"},
                           {"a.CarrierName", ""},
                           {"a.DeviceName", "Acme Phone 1"},
                           {"a.OSVersion", "Windows Phone 8.1"},
                           {"a.Resolution", "1080x1920"}};
    facts.aid = kAid;
    facts.charset = "UTF-8";
    facts.offlineEnabled = true;
    const StringMap context = TranslateContextData(TenEntries(), log);
    const StringMap variables{{"pageName", "Checkout/Payment"}};
    for (auto _ : state) {
        std::string hit = builder.Build(context, variables, 1400000000, facts);
        benchmark::DoNotOptimize(hit);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BuildAndSerializeHit);

// The public call, through the process-wide runtime that main() configures (offline, no network).
void BM_TrackStateCallerThread(benchmark::State& state) {
    const auto context = TenEntries();
    std::vector<double> micros;
    micros.reserve(static_cast<std::size_t>(state.max_iterations));
    for (auto _ : state) {
        const auto start = Clock::now();
        Velmora::Analytics::TrackState("Checkout", context);
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    Velmora::Host::Flush(std::chrono::seconds(120));
    std::sort(micros.begin(), micros.end());
    state.counters["median_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
}
BENCHMARK(BM_TrackStateCallerThread)->Iterations(20000);

// A runtime whose queue holds `hits` tracked hits for the server on `port`, waiting for opt-in.
std::unique_ptr<Runtime> RuntimeWithBacklog(const ScratchDir& package, const ScratchDir& local, int port, int hits,
                                            benchmark::State& state) {
    package.Write("VelmoraConfig.json", ConfigJson("127.0.0.1:" + std::to_string(port), true, "optunknown"));
    auto runtime = std::make_unique<Runtime>(Options(package, local, true));
    runtime->GetSettingsStore().Insert(kAidKey, std::string(kAid));
    auto& tracker = runtime->GetAnalyticsTracker();
    const StringMap context = TranslateContextData(TenEntries(), runtime->Log());
    for (int i = 0; i < hits; ++i) tracker.GatedTrackState("Page " + std::to_string(i), context);
    if (tracker.QueueSize() != static_cast<std::uint32_t>(hits)) state.SkipWithError("hits were not queued");
    return runtime;
}

void BM_DeliverToLoopback(benchmark::State& state) {
    constexpr int kHits = 20000;
    for (auto _ : state) {
        httplib::Server server;
        server.set_keep_alive_max_count(kHits * 2);
        server.set_keep_alive_timeout(60);
        std::atomic<int> received{0};
        std::promise<void> allReceived;
        std::mutex portsMutex;
        std::set<int> clientPorts;
        server.Get(".*", [&](const httplib::Request& request, httplib::Response& response) {
            {
                std::lock_guard lock(portsMutex);
                clientPorts.insert(request.remote_port);
            }
            response.status = 200;
            if (++received == kHits) allReceived.set_value();
        });
        const int port = server.bind_to_any_port("127.0.0.1");
        std::thread listener([&] { server.listen_after_bind(); });

        ScratchDir package, local;
        auto runtime = RuntimeWithBacklog(package, local, port, kHits, state);
        const auto start = Clock::now();
        runtime->GeneralQueue().Post([&runtime] { runtime->SetPrivacyStatus(kPrivacyOptIn); });
        allReceived.get_future().wait();
        const auto elapsed = Clock::now() - start;
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
        runtime->Flush(std::chrono::seconds(60));
        state.counters["hits_per_s"] = kHits / std::chrono::duration<double>(elapsed).count();
        state.counters["connections"] = static_cast<double>(clientPorts.size());
        runtime.reset();
        server.stop();
        listener.join();
    }
}
BENCHMARK(BM_DeliverToLoopback)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_DeliverToNginx(benchmark::State& state) {
    constexpr int kHits = 20000;
    for (auto _ : state) {
        ScratchDir server, package, local;
        bench::Nginx nginx(server.path());
        if (!nginx.Running()) {
            state.SkipWithError("nginx is not installed or did not start");
            return;
        }
        auto runtime = RuntimeWithBacklog(package, local, nginx.Port(), kHits, state);
        const auto start = Clock::now();
        runtime->GeneralQueue().Post([&runtime] { runtime->SetPrivacyStatus(kPrivacyOptIn); });
        const bool delivered = runtime->Flush(std::chrono::seconds(60)) && runtime->GetAnalyticsTracker().QueueSize() == 0;
        const auto elapsed = Clock::now() - start;
        if (!delivered) state.SkipWithError("the backlog was not delivered");
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
        state.counters["hits_per_s"] = kHits / std::chrono::duration<double>(elapsed).count();
    }
}
BENCHMARK(BM_DeliverToNginx)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_OfflineBacklogInFileAndLoad(benchmark::State& state) {
    constexpr int kHits = 10000;
    for (auto _ : state) {
        ScratchDir package, local;
        package.Write("VelmoraConfig.json", ConfigJson("collector.invalid", true, "optedin"));
        auto runtime = std::make_unique<Runtime>(Options(package, local, false));
        runtime->GetSettingsStore().Insert(kAidKey, std::string(kAid));
        auto& tracker = runtime->GetAnalyticsTracker();
        tracker.QueueSize();  // created and loaded before the clock starts
        const auto context = TenEntries();

        const auto first = Clock::now();
        for (int i = 0; i < kHits; ++i) {
            tracker.GatedTrackState("Page " + std::to_string(i), TranslateContextData(context, runtime->Log()));
        }
        const auto last = Clock::now();
        runtime->Flush(std::chrono::seconds(60));  // false: the hits stay queued without a connection
        const auto inFile = Clock::now() - last;
        const double rss = StatusMegabytes("VmRSS:");
        const double peakRss = StatusMegabytes("VmHWM:");
        state.counters["heap_in_use_MB"] = mallinfo2().uordblks / 1048576.0;
        {
            std::vector<QueuedHit> saved;
            ParseQueueFile(runtime->GetFileStore().Read(QueueFile::kFileName), saved);
            if (saved.size() != static_cast<std::size_t>(kHits)) state.SkipWithError("the file lacks hits");
        }
        runtime.reset();  // the next process

        runtime = std::make_unique<Runtime>(Options(package, local, false));
        runtime->GetDeviceContext();  // the services the queue uses, so that only the queue is timed
        runtime->GetHttpClient();
        const auto loadStart = Clock::now();
        const std::size_t loaded = runtime->GetHitQueue().SizeAfterPendingWork().get();
        const auto load = Clock::now() - loadStart;
        if (loaded != static_cast<std::size_t>(kHits)) state.SkipWithError("the file did not load back whole");

        state.SetIterationTime(std::chrono::duration<double>(inFile).count());
        state.counters["calls_ms"] = Millis(last - first);
        state.counters["in_file_after_last_call_ms"] = Millis(inFile);
        state.counters["load_ms"] = Millis(load);
        state.counters["file_MB"] =
            static_cast<double>(std::filesystem::file_size(local.path() / QueueFile::kFileName)) / (1024.0 * 1024.0);
        state.counters["rss_MB"] = rss;
        state.counters["peak_rss_MB"] = peakRss;
        runtime.reset();
        state.counters["heap_after_shutdown_MB"] = mallinfo2().uordblks / 1048576.0;
    }
}
BENCHMARK(BM_OfflineBacklogInFileAndLoad)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

// The child of BM_ReloadInFreshProcess: configures the host on the directories given and asks the
// public API for the queue size, which creates the hit queue and loads its file. Prints the call's
// time and the time from the start of the configuration.
int ReloadChild(const char* packageDir, const char* localDir) {
    Velmora::HostOptions options;
    options.packageDirectory = packageDir;
    options.localDirectory = localDir;
    options.internetAvailable = [] { return false; };
    options.logSink = [](std::string_view) {};
    const auto start = Clock::now();
    if (!Velmora::Host::Configure(options)) return 2;
    const auto asked = Clock::now();
    const auto size = Velmora::Analytics::GetQueueSize();
    const auto answered = Clock::now();
    std::printf("%u %.3f %.3f\n", static_cast<unsigned>(size), Millis(answered - asked), Millis(answered - start));
    std::fflush(stdout);
    std::_Exit(0);  // the figure is taken; the end of the process is not timed
}

void BM_ReloadInFreshProcess(benchmark::State& state) {
    constexpr int kHits = 10000, kProcesses = 5;
    for (auto _ : state) {
        ScratchDir package, local;
        package.Write("VelmoraConfig.json", ConfigJson("collector.invalid", true, "optedin"));
        {
            auto runtime = std::make_unique<Runtime>(Options(package, local, false));
            runtime->GetSettingsStore().Insert(kAidKey, std::string(kAid));
            auto& tracker = runtime->GetAnalyticsTracker();
            const StringMap context = TranslateContextData(TenEntries(), runtime->Log());
            for (int i = 0; i < kHits; ++i) tracker.GatedTrackState("Page " + std::to_string(i), context);
            runtime->Flush(std::chrono::seconds(60));
        }
        std::vector<double> loads, totals;
        for (int i = 0; i < kProcesses; ++i) {
            const std::string command = "/proc/" + std::to_string(::getpid()) + "/exe --reload-child " +
                                        package.path().string() + " " + local.path().string();
            FILE* child = ::popen(command.c_str(), "r");
            unsigned size = 0;
            double load = 0, total = 0;
            const bool read = child != nullptr && std::fscanf(child, "%u %lf %lf", &size, &load, &total) == 3;
            if (child != nullptr) ::pclose(child);
            if (!read || size != static_cast<unsigned>(kHits)) {
                state.SkipWithError("a child process did not load the queue whole");
                return;
            }
            loads.push_back(load);
            totals.push_back(total);
        }
        std::sort(loads.begin(), loads.end());
        std::sort(totals.begin(), totals.end());
        state.SetIterationTime(loads[kProcesses / 2] / 1000.0);
        state.counters["load_ms_median"] = loads[kProcesses / 2];
        state.counters["load_ms_max"] = loads.back();
        state.counters["configure_and_load_ms_median"] = totals[kProcesses / 2];
    }
}
BENCHMARK(BM_ReloadInFreshProcess)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--reload-child") return ReloadChild(argv[2], argv[3]);
    ScratchDir package, local;
    package.Write("VelmoraConfig.json", ConfigJson("collector.invalid", true, "optedin"));
    Velmora::Host::Configure(Options(package, local, false));
    Runtime::Process().GetSettingsStore().Insert(kAidKey, std::string(kAid));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    Velmora::Host::Flush(std::chrono::seconds(60));
    return 0;
}

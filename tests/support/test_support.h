#pragma once

#include "core/clock.h"
#include "runtime/runtime.h"

#include <velmora/Velmora.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace velmora::test {

// A fresh directory under the system's temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir() {
        static std::atomic<int> counter{0};
        path_ = std::filesystem::temp_directory_path() /
                ("velmora-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~TempDir() {
        std::error_code error;
        // A test may have made the directory read-only; give it back before removing it.
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, error);
        std::filesystem::remove_all(path_, error);
    }
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    void Write(const std::string& name, const std::string& text) const {
        std::ofstream file(path_ / name, std::ios::binary | std::ios::trunc);
        if (!(file << text)) throw std::runtime_error("cannot write " + (path_ / name).string());
    }
    std::string Read(const std::string& name) const {
        std::ifstream file(path_ / name, std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();  // in blocks: the kill tests read megabytes per round
        return std::move(text).str();
    }

private:
    std::filesystem::path path_;
};

// Collects the lines the library logs, for exact comparisons.
class LogCapture {
public:
    LogSink Sink() {
        return [this](std::string_view line) {
            std::lock_guard lock(mutex_);
            lines_.emplace_back(line.substr(0, line.size() - (!line.empty() && line.back() == '\n')));
        };
    }
    std::vector<std::string> Lines() const { std::lock_guard lock(mutex_); return lines_; }
    bool Contains(const std::string& line) const { return Count(line) > 0; }  // a whole line, terminator excluded
    std::size_t Count(const std::string& line) const {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line));
    }
    void Clear() { std::lock_guard lock(mutex_); lines_.clear(); }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// While it lives, the kernel refuses to let this process grow a file past `bytes`: a write fails
// part way through, as on a full disk, for root as well.
class FileSizeLimit {
public:
    explicit FileSizeLimit(std::uintmax_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {  // no signal, a failed write
        ::getrlimit(RLIMIT_FSIZE, &saved_);
        rlimit limit = saved_;
        limit.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &saved_);
        std::signal(SIGXFSZ, handler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    void (*handler_)(int);
    rlimit saved_{};
};

// As a daemon starts: standard input closed, so that the next descriptor opened is 0; restored at
// the end of the scope.
struct WithoutStandardInput {
    int saved = ::dup(0);
    WithoutStandardInput() { ::close(0); }
    ~WithoutStandardInput() { ::dup2(saved, 0), ::close(saved); }
};
inline long OpenDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// Until the promise is set, the queue waits: what the application does meanwhile comes first.
inline std::promise<void> Hold(SerialQueue& q) { std::promise<void> p; q.Post([f = p.get_future().share()] { f.wait(); }); return p; }
// Polls `condition` until it holds or `limit` of real time has passed.
inline bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    for (const auto deadline = std::chrono::steady_clock::now() + limit; !condition();) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Sets an environment variable (and the C library's idea of the time zone) while it lives.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) saved_ = old;
        ::setenv(name, value, 1);
        ::tzset();
    }
    ~ScopedEnv() {
        saved_ ? ::setenv(name_, saved_->c_str(), 1) : ::unsetenv(name_);
        ::tzset();
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    const char* name_;
    std::optional<std::string> saved_;
};

// A runtime on temporary package and local directories with a manual clock and a log capture.
struct TestRuntime {
    explicit TestRuntime(const std::string& configJson = "", HostOptions options = {}) {
        if (!configJson.empty()) package.Write("VelmoraConfig.json", configJson);
        runtime = Restart(std::move(options));
    }
    // The process-wide runtime this one configured stops before the directories and the log it
    // borrowed go, so that the next test in the process starts a fresh one.
    ~TestRuntime() { if (configuredProcess) Runtime::RetireProcess(); }
    TempDir package, local;
    LogCapture log;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::unique_ptr<Runtime> runtime;
    bool configuredProcess = false;

    // Lends the directories and the log to the process-wide runtime, configured by `configJson`.
    bool ConfigureProcess(const std::string& configJson, HostOptions options = {}) {
        runtime.reset();
        package.Write("VelmoraConfig.json", configJson);
        configuredProcess = true;
        return Velmora::Host::Configure(Options(std::move(options)));
    }
    // A second runtime on the same local directory, as a new process would see it.
    std::unique_ptr<Runtime> Restart(HostOptions options = {}) {
        return std::make_unique<Runtime>(Options(std::move(options)), clock);
    }
    HostOptions Options(HostOptions options) const {
        if (options.packageDirectory.empty()) options.packageDirectory = package.path();
        if (options.localDirectory.empty()) options.localDirectory = local.path();
        if (!options.logSink) options.logSink = const_cast<LogCapture&>(log).Sink();
        if (!options.internetAvailable) options.internetAvailable = [] { return true; };
        return options;
    }
};

}  // namespace velmora::test

#include "support/test_support.h"

#include <atomic>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace velmora::test {

TempDir::TempDir() {
    static std::atomic<int> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("velmora-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
    std::error_code error;
    // A test may have made the directory read-only; give it back before removing it.
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, error);
    std::filesystem::remove_all(path_, error);
}

void TempDir::Write(const std::string& name, const std::string& text) const {
    std::ofstream file(path_ / name, std::ios::binary | std::ios::trunc);
    file << text;
    if (!file) throw std::runtime_error("cannot write " + (path_ / name).string());
}

std::string TempDir::Read(const std::string& name) const {
    std::ifstream file(path_ / name, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

LogSink LogCapture::Sink() {
    return [this](std::string_view line) {
        std::lock_guard lock(mutex_);
        std::string text(line);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        lines_.push_back(std::move(text));
    };
}

std::vector<std::string> LogCapture::Lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

bool LogCapture::Contains(const std::string& line) const { return Count(line) > 0; }

std::size_t LogCapture::Count(const std::string& line) const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& l : lines_) n += (l == line);
    return n;
}

void LogCapture::Clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

TestRuntime::TestRuntime(const std::string& configJson, HostOptions options) {
    if (!configJson.empty()) package.Write("VelmoraConfig.json", configJson);
    runtime = std::make_unique<Runtime>(Options(std::move(options)), clock);
}

TestRuntime::~TestRuntime() { runtime.reset(); }

HostOptions TestRuntime::Options(HostOptions options) const {
    if (options.packageDirectory.empty()) options.packageDirectory = package.path();
    if (options.localDirectory.empty()) options.localDirectory = local.path();
    if (!options.logSink) options.logSink = const_cast<LogCapture&>(log).Sink();
    if (!options.internetAvailable) options.internetAvailable = [] { return true; };
    return options;
}

std::unique_ptr<Runtime> TestRuntime::Restart(HostOptions options) {
    return std::make_unique<Runtime>(Options(std::move(options)), clock);
}

}  // namespace velmora::test

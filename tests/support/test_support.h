#pragma once

#include "core/clock.h"
#include "runtime/runtime.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace velmora::test {

// A fresh directory under the system's temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    void Write(const std::string& name, const std::string& text) const;
    std::string Read(const std::string& name) const;

private:
    std::filesystem::path path_;
};

// Collects the lines the library logs, for exact comparisons.
class LogCapture {
public:
    LogSink Sink();
    std::vector<std::string> Lines() const;
    bool Contains(const std::string& line) const;  // a whole line, terminator excluded
    std::size_t Count(const std::string& line) const;
    void Clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// Polls `condition` until it holds or `limit` of real time has passed.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = std::chrono::seconds(10));

// A runtime on temporary package and local directories with a manual clock and a log capture.
struct TestRuntime {
    explicit TestRuntime(const std::string& configJson = "", HostOptions options = {});
    ~TestRuntime();
    TempDir package;
    TempDir local;
    LogCapture log;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::unique_ptr<Runtime> runtime;

    // A second runtime on the same local directory, as a new process would see it.
    std::unique_ptr<Runtime> Restart(HostOptions options = {});
    HostOptions Options(HostOptions options) const;
};

}  // namespace velmora::test

#pragma once

// What the reliability tests share: a child program, the queue file's hits as page names, and the
// count of leftover temporary files.
#include "analytics/hit_queue.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace velmora::test {

// A program started for a test, with its standard output and error in files; its output is read
// line by line. The destructor kills what is still running.
class ChildProcess {
public:
    ChildProcess(const std::string& program, std::vector<std::string> arguments, const std::filesystem::path& errorFile)
        : outputFile_(errorFile.string() + ".out"), errorFile_(errorFile) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        arguments.insert(arguments.begin(), program);
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        const int rc = ::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) throw std::runtime_error("cannot start " + program + ": " + std::to_string(rc));
    }
    ~ChildProcess() { Kill(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of standard output, or false when none came within `limit`.
    bool ReadLine(std::string& line, std::chrono::milliseconds limit) {
        std::string output;
        std::size_t end = std::string::npos;
        if (!WaitUntil([&] { return (end = (output = Read(outputFile_)).find('\n', read_)) != std::string::npos; }, limit)) return false;
        line = output.substr(read_, end - read_);
        read_ = end + 1;
        return true;
    }
    // SIGKILL; true when the program was still running and died of it.
    bool Kill() { return pid_ > 0 && ::kill(pid_, SIGKILL) == 0 && Reap(0) == 128 + SIGKILL; }
    // The exit status once the program ended within `limit`; otherwise it is killed and -1 returned.
    int Wait(std::chrono::milliseconds limit) {
        int status = -1;
        WaitUntil([&] { return (status = Reap(WNOHANG)) >= 0; }, limit);
        if (status < 0) Kill();
        return status;
    }
    std::string ErrorOutput() const { return Read(errorFile_); }

private:
    // The exit status (128 + signal when killed) once the program ended, else -1.
    int Reap(int flags) {
        int status = 0, rc;
        while ((rc = ::waitpid(pid_, &status, flags)) < 0 && errno == EINTR) {}
        if (rc != pid_) return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    static std::string Read(const std::filesystem::path& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    pid_t pid_ = -1;
    std::size_t read_ = 0;  // of the output file
    std::filesystem::path outputFile_, errorFile_;
};

// The page names of the hits queued in the file, in queue order.
inline std::vector<std::string> QueuedNames(const TempDir& local) {
    std::vector<QueuedHit> hits;
    QueueFile::ReadQueued(local.path(), hits);
    std::vector<std::string> names;
    for (const auto& hit : hits) names.push_back(DecodeHit("/b/ss/rs/0/v/" + hit.hit).variables["pageName"]);
    return names;
}

// A save's temporary files left in the directory.
inline std::size_t TemporaryFiles(const TempDir& local) {
    const std::filesystem::directory_iterator files(local.path());
    return std::count_if(begin(files), end(files), [](const auto& f) { return f.path().filename().string().find(".tmp") != std::string::npos; });
}

}  // namespace velmora::test

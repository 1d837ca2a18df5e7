#include "child_process.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace velmora::test {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           std::filesystem::path errorFile)
    : errorFile_(std::move(errorFile)) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    std::vector<std::string> all{program};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : all) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    output_ = pipeFds[0];
    if (rc != 0) {
        ::close(output_);
        throw std::runtime_error("cannot start " + program + ": " + std::to_string(rc));
    }
}

ChildProcess::~ChildProcess() {
    Kill();
    if (output_ >= 0) ::close(output_);
}

bool ChildProcess::ReadLine(std::string& line, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (auto end = pending_.find('\n'); end != std::string::npos) {
            line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd fd{output_, POLLIN, 0};
        const int ready = ::poll(&fd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        char buffer[256];
        const ssize_t n = ::read(output_, buffer, sizeof buffer);
        if (n <= 0) return false;  // the program closed its output: it ended
        pending_.append(buffer, static_cast<std::size_t>(n));
    }
}

bool ChildProcess::Kill() {
    if (pid_ <= 0) return false;
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

int ChildProcess::Wait(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (pid_ > 0) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            pid_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    Kill();
    return -1;
}

std::string ChildProcess::ErrorOutput() const {
    std::ifstream file(errorFile_);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace velmora::test

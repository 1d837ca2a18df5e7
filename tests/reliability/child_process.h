#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

namespace velmora::test {

// A program started for a test, with its standard output on a pipe (read line by line) and its
// standard error in a file. The destructor kills what is still running.
class ChildProcess {
public:
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 std::filesystem::path errorFile);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of standard output, or false when none came within `limit`.
    bool ReadLine(std::string& line, std::chrono::milliseconds limit);
    // SIGKILL; true when the program was still running and died of it.
    bool Kill();
    // The exit status once the program ended within `limit`; otherwise it is killed and -1 returned.
    int Wait(std::chrono::milliseconds limit);
    std::string ErrorOutput() const;

private:
    pid_t pid_ = -1;
    int output_ = -1;
    std::string pending_;
    std::filesystem::path errorFile_;
};

}  // namespace velmora::test

// velmora-collector: a development collection server for trying an application on one machine.

#include "collector.h"
#include "options.h"

#include <velmora/Version.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <pthread.h>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

void WriteAll(std::FILE* stream, std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fflush(stream);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace velmora::collector;
    CollectorOptions options;
    try {
        options = ParseArguments(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError& e) {
        WriteAll(stderr, std::string("velmora-collector: ") + e.what() + "\n\n" + UsageText());
        return 2;
    }
    if (options.help) {
        WriteAll(stdout, UsageText());
        return 0;
    }
    if (options.version) {
        WriteAll(stdout, "velmora-collector " VELMORA_VERSION_STRING "\n");
        return 0;
    }

    // Termination signals are taken by sigwait below, so that stopping runs on an ordinary thread;
    // the server's threads inherit the blocked mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    Output output{[](std::string_view text) { WriteAll(stdout, text); },
                  [](std::string_view text) { WriteAll(stderr, text); }};
    Collector collector(options, output);
    try {
        collector.Bind();
    } catch (const std::exception& e) {
        WriteAll(stderr, std::string("velmora-collector: ") + e.what() + "\n");
        return 1;
    }
    WriteAll(stdout, "velmora-collector listening on " + collector.Address() + "\n");

    std::thread server([&collector] { collector.Serve(); });
    int received = 0;
    sigwait(&signals, &received);
    collector.Stop();
    server.join();
    return 0;
}

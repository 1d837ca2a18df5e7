// The kernel's view of the network, in a network namespace of a forked child, so that routes can be
// made and removed without touching the machine's own; no packet is sent.
#include "core/network.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velmora {
namespace {

struct Step { const char* command; bool routeOffHost; };
const Step kSteps[] = {
    {"true", false},  // lo down; only the kernel's rejecting ::/0 on lo
    {"ip link set lo up && ip route add default dev lo", false},
    {"ip link add v0 type veth peer name v1 && ip link set v0 up && ip link set v1 up", false},
    {"ip route replace default dev v0", true},
    {"ip link set v1 down", false},  // no carrier
    {"ip link set v1 up", true},
    {"ip route replace unreachable default", false},
    {"ip route replace blackhole default", false},
    {"ip route del default && ip -6 route add default dev v0", true},
    {"ip link set v0 down", false},
};

// One line per step and monitor: the command, then "route" or "none"; first the table reads of
// two questions without a change in between.
std::string RunInNewNamespace(bool* skipped) {
    int pipe[2];
    if (::pipe(pipe) != 0) return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pipe[0]);
        std::string out;
        if (::unshare(CLONE_NEWNET) != 0 ||
            std::system("ip link add v0 type veth peer name v1 2>/dev/null && ip link del v0") != 0) {
            out = "skip";
        } else {
            RouteMonitor watching, polling(false);
            watching.RouteOffHost(), watching.RouteOffHost(), polling.RouteOffHost(), polling.RouteOffHost();
            out = "reads " + std::to_string(watching.TableReads()) + " " + std::to_string(polling.TableReads()) + "\n";
            for (const Step& step : kSteps) {
                if (std::system(step.command) != 0) out += "failed: ";
                for (RouteMonitor* monitor : {&watching, &polling}) {
                    // A carrier change reaches the interface flags a moment after the command returns.
                    const bool want = step.routeOffHost;
                    test::WaitUntil([&] { return monitor->RouteOffHost() == want; }, std::chrono::seconds(5));
                    out += std::string(step.command) + (monitor->RouteOffHost() ? ": route\n" : ": none\n");
                }
            }
        }
        (void)!::write(pipe[1], out.data(), out.size());
        ::_exit(0);
    }
    ::close(pipe[1]);
    std::string out;
    char buffer[512];
    for (ssize_t n; (n = ::read(pipe[0], buffer, sizeof(buffer))) > 0;) out.append(buffer, n);
    ::close(pipe[0]);
    ::waitpid(child, nullptr, 0);
    *skipped = out == "skip";
    return out;
}

TEST(RouteMonitor, AnswersWhetherADefaultRouteLeavesTheHostAndReadsTheTablesOnlyAfterAChange) {
    bool skipped = false;
    const std::string got = RunInNewNamespace(&skipped);
    if (skipped) GTEST_SKIP() << "no network namespace can be made here with a veth pair (needs CAP_SYS_ADMIN, iproute2 and veth)";
    std::string expected = "reads 1 2\n";
    for (const Step& step : kSteps) {
        for (int monitor = 0; monitor < 2; ++monitor) {
            expected += std::string(step.command) + (step.routeOffHost ? ": route\n" : ": none\n");
        }
    }
    EXPECT_EQ(got, expected);
}

}  // namespace
}  // namespace velmora

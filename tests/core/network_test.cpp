// The kernel's view of the network, in a network namespace of a forked child, so that routes can be
// made and removed without touching the machine's own; no packet is sent.
#include "core/network.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sched.h>

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

// Whether each monitor sees a route off the host after each step, one line per step and monitor;
// first the table reads of two questions without a change in between.
std::string Observed() {
    RouteMonitor watching, polling(false);
    watching.RouteOffHost(), watching.RouteOffHost(), polling.RouteOffHost(), polling.RouteOffHost();
    std::string out = "reads " + std::to_string(watching.TableReads()) + " " + std::to_string(polling.TableReads()) + "\n";
    for (const Step& step : kSteps) {
        if (std::system(step.command) != 0) out += "failed: ";
        for (RouteMonitor* monitor : {&watching, &polling}) {
            // A carrier change reaches the interface flags a moment after the command returns.
            test::WaitUntil([&] { return monitor->RouteOffHost() == step.routeOffHost; }, std::chrono::seconds(5));
            out += std::string(step.command) + (monitor->RouteOffHost() ? ": route\n" : ": none\n");
        }
    }
    return out;
}

TEST(RouteMonitor, AnswersWhetherADefaultRouteLeavesTheHostAndReadsTheTablesOnlyAfterAChange) {
    if (std::system("unshare --net ip link add v0 type veth peer name v1 >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "no network namespace can be made here with a veth pair (needs CAP_SYS_ADMIN, iproute2 and veth)";
    }
    std::string expected = "reads 1 2\n";
    for (const Step& step : kSteps) {
        for (int monitor = 0; monitor < 2; ++monitor) expected += std::string(step.command) + (step.routeOffHost ? ": route\n" : ": none\n");
    }
    // The child runs in a namespace of its own and prints what it saw, which a failure shows.
    EXPECT_EXIT(
        {
            const std::string got = ::unshare(CLONE_NEWNET) == 0 ? Observed() : "unshare failed";
            std::fputs(got.c_str(), stderr);
            std::_Exit(got == expected ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace velmora

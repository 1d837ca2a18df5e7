// The command line. The program itself (its first line, --json output, stopping on a signal) runs in
// the demo's end-to-end test.

#include "options.h"

#include <gtest/gtest.h>

namespace velmora::collector {
namespace {

TEST(CollectorOptions, ReadsFlagsAndRefusesBadOnes) {
    CollectorOptions options = ParseArguments({"--port", "0", "--json", "--status", "503", "--delay-ms", "250",
                                               "--dest", "http://a/", "--dest", "http://b/", "--keep", "5"});
    EXPECT_EQ(std::tie(options.port, options.json, options.hitStatus, options.hitDelayMillis, options.keep),
              std::make_tuple(0, true, 503, 250, std::size_t{5}));
    EXPECT_EQ(options.destinations, (std::vector<std::string>{"http://a/", "http://b/"}));
    for (const auto& bad : std::vector<std::vector<std::string>>{
             {"--port"}, {"--port", "65536"}, {"--port", "8x"}, {"--status", "99"}, {"--keep", "0"}, {"--host", ""},
             {"--colour"}}) {
        EXPECT_THROW(ParseArguments(bad), UsageError) << bad[0];
    }
}

}  // namespace
}  // namespace velmora::collector

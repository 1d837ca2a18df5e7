#include <velmora/Config.h>
#include <velmora/Host.h>

#include "core/device.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

// Uses the process-wide runtime: ctest runs each case in a process of its own.
TEST(ConfigIdentity, SetInTheBackgroundReadAtOnceAndKept) {
    test::TempDir package, local;
    test::LogCapture capture;
    package.Write("VelmoraConfig.json", "{}");
    Velmora::HostOptions options;
    options.packageDirectory = package.path();
    options.localDirectory = local.path();
    options.logSink = capture.Sink();
    ASSERT_TRUE(Velmora::Host::Configure(options));

    EXPECT_EQ(Velmora::Config::GetUserIdentifier(), "");
    Velmora::Config::SetUserIdentifier("user-42");
    ASSERT_TRUE(Velmora::Host::Flush(std::chrono::seconds(10)));
    EXPECT_EQ(Velmora::Config::GetUserIdentifier(), "user-42");

    Logger log;
    SettingsStore stored(local.path(), log);
    EXPECT_EQ(LookupText(stored, kVisitorIdKey), "user-42") << "a later run reads the same identifier";
    for (const auto& line : capture.Lines()) EXPECT_EQ(line.find("Velmora Error:"), std::string::npos) << line;
}

}  // namespace
}  // namespace velmora

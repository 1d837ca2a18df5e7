#include "core/config.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using test::LogCapture;
using test::TempDir;

struct ConfigCase {
    const char* name;
    const char* file;             // nullptr: no file at all
    std::int32_t storedPrivacy;   // 0: nothing stored
    std::string version;
    std::int32_t privacy;
    std::int32_t lifecycleTimeout;
    std::string charset;
    std::int32_t vantorTimeout;
    std::vector<std::string> errors;  // exact error lines
    std::vector<std::string> debug;   // debug and warning lines that must appear
};

void PrintTo(const ConfigCase& c, std::ostream* os) { *os << c.name; }

class ConfigLoading : public ::testing::TestWithParam<ConfigCase> {};

TEST_P(ConfigLoading, FollowsTheFileAndTheStoredStatus) {
    const auto& c = GetParam();
    TempDir package, local;
    LogCapture capture;
    Logger log(capture.Sink());
    log.SetDebugEnabled(true);
    if (c.file != nullptr) package.Write("VelmoraConfig.json", c.file);
    SettingsStore settings(local.path(), log);
    if (c.storedPrivacy != 0) settings.Insert(kPrivacyStatusKey, c.storedPrivacy);

    auto config = LoadConfig(package.path(), settings, log);

    EXPECT_EQ(config->version, c.version);
    EXPECT_EQ(config->Privacy(), c.privacy);
    EXPECT_EQ(config->lifecycleTimeout, c.lifecycleTimeout);
    EXPECT_EQ(config->charset, c.charset);
    EXPECT_EQ(config->vantorTimeout, c.vantorTimeout);
    std::vector<std::string> errors;
    for (const auto& line : capture.Lines()) {
        if (line.rfind("Velmora Error:", 0) == 0) errors.push_back(line.substr(14));
    }
    EXPECT_EQ(errors, c.errors);
    for (const auto& line : c.debug) EXPECT_TRUE(capture.Contains(line)) << line;
}

const char* kNotConfigured[] = {"Velmora Debug:Config - Analytics not configured",
                                "Velmora Debug:Config - Vantor not configured",
                                "Velmora Debug:Config - Cohorta not configured"};

INSTANTIATE_TEST_SUITE_P(
    Files, ConfigLoading,
    ::testing::Values(
        ConfigCase{"NoFile", nullptr, 0, "", 0, 0, "", 0, {"Config - Unable to find local VelmoraConfig.json file"}, {}},
        ConfigCase{"Empty", "", 0, "", 0, 0, "", 0,
                   {"Config - Unable to parse local config file (empty or malformed json)"}, {}},
        ConfigCase{"Malformed", "{\"analytics\": {", 0, "", 0, 0, "", 0,
                   {"Config - Unable to parse local config file (empty or malformed json)"}, {}},
        ConfigCase{"NotAnObject", "[1,2]", 0, "", 0, 0, "", 0,
                   {"Config - Unable to parse local config file (empty or malformed json)"}, {}},
        ConfigCase{"OnlyVersion", R"({"version":"2.0"})", 0, "2.0", 0, 0, "", 0, {},
                   {kNotConfigured[0], kNotConfigured[1], kNotConfigured[2]}},
        ConfigCase{"Defaults", R"({"analytics":{},"vantor":{},"cohorta":{}})", 0, "1.0", 1, 300, "UTF-8", 2, {}, {}},
        ConfigCase{"WrongTypes",
                   R"({"version":3,"analytics":{"lifecycleTimeout":"30","charset":5,"privacyDefault":2},
                      "vantor":{"timeout":"9"}})",
                   0, "1.0", 1, 300, "UTF-8", 2, {}, {}},
        ConfigCase{"Truncation", R"({"analytics":{"lifecycleTimeout":12.9},"vantor":{"timeout":-3.7}})", 0, "1.0",
                   1, 12, "UTF-8", -3, {}, {}},
        ConfigCase{"HugeNumbersClamp", R"({"analytics":{"lifecycleTimeout":1e40}})", 0, "1.0", 1, 2147483647,
                   "UTF-8", 0, {}, {}},
        ConfigCase{"OptedOut", R"({"analytics":{"privacyDefault":"optedout"}})", 0, "1.0", 2, 300, "UTF-8", 0, {},
                   {}},
        ConfigCase{"CaseDiffersFallsToOptIn", R"({"analytics":{"privacyDefault":"OptedOut"}})", 0, "1.0", 1, 300,
                   "UTF-8", 0, {}, {}},
        ConfigCase{"TrailingBlankFallsToOptIn", R"({"analytics":{"privacyDefault":"optedout "}})", 0, "1.0", 1,
                   300, "UTF-8", 0, {}, {}},
        ConfigCase{"UnknownWithoutOffline", R"({"analytics":{"privacyDefault":"optunknown"}})", 0, "1.0", 1, 300,
                   "UTF-8", 0, {},
                   {"Velmora Warning:Analytics - Default privacy status cannot be Unknown when offline tracking "
                    "is disabled, overriding to OptIn"}},
        ConfigCase{"UnknownWithOffline", R"({"analytics":{"privacyDefault":"optunknown","offlineEnabled":true}})",
                   0, "1.0", 3, 300, "UTF-8", 0, {}, {}},
        ConfigCase{"StoredStatusWins", R"({"analytics":{"privacyDefault":"optedin"}})", 2, "1.0", 2, 300, "UTF-8",
                   0, {}, {}},
        ConfigCase{"StoredOutOfRangeKept", R"({"analytics":{}})", 7, "1.0", 7, 300, "UTF-8", 0, {}, {}},
        ConfigCase{"ByteOrderMark", "\xEF\xBB\xBF{\"version\":\"5\"}", 0, "5", 0, 0, "", 0, {}, {}}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(ConfigPoints, KeepsOnlyWellFormedEntriesInOrder) {
    TempDir package, local;
    Logger log;
    package.Write("VelmoraConfig.json", R"({"analytics":{"poi":[
        ["a", 40.7, -111.9, 150], ["b", 1, 2], [3, 1, 2, 3], ["c", 1, 2, 3, 4], ["d", 1.5, 2.5, 0], "x"]}})");
    SettingsStore settings(local.path(), log);
    auto config = LoadConfig(package.path(), settings, log);
    ASSERT_EQ(config->pointsOfInterest.size(), 2u);
    EXPECT_EQ(config->pointsOfInterest[0].name, "a");
    EXPECT_DOUBLE_EQ(config->pointsOfInterest[0].longitude, -111.9);
    EXPECT_DOUBLE_EQ(config->pointsOfInterest[0].radius, 150);
    EXPECT_EQ(config->pointsOfInterest[1].name, "d");
}

class RecordingHitQueue : public HitQueueControl {
public:
    void ClearQueue() override { calls.push_back("clear"); }
    void StartSender() override { calls.push_back("start"); }
    std::vector<std::string> calls;
};

TEST(PrivacySetter, StoresValidatesAndTriggersInOrder) {
    TempDir package, local;
    LogCapture capture;
    Logger log(capture.Sink());
    log.SetDebugEnabled(true);
    package.Write("VelmoraConfig.json", R"({"analytics":{"offlineEnabled":false}})");
    SettingsStore settings(local.path(), log);
    auto config = LoadConfig(package.path(), settings, log);
    RecordingHitQueue queue;

    SetPrivacyStatus(*config, kPrivacyUnknown, settings, log, &queue);
    EXPECT_EQ(config->Privacy(), kPrivacyOptIn);
    EXPECT_TRUE(queue.calls.empty());
    EXPECT_TRUE(capture.Contains(
        "Velmora Warning:Analytics - Cannot set privacy status to unknown when offline tracking is disabled."));

    SetPrivacyStatus(*config, kPrivacyOptOut, settings, log, &queue);
    EXPECT_EQ(config->Privacy(), kPrivacyOptOut);
    EXPECT_EQ(LookupInt32(settings, kPrivacyStatusKey), kPrivacyOptOut);
    EXPECT_EQ(queue.calls, (std::vector<std::string>{"clear", "start"}));

    queue.calls.clear();
    SetPrivacyStatus(*config, 7, settings, log, &queue);
    EXPECT_EQ(config->Privacy(), 7);  // kept in memory although reported as ignored
    EXPECT_EQ(LookupInt32(settings, kPrivacyStatusKey), kPrivacyOptOut);
    EXPECT_TRUE(capture.Contains("Velmora Warning:Analytics - Invalid privacy status was ignored (7)"));
    EXPECT_EQ(queue.calls, (std::vector<std::string>{"start"}));

    SetPrivacyStatus(*config, kPrivacyOptIn, settings, log, &queue);
    EXPECT_EQ(config->Privacy(), kPrivacyOptIn);
    EXPECT_EQ(LookupInt32(settings, kPrivacyStatusKey), kPrivacyOptIn);
}

}  // namespace
}  // namespace velmora

#include "hit_collector.h"
#include "support/test_support.h"

#include <velmora/Velmora.h>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using velmora::test::HitCollector;
using velmora::test::LogCapture;
using velmora::test::TempDir;

TEST(MediaSettingsFactories, FillTheNamedFieldsAndKeepTheDefaults) {
    auto content = Velmora::Media::SettingsWith("Movie", 90.5, "Player", "p1");
    EXPECT_EQ(std::tie(content->Name, content->Length, content->PlayerName, content->PlayerID, content->IsMediaAd,
                       content->TrackSeconds, content->CompleteCloseOffsetThreshold),
              std::make_tuple("Movie", 90.5, "Player", "p1", false, 0, 1));
    auto ad = Velmora::Media::AdSettingsWith("Spot", 15, "Ads", "Movie", "pod-2", 3.5, "1.25");
    EXPECT_EQ(std::tie(ad->IsMediaAd, ad->Name, ad->Length, ad->PlayerName, ad->ParentName, ad->ParentPod,
                       ad->ParentPodPosition, ad->CPM, ad->PlayerID),
              std::make_tuple(true, "Spot", 15.0, "Ads", "Movie", "pod-2", 3.5, "1.25", ""));
}

// Each test runs in its own process, so the process-wide runtime starts fresh in each.
class MediaApi : public ::testing::Test {
protected:
    void Start(const std::string& config) {
        package.Write("VelmoraConfig.json", config);
        Velmora::HostOptions options;
        options.packageDirectory = package.path();
        options.localDirectory = local.path();
        options.logSink = log.Sink();
        options.internetAvailable = [] { return true; };
        ASSERT_TRUE(Velmora::Host::Configure(options));
        Velmora::Config::SetDebugLogging(true);
    }
    TempDir package, local;
    LogCapture log;
};

TEST_F(MediaApi, WithoutAnalyticsEveryCallOnlyWarns) {
    Start(R"({"version":"1"})");
    Velmora::Media::Open(Velmora::Media::SettingsWith("Movie", 10, "", ""));
    Velmora::Media::Play("Movie", 0);
    Velmora::Media::Track("Movie", {{"k", std::string("v")}});
    Velmora::Media::Close("Movie");
    ASSERT_TRUE(Velmora::Host::Flush(30s));
    EXPECT_EQ(log.Count("Velmora Warning:Analytics - Your config file is not set up to use Analytics"), 4u);
    EXPECT_EQ(log.Count("Velmora Debug:Media - Tried to play media item (Movie) but it doesn't exist"), 0u);
}

TEST_F(MediaApi, OpensACopyAndTranslatesTrackDataOnTheCallersSide) {
    HitCollector server;
    Start(R"({"analytics":{"rsids":"suite","server":"127.0.0.1:)" + std::to_string(server.Port()) + R"("}})");
    auto settings = Velmora::Media::AdSettingsWith("Spot\n", 10, "Ads", "Mo\r\nvie", "pod", 1, "3");
    Velmora::Media::Open(settings);
    settings->Name = "Changed";  // the open item keeps what was passed
    Velmora::Media::Open(nullptr);
    Velmora::Media::Play("Spot", 0);
    Velmora::Media::Track("Spot", {{"count", std::int32_t{3}},
                                   {"flag", true},
                                   {"ratio", 0.5},
                                   {"empty", std::string()},
                                   {"none", nullptr}});
    Velmora::Media::Stop("Changed", 0);
    ASSERT_TRUE(Velmora::Host::Flush(30s));

    EXPECT_EQ(settings->ParentName, "Mo\r\nvie") << "the application's object is never written";
    EXPECT_TRUE(log.Contains(
        "Velmora Warning:Analytics - VLMMediaSettings is required with a valid name. Media item not opened"));
    EXPECT_TRUE(log.Contains("Velmora Debug:Media - Tried to stop media item (Changed) but it doesn't exist"));
    const auto hits = server.Hits();
    ASSERT_GE(hits.size(), 2u);
    EXPECT_EQ(hits[0].variables.at("pe"), "m_s");
    EXPECT_EQ(hits[0].context.at("amediaadname"), "Spot");
    EXPECT_EQ(hits[0].context.at("amedianame"), "Movie");
    EXPECT_EQ(hits[0].context.at("amediaadCPM"), "3");
    const auto& track = hits[1].context;
    EXPECT_EQ(track.at("count"), "3");
    EXPECT_EQ(track.at("flag"), "true");
    EXPECT_EQ(track.at("ratio"), "0.5");
    EXPECT_EQ(track.count("empty"), 0u);
    EXPECT_EQ(track.count("none"), 0u);
    EXPECT_EQ(track.at("amediaadname"), "Spot");
}

}  // namespace

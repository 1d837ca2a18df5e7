#include "support/loopback_server.h"
#include "support/test_support.h"

#include <velmora/Velmora.h>

#include <gtest/gtest.h>

namespace {

using StringMap = std::map<std::string, std::string>;

// The public class on the process-wide runtime (fresh in each test's process) up to a loopback server.
TEST(MediaApi, OpensACopyTranslatesTrackDataAndSendsTheCostOnlyWithThePlay) {
    velmora::test::LoopbackServer server;
    velmora::test::TempDir package, local;
    velmora::test::LogCapture log;
    package.Write("VelmoraConfig.json", R"({"analytics":{"rsids":"suite","server":")" + server.Address() + R"("}})");
    Velmora::HostOptions options;
    options.packageDirectory = package.path();
    options.localDirectory = local.path();
    options.logSink = log.Sink();
    options.internetAvailable = [] { return true; };  // the server is on this machine
    ASSERT_TRUE(Velmora::Host::Configure(options));

    // Cleaning the parent name twice would also drop the "--**--" its first cleaning leaves.
    auto settings = Velmora::Media::AdSettingsWith("Spot\n", 15.7, "Ads", "Mo\r\nvie--*--**--*--", "pod", 2.9, "3");
    Velmora::Media::Open(settings);
    settings->Name = "Changed";  // the open item keeps what was passed
    Velmora::Media::Open(nullptr);  // refused on the queue, without a copy to make
    Velmora::Media::Play("Spot", 0);
    Velmora::Media::Track("Spot", {{"count", std::int32_t{3}}, {"flag", true}, {"ratio", 0.5},
                                   {"empty", std::string()}, {"none", nullptr}});
    ASSERT_TRUE(Velmora::Host::Flush(std::chrono::seconds(30)));

    EXPECT_EQ(settings->ParentName, "Movie--**--") << "the application's object shows the cleaned parent name";
    const auto hits = server.Hits();
    ASSERT_EQ(hits.size(), 2u);
    // Before any tick there is one snapshot, so the tracked hit has the view form too, without the cost.
    StringMap view{{"acontentType", "videoAd"}, {"ainternalaction", "Media"}, {"amediaadname", "Spot"},
                   {"amediaadplayerName", "Ads"}, {"amedianame", "Movie--**--"}, {"amediaadlength", "15"},
                   {"amediaadpod", "pod"}, {"amediaadpodPosition", "2"}, {"amediaadview", "true"}};
    StringMap tracked = view;
    tracked.insert({{"count", "3"}, {"flag", "true"}, {"ratio", "0.5"}});
    view["amediaadCPM"] = "3";
    for (std::size_t i = 0; i < hits.size(); ++i) {
        StringMap context = hits[i].context;
        for (const char* key : {"aAppID", "aDeviceName", "aOSVersion", "aResolution"}) context.erase(key);
        EXPECT_EQ(context, i == 0 ? view : tracked);
        EXPECT_EQ(hits[i].variables.at("pe"), "m_s");
        EXPECT_EQ(hits[i].variables.at("pev3"), "videoAd");
    }
}

}  // namespace

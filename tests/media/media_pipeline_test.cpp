#include "hit_collector.h"
#include "media/media_module.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using namespace std::chrono_literals;
using test::HitCollector;
using test::ReceivedHit;
using test::TestRuntime;
using Velmora::MediaSettings;

// What a media hit says about media: its event variables and the media part of its context.
StringMap MediaPart(const ReceivedHit& hit) {
    StringMap part;
    for (const char* key : {"pe", "pev2", "pev3"}) {
        if (auto it = hit.variables.find(key); it != hit.variables.end()) part[key] = it->second;
    }
    for (const auto& [key, value] : hit.context) {
        if (key.rfind("amedia", 0) == 0 || key == "acontentType" || key == "ainternalaction") part[key] = value;
    }
    return part;
}

StringMap With(StringMap base, const StringMap& extra) {
    for (const auto& [key, value] : extra) base[key] = value;
    return base;
}

TEST(MediaPipeline, ContentAndAdHitsReachTheCollectionServer) {
    HitCollector server;
    TestRuntime env(R"({"analytics":{"rsids":"suite","server":"127.0.0.1:)" + std::to_string(server.Port()) +
                    R"(","ssl":false}})");
    auto& media = env.runtime->Get<MediaModule>();
    auto run = [&](std::function<void(MediaModule&)> op) {
        media.Queue().Post([&media, op] { op(media); });
        ASSERT_TRUE(env.runtime->Flush(30s));
    };
    auto tick = [&](int seconds) {
        for (int i = 0; i < seconds; ++i) {
            env.clock->Advance(1s);
            ASSERT_TRUE(env.runtime->Flush(30s));
        }
    };

    MediaSettings movie;
    movie.Name = "Movie";
    movie.Length = 100;
    movie.PlayerName = "Player";
    movie.PlayerID = "main";
    movie.Milestones = "25";
    MediaSettings spot;
    spot.IsMediaAd = true;
    spot.Name = "Spot";
    spot.Length = 10;
    spot.PlayerName = "Ads";
    spot.ParentName = "Movie";
    spot.CPM = "2.5";

    run([movie](MediaModule& m) { m.Open(std::make_shared<MediaSettings>(movie)); });
    run([](MediaModule& m) { m.Play("Movie", 0); });
    tick(30);
    run([](MediaModule& m) { m.Stop("Movie", 30); });
    run([spot](MediaModule& m) { m.Open(std::make_shared<MediaSettings>(spot)); });
    run([](MediaModule& m) { m.Play("Spot", 0); });
    tick(10);
    run([](MediaModule& m) { m.Play("Movie", 30); });
    tick(5);
    run([](MediaModule& m) { m.Close("Movie"); });

    const StringMap content{{"pe", "m_i"}, {"pev2", "VLMINTERNAL:Media"}, {"pev3", "video"},
                            {"ainternalaction", "Media"}, {"acontentType", "video"}, {"amedianame", "Movie"},
                            {"amediaplayerName", "Player"}, {"amedialength", "100"}};
    const StringMap ad{{"pe", "m_i"}, {"pev2", "VLMINTERNAL:Media"}, {"pev3", "videoAd"},
                       {"ainternalaction", "Media"}, {"acontentType", "videoAd"}, {"amedianame", "Movie"},
                       {"amediaadname", "Spot"}, {"amediaadplayerName", "Ads"}, {"amediaadlength", "10"}};
    std::vector<StringMap> received;
    for (const auto& hit : server.Hits()) received.push_back(MediaPart(hit));
    EXPECT_EQ(received, (std::vector<StringMap>{
                            With(content, {{"pe", "m_s"}, {"amediaview", "true"}}),
                            With(content, {{"amediamilestone", "25"}, {"amediatimePlayed", "25"}}),
                            With(ad, {{"pe", "m_s"}, {"amediaadview", "true"}, {"amediaadCPM", "2.5"}}),
                            With(ad, {{"amediaadcomplete", "true"}, {"amediaadtimePlayed", "10"}}),
                            With(content, {{"amediatimePlayed", "10"}}),
                        }));
}

}  // namespace
}  // namespace velmora

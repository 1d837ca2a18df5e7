#include "lifecycle/location.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cmath>

namespace velmora {
namespace {

using test::LogCapture;

class RecordingTracker : public ActionTracker {
public:
    struct Hit {
        std::string name;
        StringMap data;
        std::int32_t timestamp;
    };
    void TrackAction(const std::string& name, const StringMap& data) override { hits.push_back({name, data, -1}); }
    void TrackInternalAction(const std::string& name, const StringMap& data, std::int32_t ts) override {
        hits.push_back({name, data, ts});
    }
    std::vector<Hit> hits;
};

struct PieceCase {
    double degrees;
    const char *a, *b, *c;
};

void PrintTo(const PieceCase& c, std::ostream* os) { *os << c.degrees; }

class CoordinateSplit : public ::testing::TestWithParam<PieceCase> {};

TEST_P(CoordinateSplit, CutsThePaddedTextIntoThreePieces) {
    const auto& p = GetParam();
    auto pieces = SplitCoordinate(p.degrees);
    EXPECT_EQ(pieces.a, p.a);
    EXPECT_EQ(pieces.b, p.b);
    EXPECT_EQ(pieces.c, p.c);
}

INSTANTIATE_TEST_SUITE_P(Degrees, CoordinateSplit,
                         ::testing::Values(PieceCase{40.7127837, "040.7", "12", "78"},
                                           PieceCase{-74.0059413, "-074.0", "05", "94"},
                                           PieceCase{90.0, "090.0", "00", "00"},
                                           PieceCase{5.5, "005.5", "00", "00"},
                                           PieceCase{-180.0, "-180.0", "00", "00"},
                                           PieceCase{0.0000049, "000.0", "00", "00"},
                                           PieceCase{179.9999999, "180.0", "00", "00"}));

class Location : public ::testing::Test {
protected:
    Location() : log(capture.Sink()) { log.SetDebugEnabled(true); }
    LocationTracker Make() {
        return LocationTracker(config, tracker, [this](const std::string& k, const std::string& v) {
            if (v.empty()) offer.erase(k); else offer[k] = v;
        }, log);
    }
    ConfigSettings config;
    RecordingTracker tracker;
    StringMap offer{{"a.loc.poi", "stale"}, {"a.loc.dist", "9"}, {"other", "kept"}};
    LogCapture capture;
    Logger log;
};

TEST_F(Location, SendsThePiecesAccuracyAndCallerData) {
    auto location = Make();
    location.TrackLocation(40.7127837, -74.0059413, 12.6, {{"shop", "1"}});
    ASSERT_EQ(tracker.hits.size(), 1u);
    EXPECT_EQ(tracker.hits[0].name, "Location");
    EXPECT_EQ(tracker.hits[0].timestamp, 0);
    EXPECT_EQ(tracker.hits[0].data, (StringMap{{"a.loc.acc", "13"},
                                                {"a.loc.lat.a", "040.7"}, {"a.loc.lat.b", "12"}, {"a.loc.lat.c", "78"},
                                                {"a.loc.lon.a", "-074.0"}, {"a.loc.lon.b", "05"}, {"a.loc.lon.c", "94"},
                                                {"shop", "1"}}));
    EXPECT_EQ(offer, (StringMap{{"other", "kept"}})) << "a position outside every point clears the old match";
}

TEST_F(Location, NoAccuracyWhenZeroOrNegative) {
    auto location = Make();
    location.TrackLocation(1, 1, 0, {});
    location.TrackLocation(1, 1, -5, {});
    ASSERT_EQ(tracker.hits.size(), 2u);
    EXPECT_EQ(tracker.hits[0].data.count("a.loc.acc"), 0u);
    EXPECT_EQ(tracker.hits[1].data.count("a.loc.acc"), 0u);
}

TEST_F(Location, BoundsAreCheckedWithTheirLines) {
    auto location = Make();
    location.TrackLocation(90.000001, 0, 1, {});
    location.TrackLocation(0, -180.5, 1, {});
    EXPECT_TRUE(tracker.hits.empty());
    EXPECT_EQ(capture.Lines(),
              (std::vector<std::string>{
                  "Velmora Warning:Analytics - TrackLocation failed, latitude value provided (90.000001) is out of "
                  "bounds (-90.000000 to 90.000000)",
                  "Velmora Warning:Analytics - TrackLocation failed, longitude value provided (-180.500000) is out "
                  "of bounds (-180.000000 to 180.000000)"}));
    location.TrackLocation(90.0, -180.0, 1, {});
    location.TrackLocation(-90.0, 180.0, 1, {});
    EXPECT_EQ(tracker.hits.size(), 2u) << "the bounds themselves are accepted";
}

TEST_F(Location, NaNPassesTheChecksAndIsPrintedAsItComes) {
    auto location = Make();
    location.TrackLocation(std::nan(""), 0, std::nan(""), {});
    ASSERT_EQ(tracker.hits.size(), 1u);
    EXPECT_EQ(tracker.hits[0].data.count("a.loc.acc"), 0u);
    EXPECT_EQ(tracker.hits[0].data.at("a.loc.lat.c"), "na");
}

TEST_F(Location, FirstConfiguredPointWinsAndRadiusZeroNeverMatches) {
    // "near" is listed after "wide" and is nearer; "zero" sits exactly on the position.
    config.pointsOfInterest = {{"zero", 40.0, -111.0, 0},
                               {"", 40.0, -111.0, 1000},
                               {"wide", 40.01, -111.0, 5000},
                               {"near", 40.0, -111.0, 100}};
    auto location = Make();
    location.TrackLocation(40.0, -111.0, 0, {});
    ASSERT_EQ(tracker.hits.size(), 1u);
    EXPECT_EQ(tracker.hits[0].data.at("a.loc.poi"), "wide");
    const std::string metres = tracker.hits[0].data.at("a.loc.dist");
    EXPECT_EQ(metres, "1112");
    EXPECT_EQ(offer, (StringMap{{"a.loc.dist", "1112"}, {"a.loc.poi", "wide"}, {"other", "kept"}}));
}

TEST(Haversine, KnownDistances) {
    EXPECT_NEAR(DistanceMetres(0, 0, 0, 0), 0, 1e-9);
    EXPECT_NEAR(DistanceMetres(0, 0, 0, 1), 111194.9, 0.1);        // one degree on the equator
    EXPECT_NEAR(DistanceMetres(40.7128, -74.006, 51.5074, -0.1278), 5570222, 50);  // New York - London
    EXPECT_NEAR(DistanceMetres(90, 0, -90, 0), 20015086.8, 1);
}

}  // namespace
}  // namespace velmora

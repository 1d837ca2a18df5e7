#include "core/device.h"
#include "location/location.h"
#include "support/loopback_server.h"
#include "support/test_support.h"
#include "vantor/vantor.h"

#include <gtest/gtest.h>

#include <cmath>

namespace velmora {
namespace {

const std::string kHost = std::string("acme") + kVantorHostSuffix;

// A position is matched against the configured points of interest; the match also goes with the
// next offer request, and a position without a match clears it.
TEST(Location, HitsCarryThePiecesAndTheFirstPointInRangeAndSoDoesTheNextOfferRequest) {
    test::LoopbackServer server;
    HostOptions options;
    options.connectTo = {kHost + ":80:" + server.Address()};
    // "near" comes after "wide", which reaches exactly to the position; "zero" (radius 0) and "" sit on it.
    test::TestRuntime t(R"({"analytics":{"rsids":"rs","server":")" + server.Address() + R"(","poi":[)"
                        R"(["zero",40.7127837,-74.0059413,0],["",40.7127837,-74.0059413,1000],["wide",40.72,-74.0059413,802.41594914469192],)"
                        R"(["near",40.7127837,-74.0059413,100]]},"vantor":{"clientCode":"acme"}})", options);
    t.runtime->Log().SetDebugEnabled(true);
    t.runtime->GetSettingsStore().Insert(kAidKey, std::string("0000000000000000-0000000000000000"));
    auto& location = t.runtime->GetLocationTracker();
    auto& vantor = t.runtime->GetVantorClient();
    location.TrackLocation(90.000001, 0, 1, {});
    location.TrackLocation(0, -180.000001, 1, {});
    location.TrackLocation(40.7127837, -74.0059413, 12.6, {{"shop", "1"}});
    vantor.LoadRequest({"home", "", {}}).get();
    location.TrackLocation(90.0, 180.0, 0, {});
    location.TrackLocation(-90.0, 0.0, 0, {});
    location.TrackLocation(std::nan(""), -180.0, std::nan(""), {});  // NaN passes the bounds
    vantor.LoadRequest({"home", "", {}}).get();
    ASSERT_TRUE(server.WaitForRequests(6));
    EXPECT_TRUE(t.log.Contains("Velmora Warning:Analytics - TrackLocation failed, latitude value provided (90.000001) is out "
                               "of bounds (-90.000000 to 90.000000)"));
    std::vector<std::string> sent;
    for (const auto& hit : server.Hits()) {
        sent.emplace_back();
        for (const auto& [key, value] : hit.context) sent.back() += key.rfind("aloc", 0) == 0 || key == "shop" ? key + "=" + value + " " : "";
    }
    EXPECT_EQ(sent, (std::vector<std::string>{
        "alocacc=13 alocdist=802 aloclata=040.7 aloclatb=12 aloclatc=78 aloclona=-074.0 aloclonb=05 aloclonc=94 alocpoi=wide shop=1 ",
        "aloclata=090.0 aloclatb=00 aloclatc=00 aloclona=180.0 aloclonb=00 aloclonc=00 ",
        "aloclata=-090.0 aloclatb=00 aloclatc=00 aloclona=000.0 aloclonb=00 aloclonc=00 ",
        // "% 011.6f" pads "nan" with blanks, and the first piece loses its leading one.
        "aloclata=" + std::string(5, ' ') + " aloclatb=   aloclatc=na aloclona=-180.0 aloclonb=00 aloclonc=00 "}));
    std::vector<std::string> offers;
    for (const auto& target : server.Targets()) {
        if (target.rfind("/m2/", 0) == 0) offers.push_back(target.substr(target.find("&mbox=")));
    }
    EXPECT_EQ(offers, (std::vector<std::string>{"&mbox=home&a.loc.dist=802&a.loc.poi=wide&a.ltv.amount=0", "&mbox=home&a.ltv.amount=0"}));
}

}  // namespace
}  // namespace velmora

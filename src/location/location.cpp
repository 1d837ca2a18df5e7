#include "location/location.h"

#include "core/number_text.h"

#include <algorithm>
#include <cmath>

namespace velmora {
namespace {

constexpr double kDegreesToRadians = 0.017453292519943295;

// printf's "% 011.6f": a blank or "-", then zeros up to 11 characters; "nan" is padded with blanks.
std::string SignedPaddedSixDecimals(double value) {
    constexpr std::size_t kWidth = 11;
    std::string digits = FixedText(value, 6);
    std::string sign = " ";
    if (!digits.empty() && digits.front() == '-') {
        sign = "-";
        digits.erase(0, 1);
    }
    if (!std::isfinite(value)) {
        const std::string text = sign + digits;
        return std::string(std::max(kWidth, text.size()) - text.size(), ' ') + text;
    }
    const std::size_t used = sign.size() + digits.size();
    return sign + std::string(std::max(kWidth, used) - used, '0') + digits;
}

std::string Piece(const std::string& text, std::size_t offset, std::size_t length) {
    return text.substr(std::min(offset, text.size()), length);
}

}  // namespace

CoordinatePieces SplitCoordinate(double degrees) {
    const std::string text = SignedPaddedSixDecimals(degrees);
    CoordinatePieces pieces{Piece(text, 0, 6), Piece(text, 6, 2), Piece(text, 8, 2)};
    if (!pieces.a.empty() && pieces.a.front() == ' ') pieces.a.erase(0, 1);
    return pieces;
}

double DistanceMetres(double latitude1, double longitude1, double latitude2, double longitude2) {
    const double dLatitude = (latitude2 - latitude1) * kDegreesToRadians;
    const double dLongitude = (longitude2 - longitude1) * kDegreesToRadians;
    const double sinLatitude = std::sin(dLatitude / 2);
    const double sinLongitude = std::sin(dLongitude / 2);
    const double h = sinLatitude * sinLatitude + std::cos(latitude1 * kDegreesToRadians) *
                                                     std::cos(latitude2 * kDegreesToRadians) * sinLongitude *
                                                     sinLongitude;
    return 2 * std::atan2(std::sqrt(h), std::sqrt(1 - h)) * 6371 * 1000;
}

LocationTracker::LocationTracker(const ConfigSettings& config, ActionTracker& tracker,
                                 SetOfferParameter setOfferParameter, const Logger& log)
    : config_(config), tracker_(tracker), setOfferParameter_(std::move(setOfferParameter)), log_(log) {}


void LocationTracker::TrackLocation(double latitude, double longitude, double accuracy,
                                    const StringMap& contextData) {
    if (latitude < -90.0 || latitude > 90.0) {
        log_.Warning("Analytics - TrackLocation failed, latitude value provided (%f) is out of bounds (%f to %f)",
                     latitude, -90.0, 90.0);
        return;
    }
    if (longitude < -180.0 || longitude > 180.0) {
        log_.Warning("Analytics - TrackLocation failed, longitude value provided (%f) is out of bounds (%f to %f)",
                     longitude, -180.0, 180.0);
        return;
    }
    StringMap data = contextData;
    const auto lat = SplitCoordinate(latitude);
    const auto lon = SplitCoordinate(longitude);
    data["a.loc.lat.a"] = lat.a;
    data["a.loc.lat.b"] = lat.b;
    data["a.loc.lat.c"] = lat.c;
    data["a.loc.lon.a"] = lon.a;
    data["a.loc.lon.b"] = lon.b;
    data["a.loc.lon.c"] = lon.c;
    if (accuracy > 0) data["a.loc.acc"] = FixedText(accuracy, 0);

    setOfferParameter_("a.loc.poi", "");
    setOfferParameter_("a.loc.dist", "");
    for (const auto& poi : config_.pointsOfInterest) {
        if (poi.name.empty() || poi.radius == 0) continue;
        const double distance = DistanceMetres(latitude, longitude, poi.latitude, poi.longitude);
        if (distance <= poi.radius) {
            const std::string metres = FixedText(distance, 0);
            data["a.loc.poi"] = poi.name;
            data["a.loc.dist"] = metres;
            setOfferParameter_("a.loc.poi", poi.name);
            setOfferParameter_("a.loc.dist", metres);
            break;
        }
    }
    tracker_.TrackInternalAction("Location", data, 0);
}

}  // namespace velmora

#pragma once

#include "core/actions.h"
#include "core/config.h"
#include "core/log.h"

#include <functional>
#include <string>

namespace velmora {

// "% 011.6f" of a coordinate cut into its coarse-to-fine pieces ("a", "b", "c").
struct CoordinatePieces {
    std::string a, b, c;
};
CoordinatePieces SplitCoordinate(double degrees);

// Great-circle distance in metres (haversine on a sphere of 6371 km).
double DistanceMetres(double latitude1, double longitude1, double latitude2, double longitude2);

// Turns a reported position into the "Location" internal action, matched against the configured
// points of interest; the match is also kept among the offer service's persistent parameters.
class LocationTracker {
public:
    using SetOfferParameter = std::function<void(const std::string& key, const std::string& value)>;

    LocationTracker(const ConfigSettings& config, ActionTracker& tracker, SetOfferParameter setOfferParameter,
                    const Logger& log);

    // Runs on the caller's queue (the general queue, after the analytics gate).
    void TrackLocation(double latitude, double longitude, double accuracy, const StringMap& contextData);

private:
    const ConfigSettings& config_;
    ActionTracker& tracker_;
    SetOfferParameter setOfferParameter_;
    const Logger& log_;
};

}  // namespace velmora

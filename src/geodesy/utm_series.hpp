// The transverse Mercator series behind SMGeodesy, before the rounding of the text forms.
// Exposed for the accuracy measurements of the benchmark. Pure; thread-safe.
#pragma once

#include <cstdint>

namespace sorvan::geodesy::series {

struct Projected {
    std::int64_t zone = 0;
    double easting = 0, northing = 0;  // metres; southern northings already shifted
};

/// Easting and northing of a coordinate in degrees, in the zone of its longitude.
Projected forward(double latitudeDegrees, double longitudeDegrees);

struct Geographic {
    double latitudeRadians = 0;  // before the cut to six decimals of a degree
    double longitudeDegrees = 0;
};

/// The inverse of forward for a zone and hemisphere.
Geographic inverse(std::int64_t zone, bool southern, double easting, double northing);

/// The latitude in degrees, cut down to six decimals, as the text conversion returns it.
double truncatedLatitudeDegrees(double latitudeRadians);

}  // namespace sorvan::geodesy::series

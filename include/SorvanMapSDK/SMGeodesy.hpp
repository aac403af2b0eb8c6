// SMGeodesy: the kit's local geodetic computations, usable without a map view. Conversion of a
// coordinate to a UTM text ("47P, 662367, 1521281") and back, on the WGS 84 ellipsoid with the
// transverse Mercator series truncated after the sixth power, and the area of a polygon on a
// sphere of the equatorial radius.
//
// The results are reproducible to the last digit: the constants and the order of every
// floating-point operation are fixed, and the library is built without contraction of
// multiply-adds or reassociation. No special zones (Norway, Svalbard) are applied.
//
// Threads: pure functions of their arguments; any thread may call them at any time.
//
//   std::string text = sorvan::geodesy::UTMFrom({13.7563, 100.5018}, true);
//   // "47P, 662367, 1521281"
//   sorvan::map::Coordinate c = sorvan::geodesy::coordinateFromUTM(text);
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/map/geometry.hpp"
#include "sorvan/platform/map/overlay.hpp"

namespace sorvan::geodesy {

/// The reason of the std::invalid_argument that coordinateFromUTM throws. It names spaces, but
/// the parser splits at commas, the form UTMFrom writes.
inline constexpr std::string_view kInvalidUTMFormat =
    "Invalid format: <zone><latitude band> <easting> <northing>";
/// The reason of the std::invalid_argument that areaOfPolygon throws for a shape with no points.
inline constexpr std::string_view kEmptyPolygon =
    "Invalid polygon: the polygon has no points, so it has no first point to close its ring";

/// The parts of a UTM text.
struct SORVAN_EXPORT UTMPosition {
    /// floor((longitude + 180) / 6) + 1, unclamped: longitude 180 gives zone 61.
    std::int64_t zone = 0;
    /// The latitude band letter, or 'N' / 'S' for the hemisphere.
    char letter = 'A';
    /// Metres, rounded half away from zero; saturated at the 32-bit limits, 0 for a NaN.
    std::int32_t easting = 0, northing = 0;
    bool operator==(const UTMPosition&) const = default;
};

/// The UTM position of a coordinate. Any coordinate is accepted, out-of-range ones included.
///
/// With withZone, the letter is the latitude band: "C" to "X" for -80 < latitude < 72 (eight
/// degrees each), "X" for 72 < latitude < 84, "Z" above 84, and "A" otherwise (exactly 72,
/// exactly 84, -80 and below). Without it, the letter is the hemisphere: "N" for latitude >= 0,
/// else "S". A southern northing has 10000000 added.
SORVAN_EXPORT UTMPosition utmPositionFrom(map::Coordinate coordinate, bool withZone);

/// Room enough for any text formatUTM writes.
inline constexpr std::size_t kMaxUTMTextLength = 64;
/// Writes "<zone><letter>, <easting>, <northing>" to out, which has room for kMaxUTMTextLength
/// chars (no terminating NUL is written). Returns the number of chars written. Allocates nothing.
SORVAN_EXPORT std::size_t formatUTM(const UTMPosition& position, char* out);

/// formatUTM(utmPositionFrom(coordinate, withZone)) as a string:
/// UTMFrom({13.7563, 100.5018}, true) is "47P, 662367, 1521281" and with false "47N, ...".
SORVAN_EXPORT std::string UTMFrom(map::Coordinate coordinate, bool withZone);

/// The coordinate of a UTM text of the form UTMFrom writes. Every " " is ignored; the text must
/// split at "," into exactly three parts, else std::invalid_argument(kInvalidUTMFormat) is thrown
/// (also when the zone part is empty). The zone is the first one or two characters (two when the
/// second character of the text is a digit), the band the rest of the first part. The bands
/// "A" and "C" to "M" are southern; every other band, including the hemisphere letter "S" and
/// lower-case letters, is northern. A zone, easting or northing that is not a number reads as
/// 0, as much of each as is a number counting. The latitude is cut down (toward minus infinity)
/// to six decimals; the longitude is not rounded.
SORVAN_EXPORT map::Coordinate coordinateFromUTM(std::string_view text);

/// The area in square metres of the ring through the shape's points (map points, converted with
/// map::coordinateForMapPoint), closed back to the first point, on a sphere of radius 6378137 m.
/// Fewer than two points give 0. Throws std::invalid_argument(kEmptyPolygon) for a shape with no
/// points.
SORVAN_EXPORT double areaOfPolygon(const map::MultiPoint& polygon);

}  // namespace sorvan::geodesy

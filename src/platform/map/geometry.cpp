#include "sorvan/platform/map/geometry.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace sorvan::map {

namespace {

// The sphere the map points are drawn on: the equatorial radius, so that the world's width
// equals the equator's length.
constexpr double kEarthRadius = 6378137.0;
constexpr double kPi = std::numbers::pi;

// The sine of the pole latitudes is exactly 1 and atanh(1) is infinite; stopping one step short
// keeps the poles far outside the world but finite, so integer conversions downstream stay
// defined.
constexpr double kMaxSine = 1.0 - 0x1p-53;

}  // namespace

MapPoint mapPointForCoordinate(Coordinate coordinate) {
    const double x = (coordinate.longitude + 180.0) / 360.0 * kMapWorldSize;
    const double sine =
        std::clamp(std::sin(coordinate.latitude * kPi / 180.0), -kMaxSine, kMaxSine);
    // ln((1 + s) / (1 - s)) / 2 is atanh(s), which keeps its precision near the equator.
    const double y = (0.5 - std::atanh(sine) / (2.0 * kPi)) * kMapWorldSize;
    return {x, y};
}

Coordinate coordinateForMapPoint(MapPoint point) {
    const double longitude = point.x / kMapWorldSize * 360.0 - 180.0;
    // The Gudermannian function: the same as 90 - 360/pi * atan(exp(-t)) without the
    // cancellation near the poles.
    const double t = (0.5 - point.y / kMapWorldSize) * 2.0 * kPi;
    const double latitude = std::atan(std::sinh(t)) * 180.0 / kPi;
    return {latitude, longitude};
}

double mapPointsPerMeterAtLatitude(double latitude) {
    const double metersAroundEquator = 2.0 * kPi * kEarthRadius;
    return kMapWorldSize / (metersAroundEquator * std::cos(latitude * kPi / 180.0));
}

}  // namespace sorvan::map

// The area of a polygon on a sphere of the equatorial radius. The sines are single precision
// and their bracket is summed in single precision on purpose: areas must match, to the
// centimetre, the ones the kit has always reported.
#include <cmath>
#include <stdexcept>
#include <string>

#include "SorvanMapSDK/SMGeodesy.hpp"

namespace sorvan::geodesy {

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kA = 6378137.0;

float sineOfLatitude(double latitudeDegrees) {
    return std::sin(static_cast<float>(latitudeDegrees * kPi / 180));
}

}  // namespace

double areaOfPolygon(const map::MultiPoint& polygon) {
    const std::size_t count = polygon.pointCount();
    if (count == 0) {
        throw std::invalid_argument(std::string(kEmptyPolygon));
    }
    // The ring closes back to the first point; a ring of fewer than three entries has no area.
    if (count + 1 < 3) {
        return 0.0;
    }
    const map::MapPoint* points = polygon.points();
    const map::Coordinate first = map::coordinateForMapPoint(points[0]);
    const float firstSine = sineOfLatitude(first.latitude);

    double sum = 0.0;
    map::Coordinate previous = first;
    float previousSine = firstSine;
    for (std::size_t i = 1; i <= count; ++i) {
        const bool closing = i == count;
        const map::Coordinate next = closing ? first : map::coordinateForMapPoint(points[i]);
        const float nextSine = closing ? firstSine : sineOfLatitude(next.latitude);
        const float bracket = previousSine + 2.0f + nextSine;
        sum += (next.longitude - previous.longitude) * kPi / 180 * static_cast<double>(bracket);
        previous = next;
        previousSine = nextSine;
    }
    return std::fabs(sum * kA * kA * 0.5);
}

}  // namespace sorvan::geodesy

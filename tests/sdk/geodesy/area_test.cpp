#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "SorvanMapSDK/SMGeodesy.hpp"

namespace sorvan::geodesy {
namespace {

std::shared_ptr<map::Polygon> polygon(const std::vector<map::Coordinate>& coords) {
    return map::Polygon::withCoordinates(coords.data(), coords.size());
}

TEST(AreaOfPolygon, EmptyPolygonThrows) {
    try {
        areaOfPolygon(map::MultiPoint());
        FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(e.what(), std::string(kEmptyPolygon));
    }
}

TEST(AreaOfPolygon, DegenerateRingsHaveNoArea) {
    EXPECT_EQ(areaOfPolygon(*polygon({{13.75, 100.5}})), 0.0);
    // Two points: out and back again; the single-precision brackets differ by at most a bit.
    EXPECT_LT(areaOfPolygon(*polygon({{13.75, 100.5}, {13.80, 100.6}})), 1.0);
    EXPECT_EQ(areaOfPolygon(*polygon({{13.75, 100.5}, {13.75, 100.6}})), 0.0);
}

TEST(AreaOfPolygon, MatchesTheSphericalZoneOfARectangle) {
    // a^2 * dLon * (sin(north) - sin(south)) on the sphere of the equatorial radius.
    const double a = 6378137.0;
    const double south = 13.0, north = 14.0, west = 100.0, east = 101.0;
    const double expected = a * a * (east - west) * M_PI / 180 *
                            (std::sin(north * M_PI / 180) - std::sin(south * M_PI / 180));
    const auto square = polygon({{south, west}, {south, east}, {north, east}, {north, west}});
    const double area = areaOfPolygon(*square);
    // Single-precision sines hold about seven digits of the difference of the sines.
    EXPECT_NEAR(area, expected, expected * 1e-5);
    // Orientation does not matter, nor does an explicit closing point.
    const auto reversed = polygon({{north, west}, {north, east}, {south, east}, {south, west}});
    EXPECT_NEAR(areaOfPolygon(*reversed), area, area * 1e-9);
    const auto closed =
        polygon({{south, west}, {south, east}, {north, east}, {north, west}, {south, west}});
    EXPECT_EQ(areaOfPolygon(*closed), area);
}

TEST(AreaOfPolygon, SinesAreSinglePrecision) {
    // A 100 m square in Bangkok. In double precision the same ring gives 10060.55 m²; the
    // single-precision sines are part of the result.
    const double dLat = 100.0 / 110574.0, dLon = 100.0 / 108200.0;
    const map::Coordinate sw{13.7563, 100.5018};
    const auto square = polygon({sw,
                                 {sw.latitude, sw.longitude + dLon},
                                 {sw.latitude + dLat, sw.longitude + dLon},
                                 {sw.latitude + dLat, sw.longitude}});
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", areaOfPolygon(*square));
    EXPECT_STREQ(text, "10012.85");
}

}  // namespace
}  // namespace sorvan::geodesy

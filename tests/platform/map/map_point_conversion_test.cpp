#include <gtest/gtest.h>

#include <cmath>

#include "sorvan/platform/map/geometry.hpp"
#include "sorvan/platform/map/overlay.hpp"

namespace sorvan::map {
namespace {

TEST(MapGeometry, CornersAndCentreOfTheWorld) {
    const MapPoint centre = mapPointForCoordinate({0.0, 0.0});
    EXPECT_DOUBLE_EQ(centre.x, kMapWorldSize / 2);
    EXPECT_DOUBLE_EQ(centre.y, kMapWorldSize / 2);

    // The square world ends at the latitude where y reaches 0 and the full width.
    const double edge = std::atan(std::sinh(M_PI)) * 180.0 / M_PI;  // 85.0511...
    const MapPoint northWest = mapPointForCoordinate({edge, -180.0});
    EXPECT_NEAR(northWest.x, 0.0, 1e-6);
    EXPECT_NEAR(northWest.y, 0.0, 1e-6);
    const MapPoint southEast = mapPointForCoordinate({-edge, 180.0});
    EXPECT_NEAR(southEast.x, kMapWorldSize, 1e-6);
    EXPECT_NEAR(southEast.y, kMapWorldSize, 1e-6);

    const Coordinate corner = coordinateForMapPoint({0.0, 0.0});
    EXPECT_NEAR(corner.latitude, 85.05112877980659, 1e-12);
    EXPECT_DOUBLE_EQ(corner.longitude, -180.0);
}

TEST(MapGeometry, PolesStayFinite) {
    for (double latitude : {90.0, -90.0}) {
        const MapPoint p = mapPointForCoordinate({latitude, 10.0});
        EXPECT_TRUE(std::isfinite(p.y)) << latitude;
        EXPECT_EQ(std::signbit(p.y), latitude > 0) << latitude;
    }
    EXPECT_DOUBLE_EQ(coordinateForMapPoint({0, -1e12}).latitude, 90.0);
    EXPECT_DOUBLE_EQ(coordinateForMapPoint({0, 1e12}).latitude, -90.0);
}

TEST(MapGeometry, RoundTripsOverTheWorld) {
    for (double latitude = -85.0; latitude <= 85.0; latitude += 2.5) {
        for (double longitude = -180.0; longitude <= 180.0; longitude += 7.5) {
            const Coordinate back =
                coordinateForMapPoint(mapPointForCoordinate({latitude, longitude}));
            EXPECT_NEAR(back.latitude, latitude, 1e-11);
            EXPECT_NEAR(back.longitude, longitude, 1e-11);
        }
    }
    // Bangkok, against the forward formula written the textbook way.
    const double lat = 13.7563, lon = 100.5018;
    const double s = std::sin(lat * M_PI / 180);
    const MapPoint p = mapPointForCoordinate({lat, lon});
    EXPECT_NEAR(p.x, (lon + 180) / 360 * kMapWorldSize, 1e-6);
    EXPECT_NEAR(p.y, (0.5 - std::log((1 + s) / (1 - s)) / (4 * M_PI)) * kMapWorldSize, 1e-6);
}

TEST(MapGeometry, PointsPerMeterFollowTheParallel) {
    EXPECT_NEAR(mapPointsPerMeterAtLatitude(0.0), kMapWorldSize / 40075016.68557849, 1e-12);
    EXPECT_NEAR(mapPointsPerMeterAtLatitude(60.0), 2 * mapPointsPerMeterAtLatitude(0.0), 1e-9);
    EXPECT_DOUBLE_EQ(mapPointsPerMeterAtLatitude(-30.0), mapPointsPerMeterAtLatitude(30.0));
}

TEST(MultiPoint, BoundsAndCoordinatesOfItsVertices) {
    const Coordinate coords[] = {{13.0, 100.0}, {14.0, 101.0}, {13.5, 99.0}};
    auto polygon = Polygon::withCoordinates(coords, 3);
    ASSERT_EQ(polygon->pointCount(), 3u);
    const MapRect rect = polygon->boundingMapRect();
    EXPECT_DOUBLE_EQ(rect.minX(), mapPointForCoordinate({0, 99.0}).x);
    EXPECT_DOUBLE_EQ(rect.maxX(), mapPointForCoordinate({0, 101.0}).x);
    EXPECT_DOUBLE_EQ(rect.minY(), mapPointForCoordinate({14.0, 0}).y);
    EXPECT_DOUBLE_EQ(rect.maxY(), mapPointForCoordinate({13.0, 0}).y);
    const auto back = polygon->coordinates();
    ASSERT_EQ(back.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_NEAR(back[i].latitude, coords[i].latitude, 1e-11);
        EXPECT_NEAR(back[i].longitude, coords[i].longitude, 1e-11);
    }
    EXPECT_NEAR(polygon->coordinate().latitude, 13.5, 0.01);
    EXPECT_NEAR(polygon->coordinate().longitude, 100.0, 1e-9);
}

TEST(MultiPoint, EmptyShapeHasTheNullRect) {
    auto line = Polyline::withCoordinates(nullptr, 0);
    EXPECT_EQ(line->pointCount(), 0u);
    EXPECT_TRUE(line->coordinates().empty());
    const MapRect rect = line->boundingMapRect();
    EXPECT_TRUE(std::isinf(rect.minX()));
    EXPECT_FALSE(rect.intersects(Overlay().boundingMapRect()));
}

}  // namespace
}  // namespace sorvan::map

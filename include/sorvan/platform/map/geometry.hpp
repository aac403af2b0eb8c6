// Coordinates, map points and the spherical-Mercator conversions of the map engine. The world
// is 2^28 x 2^28 map points; (0, 0) is the north-west corner. Pure; thread-safe.
#pragma once

#include <cstdint>

#include "sorvan/platform/export.hpp"

namespace sorvan::map {

struct SORVAN_EXPORT Coordinate {
    double latitude = 0, longitude = 0;
    bool operator==(const Coordinate&) const = default;
};

struct SORVAN_EXPORT CoordinateSpan {
    double latitudeDelta = 0, longitudeDelta = 0;
    bool operator==(const CoordinateSpan&) const = default;
};

struct SORVAN_EXPORT CoordinateRegion {
    Coordinate center;
    CoordinateSpan span;
    bool operator==(const CoordinateRegion&) const = default;
};

struct SORVAN_EXPORT MapPoint {
    double x = 0, y = 0;
    bool operator==(const MapPoint&) const = default;
};

struct SORVAN_EXPORT MapSize {
    double width = 0, height = 0;
    bool operator==(const MapSize&) const = default;
};

struct SORVAN_EXPORT MapRect {
    MapPoint origin;
    MapSize size;
    double minX() const { return origin.x; }
    double minY() const { return origin.y; }
    double maxX() const { return origin.x + size.width; }
    double maxY() const { return origin.y + size.height; }
    bool intersects(const MapRect& r) const {
        return minX() < r.maxX() && r.minX() < maxX() && minY() < r.maxY() && r.minY() < maxY();
    }
    bool operator==(const MapRect&) const = default;
};

/// The width (and height) of the world in map points.
inline constexpr double kMapWorldSize = 268435456.0;

SORVAN_EXPORT MapPoint mapPointForCoordinate(Coordinate coordinate);
SORVAN_EXPORT Coordinate coordinateForMapPoint(MapPoint point);
/// Map points per metre at a latitude.
SORVAN_EXPORT double mapPointsPerMeterAtLatitude(double latitude);

/// The address of one tile of a tile overlay: column, row (from the north), zoom level.
struct SORVAN_EXPORT TilePath {
    std::int64_t x = 0, y = 0, z = 0;
    double contentScaleFactor = 2.0;
    bool operator==(const TilePath&) const = default;
};

}  // namespace sorvan::map

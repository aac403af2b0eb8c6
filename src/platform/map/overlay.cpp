#include "sorvan/platform/map/overlay.hpp"

#include <algorithm>
#include <limits>

namespace sorvan::map {

MapRect Overlay::boundingMapRect() const {
    return {{0.0, 0.0}, {kMapWorldSize, kMapWorldSize}};
}

Coordinate Overlay::coordinate() const {
    const MapRect rect = boundingMapRect();
    return coordinateForMapPoint(
        {rect.origin.x + rect.size.width / 2.0, rect.origin.y + rect.size.height / 2.0});
}

std::vector<Coordinate> MultiPoint::coordinates() const {
    std::vector<Coordinate> result;
    result.reserve(points_.size());
    for (const MapPoint& p : points_) {
        result.push_back(coordinateForMapPoint(p));
    }
    return result;
}

MapRect MultiPoint::boundingMapRect() const {
    if (points_.empty()) {
        // The null rect: infinitely far away and empty, so it intersects nothing.
        constexpr double inf = std::numeric_limits<double>::infinity();
        return {{inf, inf}, {0.0, 0.0}};
    }
    double minX = points_.front().x, maxX = minX;
    double minY = points_.front().y, maxY = minY;
    for (const MapPoint& p : points_) {
        minX = std::min(minX, p.x);
        maxX = std::max(maxX, p.x);
        minY = std::min(minY, p.y);
        maxY = std::max(maxY, p.y);
    }
    return {{minX, minY}, {maxX - minX, maxY - minY}};
}

namespace {

std::vector<MapPoint> toMapPoints(const Coordinate* coords, std::size_t count) {
    std::vector<MapPoint> points;
    if (coords == nullptr) {
        return points;
    }
    points.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        points.push_back(mapPointForCoordinate(coords[i]));
    }
    return points;
}

}  // namespace

std::shared_ptr<Polygon> Polygon::withCoordinates(const Coordinate* coords, std::size_t count) {
    return std::make_shared<Polygon>(toMapPoints(coords, count));
}

std::shared_ptr<Polyline> Polyline::withCoordinates(const Coordinate* coords, std::size_t count) {
    return std::make_shared<Polyline>(toMapPoints(coords, count));
}

}  // namespace sorvan::map

// Overlays (things drawn on the map in map coordinates) and their shapes. Overlays are shared
// objects; their geometry is immutable after construction, so any thread may read it.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::map {

class SORVAN_EXPORT Overlay : public std::enable_shared_from_this<Overlay> {
  public:
    virtual ~Overlay() = default;
    /// The area the overlay covers; the whole world by default.
    virtual MapRect boundingMapRect() const;
    virtual Coordinate coordinate() const;
};

/// A shape with a vertex list in map points.
class SORVAN_EXPORT MultiPoint : public Overlay {
  public:
    MultiPoint() = default;
    explicit MultiPoint(std::vector<MapPoint> points) : points_(std::move(points)) {}
    std::size_t pointCount() const { return points_.size(); }
    const MapPoint* points() const { return points_.data(); }
    std::vector<Coordinate> coordinates() const;
    MapRect boundingMapRect() const override;

  private:
    std::vector<MapPoint> points_;
};

class SORVAN_EXPORT Polygon : public MultiPoint {
  public:
    using MultiPoint::MultiPoint;
    static std::shared_ptr<Polygon> withCoordinates(const Coordinate* coords, std::size_t count);
};

class SORVAN_EXPORT Polyline : public MultiPoint {
  public:
    using MultiPoint::MultiPoint;
    static std::shared_ptr<Polyline> withCoordinates(const Coordinate* coords, std::size_t count);
};

}  // namespace sorvan::map

// The map view's camera: what part of the world the view shows and how points on screen relate
// to map points. A value type of pure arithmetic: it posts nothing and draws nothing, so a
// change can be computed as a target first (for an animation to move towards) and applied
// later. Not synchronised: the map view owns one and uses it on the main queue; copies may be
// used anywhere.
#pragma once

#include <cstdint>

#include "sorvan/platform/graphics/geometry.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::map::detail {

/// Where the camera stands. Zoom is in points per map point; heading in degrees clockwise
/// from north, the map turning by -heading.
struct Camera {
    MapPoint center{kMapWorldSize / 2, kMapWorldSize / 2};
    double zoom = 0;
    double heading = 0;
    bool operator==(const Camera&) const = default;
};

/// Map points to screen points for one camera, with the rotation worked out once: for loops
/// that place many points in a frame. Gives exactly what Viewport::pointFromMap gives.
struct Projection {
    MapPoint center;
    double zoom = 0, cos = 1, sin = 0, halfWidth = 0, halfHeight = 0;
    gfx::Point operator()(MapPoint p) const;
};

class Viewport {
  public:
    /// The deepest zoom level the view allows (in the 256-point tile sense).
    static constexpr double kMaxZoomLevel = 22.0;

    /// A viewport of the given size in points showing the whole world's width.
    explicit Viewport(gfx::Size size = {320, 480});

    gfx::Size size() const { return size_; }
    double width() const { return size_.width; }
    double height() const { return size_.height; }
    /// Changes the size and brings the camera back into range; false when nothing changed.
    bool setSize(gfx::Size size);
    /// Device pixels per point: 1, 2 or 3 (default 2).
    double scale() const { return scale_; }
    /// Rounds and clamps to 1..3; false when the scale stays as it was.
    bool setScale(double scale);

    const Camera& camera() const { return camera_; }
    /// Moves to a camera, brought into range first. False when that is where it stands.
    bool moveTo(const Camera& camera);
    /// The camera brought into range: zoom between the whole world's width and the deepest
    /// level, centre wrapped around the antimeridian and clamped north and south, heading in
    /// [0, 360).
    Camera normalized(Camera camera) const;

    double minZoom() const;
    double maxZoom() const;

    // Cameras for the changes a front end or host asks for (not applied).
    Camera panned(double dxPoints, double dyPoints) const;
    Camera zoomed(double factor, gfx::Point aboutPoint) const;
    Camera rotated(double degrees) const;
    Camera showing(const CoordinateRegion& region) const;
    Camera showing(const MapRect& rect) const;

    /// A map point's place on screen, taking the shorter way around the antimeridian.
    gfx::Point pointFromMap(MapPoint p) const { return projection()(p); }
    Projection projection() const;
    /// The map point under a screen point, unwrapped: x may fall outside the world when the
    /// view straddles the antimeridian.
    MapPoint mapFromPoint(gfx::Point p) const;
    /// The map rect the unrotated viewport shows.
    MapRect visibleRect() const;
    /// The bounding box of what the viewport shows, rotation included, unwrapped.
    MapRect coveredRect() const;

    CoordinateRegion region() const { return regionFor(camera_.center, camera_.zoom); }
    CoordinateRegion regionFor(MapPoint center, double zoom) const;
    /// The region adjusted to the view's aspect ratio, never smaller than asked.
    CoordinateRegion regionThatFits(const CoordinateRegion& region) const;

    /// The level of a tile pyramid whose tiles are tilePixels wide on a 2x display (so
    /// tilePixels / 2 points) that shows the map nearest to its own size at this zoom.
    std::int64_t tileLevel(double tilePixels) const;

  private:
    // The zoom that shows a map rect of this size whole.
    double zoomFitting(double w, double h) const;

    gfx::Size size_;
    double scale_ = 2.0;
    Camera camera_;
};

}  // namespace sorvan::map::detail

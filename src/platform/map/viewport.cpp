#include "map/viewport.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace sorvan::map::detail {

namespace {

// The latitude where the square Mercator world ends.
constexpr double kMercatorLimit = 85.0511287798;

double toRadians(double degrees) {
    return degrees * std::numbers::pi / 180.0;
}

double wrapDelta(double dx) {
    if (dx > kMapWorldSize / 2 || dx < -kMapWorldSize / 2)
        dx -= std::round(dx / kMapWorldSize) * kMapWorldSize;
    return dx;
}

// The height in map points of a region's latitude span, cut at the Mercator limit.
double spanHeight(const CoordinateRegion& r) {
    double top = std::min(kMercatorLimit, r.center.latitude + r.span.latitudeDelta / 2);
    double bottom = std::max(-kMercatorLimit, r.center.latitude - r.span.latitudeDelta / 2);
    return mapPointForCoordinate({bottom, r.center.longitude}).y -
           mapPointForCoordinate({top, r.center.longitude}).y;
}

}  // namespace

Viewport::Viewport(gfx::Size size) : size_(size) {
    camera_.zoom = minZoom();
    camera_ = normalized(camera_);
}

bool Viewport::setSize(gfx::Size size) {
    if (size == size_)
        return false;
    size_ = size;
    camera_ = normalized(camera_);
    return true;
}

bool Viewport::setScale(double scale) {
    scale = std::clamp(std::round(scale), 1.0, 3.0);
    if (scale == scale_)
        return false;
    scale_ = scale;
    return true;
}

bool Viewport::moveTo(const Camera& camera) {
    Camera next = normalized(camera);
    if (next == camera_)
        return false;
    camera_ = next;
    return true;
}

double Viewport::minZoom() const {
    return std::max(1.0, width()) / kMapWorldSize;
}

double Viewport::maxZoom() const {
    return std::exp2(kMaxZoomLevel - 20.0);
}

Camera Viewport::normalized(Camera c) const {
    c.zoom = std::clamp(c.zoom, minZoom(), maxZoom());
    c.center.x = std::fmod(c.center.x, kMapWorldSize);
    if (c.center.x < 0)
        c.center.x += kMapWorldSize;
    c.center.y = std::clamp(c.center.y, 0.0, kMapWorldSize);
    c.heading = std::fmod(c.heading, 360.0);
    if (c.heading < 0)
        c.heading += 360.0;
    if (c.heading >= 360.0)
        c.heading = 0;
    return c;
}

Camera Viewport::panned(double dx, double dy) const {
    Camera c = camera_;
    double t = toRadians(c.heading), co = std::cos(t), s = std::sin(t);
    c.center.x -= (dx * co - dy * s) / c.zoom;
    c.center.y -= (dx * s + dy * co) / c.zoom;
    return c;
}

Camera Viewport::zoomed(double factor, gfx::Point about) const {
    Camera c = camera_;
    MapPoint fixed = mapFromPoint(about);
    c.zoom = std::clamp(c.zoom * factor, minZoom(), maxZoom());
    double vx = about.x - width() / 2, vy = about.y - height() / 2;
    double t = toRadians(c.heading), co = std::cos(t), s = std::sin(t);
    c.center = {fixed.x - (vx * co - vy * s) / c.zoom, fixed.y - (vx * s + vy * co) / c.zoom};
    return c;
}

Camera Viewport::rotated(double degrees) const {
    Camera c = camera_;
    c.heading += degrees;
    return c;
}

Camera Viewport::showing(const CoordinateRegion& region) const {
    Camera c = camera_;
    double w = region.span.longitudeDelta * kMapWorldSize / 360.0;
    double h = spanHeight(region);
    c.center = mapPointForCoordinate(region.center);
    c.zoom = zoomFitting(w, h);
    return c;
}

Camera Viewport::showing(const MapRect& rect) const {
    Camera c = camera_;
    c.center = {rect.origin.x + rect.size.width / 2, rect.origin.y + rect.size.height / 2};
    c.zoom = zoomFitting(rect.size.width, rect.size.height);
    return c;
}

gfx::Point Projection::operator()(MapPoint p) const {
    double dx = wrapDelta(p.x - center.x) * zoom, dy = (p.y - center.y) * zoom;
    return {dx * cos - dy * sin + halfWidth, dx * sin + dy * cos + halfHeight};
}

Projection Viewport::projection() const {
    double t = toRadians(-camera_.heading);
    return {camera_.center, camera_.zoom, std::cos(t), std::sin(t), width() / 2, height() / 2};
}

MapPoint Viewport::mapFromPoint(gfx::Point p) const {
    double dx = p.x - width() / 2, dy = p.y - height() / 2;
    double t = toRadians(camera_.heading), c = std::cos(t), s = std::sin(t);
    return {camera_.center.x + (dx * c - dy * s) / camera_.zoom,
            camera_.center.y + (dx * s + dy * c) / camera_.zoom};
}

MapRect Viewport::visibleRect() const {
    double w = width() / camera_.zoom, h = height() / camera_.zoom;
    return {{camera_.center.x - w / 2, camera_.center.y - h / 2}, {w, h}};
}

MapRect Viewport::coveredRect() const {
    MapPoint corners[4] = {mapFromPoint({0, 0}), mapFromPoint({width(), 0}),
                           mapFromPoint({0, height()}), mapFromPoint({width(), height()})};
    double minX = corners[0].x, maxX = minX, minY = corners[0].y, maxY = minY;
    for (auto& c : corners) {
        minX = std::min(minX, c.x);
        maxX = std::max(maxX, c.x);
        minY = std::min(minY, c.y);
        maxY = std::max(maxY, c.y);
    }
    return {{minX, minY}, {maxX - minX, maxY - minY}};
}

double Viewport::zoomFitting(double w, double h) const {
    double zx = w > 0 ? width() / w : INFINITY, zy = h > 0 ? height() / h : INFINITY;
    double z = std::min(zx, zy);
    return std::isfinite(z) ? z : camera_.zoom;
}

CoordinateRegion Viewport::regionFor(MapPoint c, double z) const {
    double w = width() / z, h = height() / z;
    CoordinateRegion r;
    r.center = coordinateForMapPoint({c.x, c.y});
    r.span.longitudeDelta = w * 360.0 / kMapWorldSize;
    r.span.latitudeDelta = coordinateForMapPoint({c.x, c.y - h / 2}).latitude -
                           coordinateForMapPoint({c.x, c.y + h / 2}).latitude;
    return r;
}

CoordinateRegion Viewport::regionThatFits(const CoordinateRegion& region) const {
    double w = region.span.longitudeDelta * kMapWorldSize / 360.0;
    double z = std::clamp(zoomFitting(w, spanHeight(region)), minZoom(), maxZoom());
    return regionFor(mapPointForCoordinate(region.center), z);
}

std::int64_t Viewport::tileLevel(double tilePixels) const {
    double worldPoints = kMapWorldSize * camera_.zoom;
    // Tile sizes are pixels of a 2x display: a tile covers tilePixels / 2 points.
    return std::llround(std::log2(worldPoints / (tilePixels / 2)));
}

}  // namespace sorvan::map::detail

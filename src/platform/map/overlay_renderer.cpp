#include "sorvan/platform/map/overlay_renderer.hpp"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "map/tile_store.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "ui/cairo_util.hpp"

namespace sorvan::map {

// TileOverlay ------------------------------------------------------------------------------

void TileOverlay::loadTileAtPath(const TilePath&, TileResult result) {
    if (result)
        result({}, std::nullopt);
}

// OverlayRenderer --------------------------------------------------------------------------

OverlayRenderer::OverlayRenderer(std::shared_ptr<Overlay> overlay) : overlay_(std::move(overlay)) {}

void OverlayRenderer::drawMapRect(const MapRect&, double, cairo_t*) {}

bool OverlayRenderer::canDrawMapRect(const MapRect&, double) {
    return true;
}

void OverlayRenderer::setNeedsDisplay() {
    generation_.fetch_add(1);
    if (auto view = mapView())
        view->setNeedsDisplay();
}

void OverlayRenderer::setNeedsDisplayInMapRect(const MapRect&) {
    // Tiles are cheap to redraw next to the cost of tracking dirty areas per tile.
    setNeedsDisplay();
}

// TileOverlayRenderer ----------------------------------------------------------------------

TileOverlayRenderer::TileOverlayRenderer(std::shared_ptr<TileOverlay> overlay)
    : OverlayRenderer(std::move(overlay)) {}

std::shared_ptr<TileOverlay> TileOverlayRenderer::tileOverlay() const {
    return std::dynamic_pointer_cast<TileOverlay>(overlay());
}

void TileOverlayRenderer::attachTileStore(std::shared_ptr<detail::TileStore> store) {
    std::lock_guard lock(storeMutex_);
    store_ = std::move(store);
}

std::shared_ptr<detail::TileStore> TileOverlayRenderer::store() const {
    std::lock_guard lock(storeMutex_);
    return store_;
}

TilePath TileOverlayRenderer::tilePath(const MapRect& mapRect, double zoomScale) const {
    auto overlay = tileOverlay();
    double tileSize = overlay ? overlay->tileSize().width : 256.0;
    TilePath path;
    if (zoomScale <= 0 || tileSize <= 0)
        return path;
    double tileWidth = tileSize / zoomScale;
    path.z = std::llround(std::log2(kMapWorldSize / tileWidth));
    path.x = std::llround(mapRect.origin.x / tileWidth);
    path.y = std::llround(mapRect.origin.y / tileWidth);
    return path;
}

std::shared_ptr<gfx::Image> TileOverlayRenderer::tileImage(const MapRect& mapRect,
                                                           double zoomScale) const {
    auto s = store();
    auto overlay = this->overlay();
    if (!s || !overlay)
        return nullptr;
    TilePath p = tilePath(mapRect, zoomScale);
    return s->lookup({overlay.get(), p.z, p.x, p.y}).image;
}

bool TileOverlayRenderer::canDrawMapRect(const MapRect& mapRect, double zoomScale) {
    auto s = store();
    auto overlay = this->overlay();
    if (!s || !overlay)
        return false;
    TilePath p = tilePath(mapRect, zoomScale);
    return s->lookup({overlay.get(), p.z, p.x, p.y}).state == detail::TileStore::State::Loaded;
}

void TileOverlayRenderer::drawMapRect(const MapRect& mapRect, double zoomScale, cairo_t* context) {
    auto image = tileImage(mapRect, zoomScale);
    if (!image)
        return;
    ui::detail::paintImage(context, *image, mapRect.origin.x, mapRect.origin.y, mapRect.size.width,
                           mapRect.size.height, alpha());
}

void TileOverlayRenderer::reloadData() {
    if (auto s = store())
        if (auto o = overlay())
            s->forget(o.get());
    setNeedsDisplay();
}

// PolylineRenderer -------------------------------------------------------------------------

PolylineRenderer::PolylineRenderer(std::shared_ptr<Polyline> polyline)
    : OverlayRenderer(std::move(polyline)) {}

gfx::Color PolylineRenderer::strokeColor() const {
    std::lock_guard lock(mutex_);
    return strokeColor_;
}

void PolylineRenderer::setStrokeColor(gfx::Color c) {
    {
        std::lock_guard lock(mutex_);
        strokeColor_ = c;
    }
    setNeedsDisplay();
}

double PolylineRenderer::lineWidth() const {
    std::lock_guard lock(mutex_);
    return lineWidth_;
}

void PolylineRenderer::setLineWidth(double w) {
    {
        std::lock_guard lock(mutex_);
        lineWidth_ = w;
    }
    setNeedsDisplay();
}

void PolylineRenderer::drawMapRect(const MapRect& mapRect, double zoomScale, cairo_t* context) {
    auto line = std::dynamic_pointer_cast<Polyline>(overlay());
    if (!line || line->pointCount() < 2 || zoomScale <= 0)
        return;
    gfx::Color color = strokeColor();
    double mapPointsPerPoint = 2.0 / zoomScale;
    double width = lineWidth() * mapPointsPerPoint;
    MapRect box = line->boundingMapRect();
    // Generous margin: round caps and joins reach half a line width beyond the path.
    double m = 2 * width;
    double x0 = mapRect.minX() - m, y0 = mapRect.minY() - m;
    double x1 = mapRect.maxX() + m, y1 = mapRect.maxY() + m;
    MapRect grown{{x0, y0}, {x1 - x0, y1 - y0}};
    if (!grown.intersects(box))
        return;
    cairo_save(context);
    // Paths are given relative to the tile's corner and clipped to the tile's neighbourhood:
    // cairo keeps device coordinates in 24.8 fixed point, and a long route at a deep level
    // would overflow it.
    cairo_translate(context, mapRect.minX(), mapRect.minY());
    cairo_new_path(context);
    const MapPoint* pts = line->points();
    bool penDown = false;
    MapPoint pen;
    for (std::size_t i = 1; i < line->pointCount(); ++i) {
        MapPoint a = pts[i - 1], b = pts[i];
        double t0 = 0, t1 = 1, dx = b.x - a.x, dy = b.y - a.y;
        bool inside = true;
        for (auto [p, q] : {std::pair{-dx, a.x - x0}, std::pair{dx, x1 - a.x},
                            std::pair{-dy, a.y - y0}, std::pair{dy, y1 - a.y}}) {
            if (p == 0) {
                if (q < 0)
                    inside = false;
                continue;
            }
            double r = q / p;
            if (p < 0)
                t0 = std::max(t0, r);
            else
                t1 = std::min(t1, r);
        }
        if (!inside || t0 > t1) {
            penDown = false;
            continue;
        }
        MapPoint ca{a.x + t0 * dx, a.y + t0 * dy}, cb{a.x + t1 * dx, a.y + t1 * dy};
        if (!penDown || !(pen == ca))
            cairo_move_to(context, ca.x - mapRect.minX(), ca.y - mapRect.minY());
        cairo_line_to(context, cb.x - mapRect.minX(), cb.y - mapRect.minY());
        penDown = t1 >= 1;
        pen = cb;
    }
    cairo_set_line_width(context, width);
    cairo_set_line_cap(context, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(context, CAIRO_LINE_JOIN_ROUND);
    cairo_set_source_rgba(context, color.r, color.g, color.b, color.a * alpha());
    cairo_stroke(context);
    cairo_restore(context);
}

}  // namespace sorvan::map

#include "map/frame_compositor.hpp"

#include <cairo.h>

#include <cmath>
#include <numbers>

namespace sorvan::map::detail {

namespace {

double toRadians(double degrees) {
    return degrees * std::numbers::pi / 180.0;
}

// Paints a drawn tile whose top-left corner lies at (ox, oy) map points from the centre
// (unwrapped) and which spans tileWidth map points; clip, when given, is the part to show in
// the same frame.
void paintTile(cairo_t* cr, const Viewport& viewport, const DrawnTile& d, double ox, double oy,
               double tileWidth, const MapRect* clip) {
    cairo_surface_t* surface = d.drawn.surface.get();
    if (!surface || d.drawn.empty)
        return;
    const Camera& camera = viewport.camera();
    double width = viewport.width(), height = viewport.height();
    int pixels = cairo_image_surface_get_width(surface);
    double k = tileWidth / pixels;  // map points per tile pixel
    cairo_save(cr);
    cairo_matrix_t base;
    cairo_get_matrix(cr, &base);
    double devicePerPixel = base.xx * camera.zoom * k;
    bool straight = camera.heading == 0 && base.xy == 0 && base.yx == 0 && base.xx == base.yy &&
                    std::abs(devicePerPixel - 1) < 1e-9 && clip == nullptr;
    if (straight) {
        // One tile pixel per device pixel: place it on whole pixels so the copy is exact and
        // takes the fast path.
        double dx = width / 2 + ox * camera.zoom, dy = height / 2 + oy * camera.zoom;
        cairo_user_to_device(cr, &dx, &dy);
        cairo_identity_matrix(cr);
        cairo_translate(cr, std::round(dx), std::round(dy));
        cairo_set_source_surface(cr, surface, 0, 0);
        cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
    } else {
        cairo_translate(cr, width / 2, height / 2);
        cairo_rotate(cr, toRadians(-camera.heading));
        cairo_scale(cr, camera.zoom, camera.zoom);
        if (clip) {
            cairo_rectangle(cr, clip->minX(), clip->minY(), clip->size.width, clip->size.height);
            cairo_clip(cr);
        }
        cairo_translate(cr, ox, oy);
        cairo_scale(cr, k, k);
        cairo_set_source_surface(cr, surface, 0, 0);
        cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_BILINEAR);
        cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
    }
    if (d.drawn.opaque && !clip)
        cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
    if (!straight && d.drawn.opaque) {
        // Antialiased edges of neighbouring tiles would let the ground show through as a faint
        // seam; opaque tiles overlap by a pixel instead (translucent ones must not, or the
        // overlap would show darker).
        cairo_rectangle(cr, -0.5, -0.5, pixels + 1, pixels + 1);
    } else {
        cairo_rectangle(cr, 0, 0, pixels, pixels);
    }
    cairo_fill(cr);
    cairo_restore(cr);
}

}  // namespace

void composeTiles(cairo_t* cr, const Viewport& viewport, const FramePlan& plan,
                  const DrawnTileCache& drawn, gfx::Color ground) {
    cairo_set_source_rgb(cr, ground.r, ground.g, ground.b);
    cairo_rectangle(cr, 0, 0, viewport.width(), viewport.height());
    cairo_fill(cr);
    MapPoint center = viewport.camera().center;
    for (const LayerPlan& layer : plan.layers) {
        for (const TileRef& t : layer.tiles) {
            double ox = static_cast<double>(t.ux) * layer.tileWidth - center.x;
            double oy = static_cast<double>(t.y) * layer.tileWidth - center.y;
            DrawKey key{layer.renderer.get(), layer.z, t.x, t.y};
            if (const DrawnTile* d = drawn.find(key); d && d->valid) {
                paintTile(cr, viewport, *d, ox, oy, layer.tileWidth, nullptr);
                continue;
            }
            // Not drawn yet: show a coarser level's tile while this one comes.
            int up = 0;
            const DrawnTile* parent = drawn.standIn(key, kStandInLevels, up);
            if (!parent)
                continue;
            double pw = layer.tileWidth * std::exp2(up);
            double pox = ox - static_cast<double>(t.x - ((t.x >> up) << up)) * layer.tileWidth;
            double poy = oy - static_cast<double>(t.y - ((t.y >> up) << up)) * layer.tileWidth;
            MapRect clip{{ox, oy}, {layer.tileWidth, layer.tileWidth}};
            paintTile(cr, viewport, *parent, pox, poy, pw, &clip);
        }
    }
}

}  // namespace sorvan::map::detail

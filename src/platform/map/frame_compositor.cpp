#include "map/frame_compositor.hpp"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

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

// A tile slot of a frame: where it lies, in map points from the centre (unwrapped), and what
// shows in it: its own drawn tile, a coarser level's standing in (levelsUp > 0), or nothing.
struct Slot {
    double ox, oy, width;
    const DrawnTile* tile;
    int levelsUp;
    std::int64_t x, y;  // the tile's column (wrapped) and row
};

// Walks the plan's slots bottom layer first.
template <class Fn>
void forEachSlot(const Viewport& viewport, const FramePlan& plan, const DrawnTileCache& drawn,
                 Fn&& fn) {
    MapPoint center = viewport.camera().center;
    for (const LayerPlan& layer : plan.layers) {
        for (const TileRef& t : layer.tiles) {
            Slot slot{static_cast<double>(t.ux) * layer.tileWidth - center.x,
                      static_cast<double>(t.y) * layer.tileWidth - center.y,
                      layer.tileWidth,
                      nullptr,
                      0,
                      t.x,
                      t.y};
            DrawKey key{layer.renderer.get(), layer.z, t.x, t.y};
            if (const DrawnTile* d = drawn.find(key); d && d->valid) {
                slot.tile = d;
            } else {
                slot.tile = drawn.standIn(key, kStandInLevels, slot.levelsUp);
            }
            fn(slot);
        }
    }
}

}  // namespace

void composeTiles(cairo_t* cr, const Viewport& viewport, const FramePlan& plan,
                  const DrawnTileCache& drawn, gfx::Color ground) {
    cairo_set_source_rgb(cr, ground.r, ground.g, ground.b);
    cairo_rectangle(cr, 0, 0, viewport.width(), viewport.height());
    cairo_fill(cr);
    forEachSlot(viewport, plan, drawn, [&](const Slot& s) {
        if (!s.tile)
            return;
        if (s.levelsUp == 0) {
            paintTile(cr, viewport, *s.tile, s.ox, s.oy, s.width, nullptr);
            return;
        }
        // Not drawn yet: a coarser level's tile shows while this one comes.
        int up = s.levelsUp;
        double pw = s.width * std::exp2(up);
        double pox = s.ox - static_cast<double>(s.x - ((s.x >> up) << up)) * s.width;
        double poy = s.oy - static_cast<double>(s.y - ((s.y >> up) << up)) * s.width;
        MapRect clip{{s.ox, s.oy}, {s.width, s.width}};
        paintTile(cr, viewport, *s.tile, pox, poy, pw, &clip);
    });
}

void shownTiles(const Viewport& viewport, const FramePlan& plan, const DrawnTileCache& drawn,
                std::vector<ShownTile>& out) {
    out.clear();
    const Camera& camera = viewport.camera();
    const double turn = toRadians(-camera.heading);
    const double c = std::cos(turn) * camera.zoom, s = std::sin(turn) * camera.zoom;
    const double cx = viewport.width() / 2, cy = viewport.height() / 2;
    forEachSlot(viewport, plan, drawn, [&](const Slot& slot) {
        // The slot's box on the screen; a point more for the antialiased edges and the pixel
        // by which opaque tiles overlap.
        double x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;
        for (double u : {slot.ox, slot.ox + slot.width}) {
            for (double v : {slot.oy, slot.oy + slot.width}) {
                double x = cx + c * u - s * v, y = cy + s * u + c * v;
                x0 = std::min(x0, x);
                x1 = std::max(x1, x);
                y0 = std::min(y0, y);
                y1 = std::max(y1, y);
            }
        }
        ShownTile shown;
        if (slot.tile && slot.tile->drawn.surface && !slot.tile->drawn.empty)
            shown.surface = slot.tile->drawn.surface;
        shown.levelsUp = slot.levelsUp;
        shown.box = {x0 - 1, y0 - 1, x1 - x0 + 2, y1 - y0 + 2};
        out.push_back(std::move(shown));
    });
}

}  // namespace sorvan::map::detail

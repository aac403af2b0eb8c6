#include "map/tile_draw.hpp"

#include <cairo.h>

#include "sorvan/platform/map/overlay_renderer.hpp"

namespace sorvan::map::detail {

DrawResult drawTile(OverlayRenderer& renderer, const DrawKey&, const MapRect& rect,
                    double zoomScale, int pixels) {
    DrawResult out;
    if (!renderer.canDrawMapRect(rect, zoomScale))
        return out;
    SharedSurface surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixels, pixels),
                          cairo_surface_destroy);
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS)
        return out;
    cairo_t* cr = cairo_create(surface.get());
    double k = pixels / rect.size.width;
    cairo_scale(cr, k, k);
    cairo_translate(cr, -rect.origin.x, -rect.origin.y);
    renderer.drawMapRect(rect, zoomScale, cr);
    cairo_destroy(cr);
    cairo_surface_flush(surface.get());
    auto* data = cairo_image_surface_get_data(surface.get());
    int stride = cairo_image_surface_get_stride(surface.get());
    out.opaque = true;
    for (int y = 0; y < pixels; ++y) {
        auto* row = reinterpret_cast<const std::uint32_t*>(data + y * stride);
        for (int x = 0; x < pixels; ++x) {
            std::uint32_t a = row[x] >> 24;
            if (a != 255)
                out.opaque = false;
            if (a != 0)
                out.empty = false;
        }
    }
    out.surface = std::move(surface);
    return out;
}

}  // namespace sorvan::map::detail

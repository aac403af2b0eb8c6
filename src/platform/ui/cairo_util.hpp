// RAII for the cairo handles the view tree and the map engine use, and the bridge from
// gfx::Image to a cairo source. Internal to the platform layer.
#pragma once

#include <cairo.h>

#include <memory>

#include "graphics/cairo_handles.hpp"
#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::ui::detail {

using gfx::ContextPtr;
using gfx::SurfacePtr;

/// A surface that reads the image's pixels in place (no copy). The image must outlive it.
inline SurfacePtr surfaceFor(const gfx::Image& image) {
    // cairo only reads a source surface; the const_cast never leads to a write.
    auto* data =
        reinterpret_cast<unsigned char*>(const_cast<std::uint32_t*>(image.pixels().data()));
    SurfacePtr s(cairo_image_surface_create_for_data(data, CAIRO_FORMAT_ARGB32, image.pixelWidth(),
                                                     image.pixelHeight(), image.pixelWidth() * 4));
    if (cairo_surface_status(s.get()) != CAIRO_STATUS_SUCCESS)
        return nullptr;
    return s;
}

/// Paints an image scaled into rect (user space) with an opacity.
inline void paintImage(cairo_t* cr, const gfx::Image& image, double x, double y, double w, double h,
                       double alpha = 1.0) {
    if (w <= 0 || h <= 0 || image.pixelWidth() <= 0 || image.pixelHeight() <= 0)
        return;
    SurfacePtr s = surfaceFor(image);
    if (!s)
        return;
    cairo_save(cr);
    cairo_rectangle(cr, x, y, w, h);
    cairo_clip(cr);
    cairo_translate(cr, x, y);
    cairo_scale(cr, w / image.pixelWidth(), h / image.pixelHeight());
    cairo_set_source_surface(cr, s.get(), 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
    cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
    cairo_paint_with_alpha(cr, alpha);
    cairo_restore(cr);
}

}  // namespace sorvan::ui::detail

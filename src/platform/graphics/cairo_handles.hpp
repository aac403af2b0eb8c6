// Owning handles for cairo objects. Cairo hands back "nil" objects rather than null on
// failure: check the status after creation.
#pragma once

#include <cairo.h>

#include "foundation/c_handle.hpp"

namespace sorvan::gfx {

using SurfacePtr = CHandle<cairo_surface_t, cairo_surface_destroy>;
using ContextPtr = CHandle<cairo_t, cairo_destroy>;
using PatternPtr = CHandle<cairo_pattern_t, cairo_pattern_destroy>;
using FontOptionsPtr = CHandle<cairo_font_options_t, cairo_font_options_destroy>;
using RegionPtr = CHandle<cairo_region_t, cairo_region_destroy>;
/// For surfaces with several owners (drawn tiles kept by a cache and a frame at once).
using SharedSurface = std::shared_ptr<cairo_surface_t>;
inline SharedSurface shareSurface(cairo_surface_t* surface) {
    return SharedSurface(surface, CHandleDeleter<cairo_surface_destroy>{});
}

}  // namespace sorvan::gfx

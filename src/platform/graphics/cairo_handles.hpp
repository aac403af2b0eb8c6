// Owning handles for cairo and pango objects. Move-only; an empty handle owns nothing.
// Cairo hands back "nil" objects rather than null on failure: check the status after creation.
#pragma once

#include <cairo.h>

#include <memory>

namespace sorvan::gfx {

template <auto Release>
struct CHandleDeleter {
    template <typename T>
    void operator()(T* p) const noexcept {
        if (p != nullptr) {
            Release(p);
        }
    }
};

template <typename T, auto Release>
using CHandle = std::unique_ptr<T, CHandleDeleter<Release>>;

using SurfacePtr = CHandle<cairo_surface_t, cairo_surface_destroy>;
using ContextPtr = CHandle<cairo_t, cairo_destroy>;
using PatternPtr = CHandle<cairo_pattern_t, cairo_pattern_destroy>;

}  // namespace sorvan::gfx

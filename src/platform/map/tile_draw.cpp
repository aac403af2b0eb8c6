#include "map/tile_draw.hpp"

#include <cairo.h>
#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <string>
#include <typeinfo>

#include "graphics/cairo_handles.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/map/overlay_renderer.hpp"

namespace sorvan::map::detail {

namespace {

// The renderer's class as written in code, so that a log line names the host's own renderer.
std::string className(const OverlayRenderer& renderer) {
    const char* mangled = typeid(renderer).name();
    int status = 0;
    char* readable = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string name = status == 0 && readable ? readable : mangled;
    std::free(readable);
    return name;
}

void logFailure(const OverlayRenderer& renderer, const DrawKey& key, const char* what) {
    log::error("drawMapRect Error (%s %p, tile %lld/%lld/%lld): %s", className(renderer).c_str(),
               static_cast<const void*>(&renderer), static_cast<long long>(key.z),
               static_cast<long long>(key.x), static_cast<long long>(key.y), what);
}

}  // namespace

DrawResult drawTile(OverlayRenderer& renderer, const DrawKey& key, const MapRect& rect,
                    double zoomScale, int pixels) {
    DrawResult out;
    // A renderer is the host's code running on a draw thread: whatever it throws stops at the
    // tile, which stays blank until the renderer is asked to draw again.
    try {
        if (!renderer.canDrawMapRect(rect, zoomScale))
            return out;
        SharedSurface surface =
            gfx::shareSurface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixels, pixels));
        if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS)
            return out;
        gfx::ContextPtr cr(cairo_create(surface.get()));
        double k = pixels / rect.size.width;
        cairo_scale(cr.get(), k, k);
        cairo_translate(cr.get(), -rect.origin.x, -rect.origin.y);
        renderer.drawMapRect(rect, zoomScale, cr.get());
        cr.reset();
        out.surface = std::move(surface);
    } catch (const std::exception& e) {
        logFailure(renderer, key, e.what());
        return {};
    } catch (...) {
        logFailure(renderer, key, "unknown exception");
        return {};
    }
    cairo_surface_t* surface = out.surface.get();
    cairo_surface_flush(surface);
    auto* data = cairo_image_surface_get_data(surface);
    int stride = cairo_image_surface_get_stride(surface);
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
    return out;
}

}  // namespace sorvan::map::detail

#include "sorvan/platform/graphics/image_context.hpp"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "graphics/cairo_handles.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::gfx {

struct ImageContext::Impl {
    Size size;
    double scale = 1.0;
    SurfacePtr surface;
    ContextPtr cr;
};

namespace {

int pixelsFor(double points, double scale) {
    double px = std::ceil(points * scale - 1e-9);
    // Negative or absurd sizes give an empty surface rather than a failed one.
    return px > 0 && px < 65536 ? static_cast<int>(px) : 0;
}

}  // namespace

ImageContext::ImageContext(Size size, double scale) : impl_(std::make_unique<Impl>()) {
    if (!(scale > 0)) {
        scale = 1.0;
    }
    impl_->size = size;
    impl_->scale = scale;
    impl_->surface.reset(cairo_image_surface_create(
        CAIRO_FORMAT_ARGB32, pixelsFor(size.width, scale), pixelsFor(size.height, scale)));
    if (cairo_surface_status(impl_->surface.get()) != CAIRO_STATUS_SUCCESS) {
        log::writef("ImageContext: %s",
                    cairo_status_to_string(cairo_surface_status(impl_->surface.get())));
    }
    // On a failed surface cairo hands back a context in the error state: drawing on it is a
    // no-op, so callers need no checks of their own.
    impl_->cr.reset(cairo_create(impl_->surface.get()));
    cairo_scale(impl_->cr.get(), scale, scale);
}

ImageContext::~ImageContext() = default;

Size ImageContext::size() const {
    return impl_->size;
}

double ImageContext::scale() const {
    return impl_->scale;
}

void ImageContext::fill(const Rect& rect, const Color& color) {
    cairo_t* cr = impl_->cr.get();
    cairo_save(cr);
    cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
    cairo_set_source_rgba(cr, color.r, color.g, color.b, color.a);
    cairo_rectangle(cr, rect.minX(), rect.minY(), rect.size.width, rect.size.height);
    cairo_fill(cr);
    cairo_restore(cr);
}

void ImageContext::drawImage(const Image& image, const Rect& rect, double alpha) {
    if (image.pixelWidth() == 0 || image.pixelHeight() == 0 || rect.size.width <= 0 ||
        rect.size.height <= 0 || alpha <= 0) {
        return;
    }
    // Cairo only reads from a source surface, so the image's pixels are used in place.
    SurfacePtr source(cairo_image_surface_create_for_data(
        reinterpret_cast<unsigned char*>(const_cast<std::uint32_t*>(image.pixels().data())),
        CAIRO_FORMAT_ARGB32, image.pixelWidth(), image.pixelHeight(), image.pixelWidth() * 4));
    if (cairo_surface_status(source.get()) != CAIRO_STATUS_SUCCESS) {
        return;
    }
    cairo_t* cr = impl_->cr.get();
    cairo_save(cr);
    cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
    cairo_rectangle(cr, rect.minX(), rect.minY(), rect.size.width, rect.size.height);
    cairo_clip(cr);
    cairo_translate(cr, rect.minX(), rect.minY());
    double sx = rect.size.width / image.pixelWidth();
    double sy = rect.size.height / image.pixelHeight();
    cairo_scale(cr, sx, sy);
    cairo_set_source_surface(cr, source.get(), 0, 0);
    cairo_pattern_t* pattern = cairo_get_source(cr);
    // Pad keeps the edges of a scaled picture from fading into the transparent outside.
    cairo_pattern_set_extend(pattern, CAIRO_EXTEND_PAD);
    // One image pixel per device pixel at whole-pixel offsets: copy, do not resample.
    cairo_matrix_t m;
    cairo_get_matrix(cr, &m);
    bool oneToOne = std::abs(m.xx - 1) < 1e-9 && std::abs(m.yy - 1) < 1e-9 && m.xy == 0 &&
                    m.yx == 0 && m.x0 == std::round(m.x0) && m.y0 == std::round(m.y0);
    cairo_pattern_set_filter(pattern, oneToOne ? CAIRO_FILTER_NEAREST : CAIRO_FILTER_GOOD);
    if (alpha >= 1) {
        cairo_paint(cr);
    } else {
        cairo_paint_with_alpha(cr, alpha);
    }
    cairo_restore(cr);
    // Drop the borrowed pixels before returning: the surface must not outlive the image.
    cairo_surface_finish(source.get());
}

std::shared_ptr<Image> ImageContext::makeImage() const {
    cairo_surface_t* s = impl_->surface.get();
    if (cairo_surface_status(s) != CAIRO_STATUS_SUCCESS) {
        return nullptr;
    }
    cairo_surface_flush(s);
    int w = cairo_image_surface_get_width(s);
    int h = cairo_image_surface_get_height(s);
    int stride = cairo_image_surface_get_stride(s);
    const unsigned char* data = cairo_image_surface_get_data(s);
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(w) * h);
    if (pixels.empty()) {
        return Image::fromPixels(w, h, {}, impl_->scale);  // a zero-size surface has no data
    }
    for (int y = 0; y < h; ++y) {
        std::memcpy(pixels.data() + static_cast<std::size_t>(y) * w,
                    data + static_cast<std::size_t>(y) * stride, static_cast<std::size_t>(w) * 4);
    }
    return Image::fromPixels(w, h, std::move(pixels), impl_->scale);
}

cairo_t* ImageContext::cairo() {
    return impl_->cr.get();
}

}  // namespace sorvan::gfx

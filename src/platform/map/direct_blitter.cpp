#include "map/direct_blitter.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace sorvan::map::detail {

namespace {

bool whole(double v, int& out) {
    double r = std::round(v);
    if (std::abs(v - r) > 1e-6 || std::abs(r) > 1e8)
        return false;
    out = static_cast<int>(r);
    return true;
}

}  // namespace

PixmanImage pixmanImageOver(const std::uint32_t* pixels, int width, int height) {
    // pixman only reads a source image; the const_cast never leads to a write.
    return PixmanImage(pixman_image_create_bits(PIXMAN_a8r8g8b8, width, height,
                                                const_cast<std::uint32_t*>(pixels), width * 4));
}

DirectBlitter::DirectBlitter(cairo_t* cr) {
    cairo_surface_t* surface = cairo_get_group_target(cr);
    if (cairo_surface_get_type(surface) != CAIRO_SURFACE_TYPE_IMAGE)
        return;
    cairo_format_t format = cairo_image_surface_get_format(surface);
    if (format != CAIRO_FORMAT_ARGB32 && format != CAIRO_FORMAT_RGB24)
        return;
    double scaleX = 0, scaleY = 0, offX = 0, offY = 0;
    cairo_surface_get_device_scale(surface, &scaleX, &scaleY);
    cairo_surface_get_device_offset(surface, &offX, &offY);
    if (scaleX != 1 || scaleY != 1 || !whole(offX, offsetX_) || !whole(offY, offsetY_))
        return;
    cairo_matrix_t m;
    cairo_get_matrix(cr, &m);
    if (m.xy != 0 || m.yx != 0 || m.xx <= 0 || m.yy <= 0)
        return;
    // The clip must be one rectangle on whole device pixels: cairo would soften any other
    // edge, and a direct paint cannot.
    cairo_rectangle_list_t* clip = cairo_copy_clip_rectangle_list(cr);
    bool one = clip->status == CAIRO_STATUS_SUCCESS && clip->num_rectangles == 1;
    double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    if (one) {
        const cairo_rectangle_t& r = clip->rectangles[0];
        x0 = r.x, y0 = r.y, x1 = r.x + r.width, y1 = r.y + r.height;
        cairo_user_to_device(cr, &x0, &y0);
        cairo_user_to_device(cr, &x1, &y1);
    }
    cairo_rectangle_list_destroy(clip);
    if (!one || !whole(x0, clipX0_) || !whole(y0, clipY0_) || !whole(x1, clipX1_) ||
        !whole(y1, clipY1_))
        return;
    int width = cairo_image_surface_get_width(surface);
    int height = cairo_image_surface_get_height(surface);
    clipX0_ = std::max(clipX0_ + offsetX_, 0);
    clipY0_ = std::max(clipY0_ + offsetY_, 0);
    clipX1_ = std::min(clipX1_ + offsetX_, width);
    clipY1_ = std::min(clipY1_ + offsetY_, height);
    cairo_surface_flush(surface);
    unsigned char* data = cairo_image_surface_get_data(surface);
    if (!data)
        return;
    target_.reset(pixman_image_create_bits(
        format == CAIRO_FORMAT_ARGB32 ? PIXMAN_a8r8g8b8 : PIXMAN_x8r8g8b8, width, height,
        reinterpret_cast<std::uint32_t*>(data), cairo_image_surface_get_stride(surface)));
    if (target_)
        surface_ = surface;
}

DirectBlitter::~DirectBlitter() {
    yield();
}

void DirectBlitter::yield() {
    if (!painting_)
        return;
    cairo_surface_mark_dirty(surface_);
    painting_ = false;
}

void DirectBlitter::over(pixman_image_t* src, int sx, int sy, int dx, int dy, int width, int height,
                         double alpha) {
    int x0 = dx + offsetX_, y0 = dy + offsetY_;
    int x1 = std::min(x0 + width, clipX1_), y1 = std::min(y0 + height, clipY1_);
    int cx = std::max(x0, clipX0_), cy = std::max(y0, clipY0_);
    if (cx >= x1 || cy >= y1)
        return;
    if (!painting_) {
        cairo_surface_flush(surface_);  // what cairo drew since is in the pixels
        painting_ = true;
    }
    // A faded view blends through a solid mask, as cairo's paint with an opacity does; views
    // mostly share one opacity (tags), so the mask is kept.
    pixman_image_t* mask = nullptr;
    if (alpha < 1) {
        auto a16 = static_cast<std::uint16_t>(std::lround(std::clamp(alpha, 0.0, 1.0) * 0xffff));
        if (!fade_ || fadeAlpha_ != a16) {
            pixman_color_t color{0, 0, 0, a16};
            fade_.reset(pixman_image_create_solid_fill(&color));
            fadeAlpha_ = a16;
        }
        mask = fade_.get();
    }
    pixman_image_composite32(PIXMAN_OP_OVER, src, mask, target_.get(), sx + cx - x0, sy + cy - y0,
                             0, 0, cx, cy, x1 - cx, y1 - cy);
}

}  // namespace sorvan::map::detail

// Direct painting must give exactly what cairo gives, and step aside where it cannot.
#include "map/direct_blitter.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "graphics/cairo_handles.hpp"

namespace sorvan::map::detail {
namespace {

constexpr int kW = 64, kH = 48, kIconW = 10, kIconH = 8;

// Premultiplied pixels with a transparent margin, translucent and opaque parts.
std::vector<std::uint32_t> iconPixels() {
    std::vector<std::uint32_t> px(kIconW * kIconH, 0);
    for (int y = 1; y < kIconH - 1; ++y)
        for (int x = 2; x < kIconW - 1; ++x) {
            std::uint32_t a = x < 5 ? 0xff : 0x80 + y * 8;
            std::uint32_t r = a * x / kIconW, g = a * y / kIconH, b = a / 2;
            px[y * kIconW + x] = a << 24 | r << 16 | g << 8 | b;
        }
    return px;
}

gfx::SurfacePtr ground(cairo_format_t format) {
    gfx::SurfacePtr s(cairo_image_surface_create(format, kW, kH));
    gfx::ContextPtr cr(cairo_create(s.get()));
    gfx::PatternPtr ramp(cairo_pattern_create_linear(0, 0, kW, kH));
    cairo_pattern_add_color_stop_rgba(ramp.get(), 0, 0.2, 0.5, 0.9, 0.6);
    cairo_pattern_add_color_stop_rgba(ramp.get(), 1, 0.9, 0.8, 0.1, 1);
    cairo_set_source(cr.get(), ramp.get());
    cairo_paint(cr.get());
    return s;
}

bool samePixels(cairo_surface_t* a, cairo_surface_t* b) {
    cairo_surface_flush(a);
    cairo_surface_flush(b);
    int stride = cairo_image_surface_get_stride(a);
    return std::memcmp(cairo_image_surface_get_data(a), cairo_image_surface_get_data(b),
                       static_cast<std::size_t>(stride) * kH) == 0;
}

struct Spot {
    int x, y;
};
// Inside, across each clip edge, beyond the surface, and wholly outside the clip.
const Spot kSpots[] = {{20, 20}, {3, 5}, {54, 40}, {-4, -3}, {60, 45}, {-20, 0}, {30, 43}};

// Sets the clip (device pixels 6..58 x 4..42 at scale 2) on a context scaled by 2.
void prepare(cairo_t* cr) {
    cairo_scale(cr, 2, 2);
    cairo_rectangle(cr, 3, 2, 26, 19);
    cairo_clip(cr);
}

TEST(DirectBlitter, PaintsExactlyWhatCairoPaints) {
    auto pixels = iconPixels();
    gfx::SurfacePtr icon(
        cairo_image_surface_create_for_data(reinterpret_cast<unsigned char*>(pixels.data()),
                                            CAIRO_FORMAT_ARGB32, kIconW, kIconH, kIconW * 4));
    PixmanImage source = pixmanImageOver(pixels.data(), kIconW, kIconH);
    for (cairo_format_t format : {CAIRO_FORMAT_ARGB32, CAIRO_FORMAT_RGB24}) {
        for (auto [group, alpha] :
             {std::pair{false, 1.0}, {true, 1.0}, {false, 0.4}, {true, 0.7}}) {
            SCOPED_TRACE(testing::Message()
                         << "format " << format << " group " << group << " alpha " << alpha);
            gfx::SurfacePtr expected = ground(format), actual = ground(format);
            {
                gfx::ContextPtr cr(cairo_create(expected.get()));
                prepare(cr.get());
                if (group)
                    cairo_push_group(cr.get());
                cairo_identity_matrix(cr.get());
                for (Spot s : kSpots) {
                    cairo_set_source_surface(cr.get(), icon.get(), s.x, s.y);
                    cairo_rectangle(cr.get(), s.x + 1, s.y, kIconW - 2, kIconH - 1);
                    if (alpha < 1) {
                        // A faded picture is painted through its clip with an opacity.
                        cairo_save(cr.get());
                        cairo_clip(cr.get());
                        cairo_paint_with_alpha(cr.get(), alpha);
                        cairo_restore(cr.get());
                    } else {
                        cairo_fill(cr.get());
                    }
                }
                if (group) {
                    cairo_pop_group_to_source(cr.get());
                    cairo_paint(cr.get());
                }
            }
            {
                gfx::ContextPtr cr(cairo_create(actual.get()));
                prepare(cr.get());
                if (group)
                    cairo_push_group(cr.get());
                {
                    DirectBlitter blitter(cr.get());
                    ASSERT_TRUE(blitter.usable());
                    for (Spot s : kSpots)
                        blitter.over(source.get(), 1, 0, s.x + 1, s.y, kIconW - 2, kIconH - 1,
                                     alpha);
                }
                if (group) {
                    cairo_pop_group_to_source(cr.get());
                    cairo_paint(cr.get());
                }
            }
            EXPECT_TRUE(samePixels(expected.get(), actual.get()));
        }
    }
}

TEST(DirectBlitter, StepsAsideWhereCairoWouldPaintOtherwise) {
    gfx::SurfacePtr image(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kW, kH));
    auto usable = [&](cairo_surface_t* target, auto&& setUp) {
        gfx::ContextPtr cr(cairo_create(target));
        setUp(cr.get());
        return DirectBlitter(cr.get()).usable();
    };
    EXPECT_TRUE(usable(image.get(), prepare));
    EXPECT_TRUE(usable(image.get(), [](cairo_t*) {})) << "no clip: the whole surface";
    EXPECT_FALSE(usable(image.get(), [](cairo_t* cr) {
        prepare(cr);
        cairo_rotate(cr, 0.1);
    })) << "rotated";
    EXPECT_FALSE(usable(image.get(), [](cairo_t* cr) {
        cairo_rectangle(cr, 0.25, 0, 10, 10);
        cairo_clip(cr);
    })) << "a clip edge between pixels";
    EXPECT_FALSE(usable(image.get(), [](cairo_t* cr) {
        cairo_rectangle(cr, 0, 0, 10, 10);
        cairo_rectangle(cr, 20, 20, 10, 10);
        cairo_clip(cr);
    })) << "two rectangles";
    gfx::SurfacePtr a8(cairo_image_surface_create(CAIRO_FORMAT_A8, kW, kH));
    EXPECT_FALSE(usable(a8.get(), prepare));
    gfx::SurfacePtr recording(cairo_recording_surface_create(CAIRO_CONTENT_COLOR_ALPHA, nullptr));
    EXPECT_FALSE(usable(recording.get(), prepare));
}

}  // namespace
}  // namespace sorvan::map::detail

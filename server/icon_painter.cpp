#include "icon_painter.hpp"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "event_feed.hpp"
#include "graphics/cairo_handles.hpp"
#include "place_clusters.hpp"

namespace sorvan::server {
namespace {

using gfx::ContextPtr;
using gfx::SurfacePtr;

constexpr double kPi = 3.14159265358979323846;
constexpr double kIconPoints = 26;
constexpr double kClusterPoints = 38;
constexpr double kSignPoints = 32;
constexpr double kSignScale = 2;

struct RGB {
    double r = 0, g = 0, b = 0;
};

constexpr RGB rgb8(int r, int g, int b) {
    return {r / 255.0, g / 255.0, b / 255.0};
}

void setColor(cairo_t* cr, RGB c, double a = 1) {
    cairo_set_source_rgba(cr, c.r, c.g, c.b, a);
}

// Saturated colours, dark enough for a white glyph and for the map under a half-transparent
// tag to show them clearly.
const std::map<std::string_view, RGB>& palette() {
    static const std::map<std::string_view, RGB> colours = {
        {"airport", rgb8(52, 96, 196)},    {"bank", rgb8(30, 130, 80)},
        {"beach", rgb8(0, 150, 180)},      {"bus", rgb8(24, 112, 190)},
        {"coffee", rgb8(120, 78, 46)},     {"gas", rgb8(226, 108, 20)},
        {"government", rgb8(84, 88, 140)}, {"hospital", rgb8(212, 44, 44)},
        {"hotel", rgb8(40, 92, 180)},      {"landmark", rgb8(196, 52, 116)},
        {"mall", rgb8(146, 62, 168)},      {"market", rgb8(214, 132, 24)},
        {"museum", rgb8(128, 92, 60)},     {"park", rgb8(52, 140, 52)},
        {"pier", rgb8(16, 110, 140)},      {"police", rgb8(28, 46, 116)},
        {"post", rgb8(216, 60, 36)},       {"restaurant", rgb8(222, 100, 30)},
        {"school", rgb8(150, 104, 20)},    {"stadium", rgb8(70, 124, 52)},
        {"temple", rgb8(190, 140, 16)},    {"train", rgb8(56, 84, 156)},
        {"poi", rgb8(64, 74, 88)},
    };
    return colours;
}

void circle(cairo_t* cr, double x, double y, double r) {
    cairo_new_sub_path(cr);
    cairo_arc(cr, x, y, r, 0, 2 * kPi);
}

void roundedRect(cairo_t* cr, double x, double y, double w, double h, double r) {
    cairo_new_sub_path(cr);
    cairo_arc(cr, x + w - r, y + r, r, -kPi / 2, 0);
    cairo_arc(cr, x + w - r, y + h - r, r, 0, kPi / 2);
    cairo_arc(cr, x + r, y + h - r, r, kPi / 2, kPi);
    cairo_arc(cr, x + r, y + r, r, kPi, 3 * kPi / 2);
    cairo_close_path(cr);
}

void star(cairo_t* cr, double x, double y, double outer, double inner) {
    for (int i = 0; i < 10; ++i) {
        double a = -kPi / 2 + i * kPi / 5;
        double r = i % 2 == 0 ? outer : inner;
        if (i == 0) {
            cairo_move_to(cr, x + r * std::cos(a), y + r * std::sin(a));
        } else {
            cairo_line_to(cr, x + r * std::cos(a), y + r * std::sin(a));
        }
    }
    cairo_close_path(cr);
}

void text(cairo_t* cr, const char* utf8, const char* font, double size, double x, double y) {
    PangoLayout* layout = pango_cairo_create_layout(cr);
    PangoFontDescription* desc = pango_font_description_from_string(font);
    pango_font_description_set_absolute_size(desc, size * PANGO_SCALE);
    pango_layout_set_font_description(layout, desc);
    pango_font_description_free(desc);
    pango_layout_set_text(layout, utf8, -1);
    PangoRectangle ink, logical;
    pango_layout_get_extents(layout, &ink, &logical);
    // Centred on the ink, so digits sit in the middle whatever the font's line spacing.
    double w = ink.width / static_cast<double>(PANGO_SCALE);
    double h = ink.height / static_cast<double>(PANGO_SCALE);
    double ix = ink.x / static_cast<double>(PANGO_SCALE);
    double iy = ink.y / static_cast<double>(PANGO_SCALE);
    cairo_move_to(cr, x - ix - w / 2, y - iy - h / 2);
    pango_cairo_show_layout(cr, layout);
    g_object_unref(layout);
}

// A white glyph for a category, centred on (0, 0), about 10u across.
void glyph(cairo_t* cr, std::string_view c, double u) {
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_set_line_width(cr, 1.2 * u);
    if (c == "hospital") {
        cairo_rectangle(cr, -1.3 * u, -4.2 * u, 2.6 * u, 8.4 * u);
        cairo_rectangle(cr, -4.2 * u, -1.3 * u, 8.4 * u, 2.6 * u);
        cairo_fill(cr);
    } else if (c == "gas") {
        roundedRect(cr, -3.6 * u, -4 * u, 4.6 * u, 8 * u, 0.6 * u);
        cairo_fill(cr);
        cairo_move_to(cr, 1 * u, -2.4 * u);
        cairo_line_to(cr, 3.2 * u, -0.6 * u);
        cairo_line_to(cr, 3.2 * u, 2.6 * u);
        cairo_stroke(cr);
    } else if (c == "restaurant") {
        cairo_move_to(cr, -2.2 * u, -4 * u);
        cairo_line_to(cr, -2.2 * u, 4 * u);
        cairo_move_to(cr, -3.6 * u, -4 * u);
        cairo_line_to(cr, -3.6 * u, -1 * u);
        cairo_line_to(cr, -0.8 * u, -1 * u);
        cairo_line_to(cr, -0.8 * u, -4 * u);
        cairo_move_to(cr, 2.4 * u, -4 * u);
        cairo_line_to(cr, 2.4 * u, 4 * u);
        cairo_stroke(cr);
        cairo_move_to(cr, 2.4 * u, -4 * u);
        cairo_curve_to(cr, 4.2 * u, -3 * u, 4.2 * u, 0, 2.4 * u, 0.4 * u);
        cairo_fill(cr);
    } else if (c == "temple") {
        // A spire over two tiers of roof.
        cairo_move_to(cr, 0, -5.4 * u);
        cairo_line_to(cr, 1 * u, -2.6 * u);
        cairo_line_to(cr, -1 * u, -2.6 * u);
        cairo_close_path(cr);
        cairo_move_to(cr, -2.6 * u, -0.6 * u);
        cairo_line_to(cr, 0, -2.8 * u);
        cairo_line_to(cr, 2.6 * u, -0.6 * u);
        cairo_close_path(cr);
        cairo_move_to(cr, -4.4 * u, 1.6 * u);
        cairo_line_to(cr, -2 * u, -0.2 * u);
        cairo_line_to(cr, 2 * u, -0.2 * u);
        cairo_line_to(cr, 4.4 * u, 1.6 * u);
        cairo_close_path(cr);
        cairo_fill(cr);
        cairo_rectangle(cr, -3 * u, 2.2 * u, 6 * u, 2.4 * u);
        cairo_fill(cr);
    } else if (c == "bank") {
        text(cr, "฿", "Loma Bold", 10 * u, 0, 0);
    } else if (c == "hotel") {
        cairo_rectangle(cr, -4.2 * u, -0.4 * u, 8.4 * u, 2.4 * u);
        cairo_rectangle(cr, -4.2 * u, -3.6 * u, 1.4 * u, 7.2 * u);
        cairo_rectangle(cr, 3 * u, 2 * u, 1.2 * u, 1.6 * u);
        cairo_fill(cr);
        circle(cr, -1.2 * u, -1.9 * u, 1.2 * u);
        cairo_fill(cr);
    } else if (c == "school") {
        cairo_move_to(cr, -4.6 * u, -1.2 * u);
        cairo_line_to(cr, 0, -3.8 * u);
        cairo_line_to(cr, 4.6 * u, -1.2 * u);
        cairo_line_to(cr, 0, 1.4 * u);
        cairo_close_path(cr);
        cairo_fill(cr);
        cairo_rectangle(cr, -2.6 * u, 0.2 * u, 5.2 * u, 2.8 * u);
        cairo_fill(cr);
    } else if (c == "mall") {
        cairo_rectangle(cr, -3.4 * u, -1.6 * u, 6.8 * u, 5.6 * u);
        cairo_fill(cr);
        cairo_arc(cr, 0, -1.6 * u, 2 * u, kPi, 2 * kPi);
        cairo_stroke(cr);
    } else if (c == "market") {
        cairo_move_to(cr, -4.6 * u, -3.4 * u);
        cairo_line_to(cr, 4.6 * u, -3.4 * u);
        cairo_line_to(cr, 4.6 * u, -1.4 * u);
        for (int i = 3; i >= 0; --i) {
            double x = -4.6 * u + (i + 0.5) * 2.3 * u;
            cairo_arc(cr, x, -1.4 * u, 1.15 * u, 0, kPi);
        }
        cairo_close_path(cr);
        cairo_fill(cr);
        cairo_rectangle(cr, -3.8 * u, 0.6 * u, 7.6 * u, 3.6 * u);
        cairo_fill(cr);
    } else if (c == "airport") {
        cairo_move_to(cr, 0, -4.8 * u);
        cairo_line_to(cr, 0, 4 * u);
        cairo_set_line_width(cr, 1.6 * u);
        cairo_stroke(cr);
        cairo_move_to(cr, 0, -1.6 * u);
        cairo_line_to(cr, 4.8 * u, 1.2 * u);
        cairo_line_to(cr, 0, 0.4 * u);
        cairo_line_to(cr, -4.8 * u, 1.2 * u);
        cairo_close_path(cr);
        cairo_move_to(cr, 0, 2.6 * u);
        cairo_line_to(cr, 2 * u, 4.2 * u);
        cairo_line_to(cr, -2 * u, 4.2 * u);
        cairo_close_path(cr);
        cairo_fill(cr);
    } else if (c == "beach") {
        cairo_arc(cr, 0, -0.6 * u, 4.4 * u, kPi, 2 * kPi);
        cairo_close_path(cr);
        cairo_fill(cr);
        cairo_move_to(cr, 0, -0.6 * u);
        cairo_line_to(cr, 0, 4.2 * u);
        cairo_move_to(cr, -3.6 * u, 4.2 * u);
        cairo_line_to(cr, 3.6 * u, 4.2 * u);
        cairo_stroke(cr);
    } else if (c == "bus" || c == "train") {
        bool train = c == "train";
        roundedRect(cr, -3.6 * u, -4.4 * u, 7.2 * u, 7.6 * u, (train ? 2.4 : 1) * u);
        cairo_fill(cr);
        setColor(cr, palette().at(c));
        cairo_rectangle(cr, -2.6 * u, -3 * u, 5.2 * u, 2.8 * u);
        cairo_fill(cr);
        circle(cr, -1.9 * u, 1.6 * u, 0.7 * u);
        circle(cr, 1.9 * u, 1.6 * u, 0.7 * u);
        cairo_fill(cr);
        cairo_set_source_rgb(cr, 1, 1, 1);
        if (train) {
            cairo_move_to(cr, -2.2 * u, 3.4 * u);
            cairo_line_to(cr, -3.6 * u, 5 * u);
            cairo_move_to(cr, 2.2 * u, 3.4 * u);
            cairo_line_to(cr, 3.6 * u, 5 * u);
            cairo_stroke(cr);
        } else {
            cairo_rectangle(cr, -3.2 * u, 3.2 * u, 1.6 * u, 1.6 * u);
            cairo_rectangle(cr, 1.6 * u, 3.2 * u, 1.6 * u, 1.6 * u);
            cairo_fill(cr);
        }
    } else if (c == "coffee") {
        cairo_move_to(cr, -4 * u, -1.6 * u);
        cairo_line_to(cr, 2.4 * u, -1.6 * u);
        cairo_line_to(cr, 1.8 * u, 3.6 * u);
        cairo_line_to(cr, -3.4 * u, 3.6 * u);
        cairo_close_path(cr);
        cairo_fill(cr);
        cairo_arc(cr, 2.4 * u, 0.4 * u, 1.6 * u, -kPi / 2, kPi / 2);
        cairo_stroke(cr);
        cairo_set_line_width(cr, 0.9 * u);
        for (double x : {-2.4, -0.4}) {
            cairo_move_to(cr, x * u, -4.6 * u);
            cairo_curve_to(cr, (x + 1) * u, -3.8 * u, (x - 1) * u, -3.2 * u, x * u, -2.6 * u);
        }
        cairo_stroke(cr);
    } else if (c == "government" || c == "museum") {
        cairo_move_to(cr, 0, -4.8 * u);
        cairo_line_to(cr, 4.8 * u, -2 * u);
        cairo_line_to(cr, -4.8 * u, -2 * u);
        cairo_close_path(cr);
        cairo_fill(cr);
        int columns = c == "museum" ? 4 : 3;
        double step = 8.0 / columns;
        for (int i = 0; i < columns; ++i) {
            double x = -4 * u + (i + 0.5) * step * u;
            cairo_rectangle(cr, x - 0.6 * u, -1.2 * u, 1.2 * u, 4 * u);
        }
        cairo_rectangle(cr, -4.8 * u, 3.2 * u, 9.6 * u, 1.4 * u);
        cairo_fill(cr);
    } else if (c == "landmark") {
        star(cr, 0, 0.3 * u, 5 * u, 2.1 * u);
        cairo_fill(cr);
    } else if (c == "park") {
        circle(cr, 0, -1.4 * u, 3.4 * u);
        cairo_fill(cr);
        cairo_rectangle(cr, -0.7 * u, 1 * u, 1.4 * u, 3.8 * u);
        cairo_fill(cr);
    } else if (c == "pier") {
        circle(cr, 0, -3.6 * u, 1.1 * u);
        cairo_stroke(cr);
        cairo_move_to(cr, 0, -2.4 * u);
        cairo_line_to(cr, 0, 4 * u);
        cairo_move_to(cr, -2.2 * u, -1.2 * u);
        cairo_line_to(cr, 2.2 * u, -1.2 * u);
        cairo_stroke(cr);
        cairo_arc(cr, 0, 0.4 * u, 3.8 * u, kPi * 0.15, kPi * 0.85);
        cairo_stroke(cr);
    } else if (c == "police") {
        cairo_move_to(cr, 0, -4.8 * u);
        cairo_line_to(cr, 4 * u, -3.2 * u);
        cairo_curve_to(cr, 4 * u, 1 * u, 2.4 * u, 3.4 * u, 0, 4.8 * u);
        cairo_curve_to(cr, -2.4 * u, 3.4 * u, -4 * u, 1 * u, -4 * u, -3.2 * u);
        cairo_close_path(cr);
        cairo_fill(cr);
        setColor(cr, palette().at(c));
        star(cr, 0, -0.2 * u, 2.2 * u, 0.9 * u);
        cairo_fill(cr);
    } else if (c == "post") {
        cairo_rectangle(cr, -4.4 * u, -3 * u, 8.8 * u, 6 * u);
        cairo_fill(cr);
        setColor(cr, palette().at(c));
        cairo_set_line_width(cr, 0.9 * u);
        cairo_move_to(cr, -4.4 * u, -3 * u);
        cairo_line_to(cr, 0, 0.6 * u);
        cairo_line_to(cr, 4.4 * u, -3 * u);
        cairo_stroke(cr);
    } else if (c == "stadium") {
        cairo_save(cr);
        cairo_scale(cr, 1, 0.62);
        circle(cr, 0, 0, 4.6 * u);
        cairo_restore(cr);
        cairo_set_line_width(cr, 1.6 * u);
        cairo_stroke(cr);
        cairo_save(cr);
        cairo_scale(cr, 1, 0.62);
        circle(cr, 0, 0, 1.8 * u);
        cairo_restore(cr);
        cairo_fill(cr);
    } else {
        circle(cr, 0, 0, 2.2 * u);
        cairo_fill(cr);
    }
}

std::shared_ptr<gfx::Image> draw(double widthPoints, double heightPoints, double scale,
                                 const std::function<void(cairo_t*)>& paint) {
    int w = static_cast<int>(std::lround(widthPoints * scale));
    int h = static_cast<int>(std::lround(heightPoints * scale));
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h), 0);
    {
        SurfacePtr surface(cairo_image_surface_create_for_data(
            reinterpret_cast<unsigned char*>(pixels.data()), CAIRO_FORMAT_ARGB32, w, h, w * 4));
        ContextPtr cr(cairo_create(surface.get()));
        if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS) {
            return nullptr;
        }
        cairo_scale(cr.get(), scale, scale);
        paint(cr.get());
        cairo_surface_flush(surface.get());
    }
    return gfx::Image::fromPixels(w, h, std::move(pixels), scale);
}

// A disc in the category's colour on a white rim, with a soft shadow below.
void badge(cairo_t* cr, double cx, double cy, double r, RGB colour) {
    circle(cr, cx + 0.4, cy + 1.0, r + 2.0);
    cairo_set_source_rgba(cr, 0, 0, 0, 0.28);
    cairo_fill(cr);
    circle(cr, cx, cy, r + 1.8);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_fill(cr);
    circle(cr, cx, cy, r);
    setColor(cr, colour);
    cairo_fill(cr);
}

std::shared_ptr<gfx::Image> categoryIcon(std::string_view category, double scale) {
    return draw(kIconPoints, kIconPoints, scale, [&](cairo_t* cr) {
        double c = kIconPoints / 2, r = 9.6;
        badge(cr, c, c - 0.4, r, palette().at(category));
        cairo_translate(cr, c, c - 0.4);
        glyph(cr, category, r / 7);
    });
}

std::shared_ptr<gfx::Image> clusterIcon(std::string_view category, std::string_view count,
                                        double scale) {
    return draw(kClusterPoints, kClusterPoints, scale, [&](cairo_t* cr) {
        double c = kClusterPoints / 2;
        RGB colour = palette().at(category);
        // A halo that says "many" before the number is read.
        circle(cr, c, c, c - 0.5);
        setColor(cr, colour, 0.30);
        cairo_fill(cr);
        badge(cr, c, c - 0.3, 12.4, colour);
        std::string label(count);
        if (label.size() >= 2) {
            label += "+";
        }
        cairo_set_source_rgb(cr, 1, 1, 1);
        double size = label.size() >= 4 ? 8.6 : label.size() == 3 ? 10.8 : 13;
        text(cr, label.c_str(), "DejaVu Sans Bold", size, c, c - 0.3);
    });
}

// The red pin of a place without an icon of its own: head 18 points, needle to the ground.
std::shared_ptr<gfx::Image> redDot(double scale) {
    return draw(24, 34, scale, [](cairo_t* cr) {
        cairo_save(cr);
        cairo_scale(cr, 1, 0.35);
        circle(cr, 12, 31.5 / 0.35, 4);
        cairo_restore(cr);
        cairo_set_source_rgba(cr, 0, 0, 0, 0.25);
        cairo_fill(cr);
        cairo_set_line_width(cr, 2);
        cairo_set_source_rgb(cr, 0.45, 0.45, 0.47);
        cairo_move_to(cr, 12, 18);
        cairo_line_to(cr, 12, 31.5);
        cairo_stroke(cr);
        circle(cr, 12, 11, 9);
        cairo_set_source_rgb(cr, 0.86, 0.12, 0.12);
        cairo_fill_preserve(cr);
        cairo_set_line_width(cr, 1);
        cairo_set_source_rgb(cr, 0.5, 0.05, 0.05);
        cairo_stroke(cr);
        circle(cr, 9, 8, 2.6);
        cairo_set_source_rgba(cr, 1, 1, 1, 0.6);
        cairo_fill(cr);
    });
}

// Traffic signs --------------------------------------------------------------------------------

void exclamation(cairo_t* cr, double x, double top, double bottom) {
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_width(cr, 3.2);
    cairo_move_to(cr, x, top);
    cairo_line_to(cr, x, bottom - 5);
    cairo_stroke(cr);
    circle(cr, x, bottom - 0.6, 1.8);
    cairo_fill(cr);
}

void signShadow(cairo_t* cr, const std::function<void()>& outline) {
    cairo_save(cr);
    cairo_translate(cr, 0.5, 1.0);
    outline();
    cairo_set_source_rgba(cr, 0, 0, 0, 0.3);
    cairo_fill(cr);
    cairo_restore(cr);
}

void paintSign(cairo_t* cr, std::string_view name) {
    const double c = kSignPoints / 2;
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    if (name == "accident") {
        auto outline = [&] {
            cairo_move_to(cr, c, 2.5);
            cairo_line_to(cr, 30, 28.5);
            cairo_line_to(cr, 2, 28.5);
            cairo_close_path(cr);
        };
        signShadow(cr, outline);
        outline();
        cairo_set_source_rgb(cr, 0.86, 0.1, 0.1);
        cairo_fill(cr);
        cairo_move_to(cr, c, 9);
        cairo_line_to(cr, 24.4, 25.3);
        cairo_line_to(cr, 7.6, 25.3);
        cairo_close_path(cr);
        cairo_set_source_rgb(cr, 1, 1, 1);
        cairo_fill(cr);
        cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
        exclamation(cr, c, 13.5, 23.6);
    } else if (name == "construction") {
        auto outline = [&] {
            cairo_move_to(cr, c, 1.5);
            cairo_line_to(cr, 30.5, c);
            cairo_line_to(cr, c, 30.5);
            cairo_line_to(cr, 1.5, c);
            cairo_close_path(cr);
        };
        signShadow(cr, outline);
        outline();
        cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
        cairo_fill(cr);
        cairo_move_to(cr, c, 3.8);
        cairo_line_to(cr, 28.2, c);
        cairo_line_to(cr, c, 28.2);
        cairo_line_to(cr, 3.8, c);
        cairo_close_path(cr);
        cairo_set_source_rgb(cr, 0.98, 0.6, 0.05);
        cairo_fill(cr);
        // A striped barrier on two legs.
        cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
        cairo_rectangle(cr, 9, 12.5, 14, 4.5);
        cairo_fill(cr);
        cairo_set_source_rgb(cr, 1, 1, 1);
        for (double x : {10.5, 15.0, 19.5}) {
            cairo_move_to(cr, x, 17);
            cairo_line_to(cr, x + 2.5, 12.5);
            cairo_line_to(cr, x + 4, 12.5);
            cairo_line_to(cr, x + 1.5, 17);
            cairo_close_path(cr);
        }
        cairo_fill(cr);
        cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
        cairo_set_line_width(cr, 1.6);
        cairo_move_to(cr, 11, 17);
        cairo_line_to(cr, 10, 22);
        cairo_move_to(cr, 21, 17);
        cairo_line_to(cr, 22, 22);
        cairo_stroke(cr);
    } else if (name == "flood" || name == "roadclosed" || name == "information") {
        RGB fill = name == "flood"        ? rgb8(20, 110, 200)
                   : name == "roadclosed" ? rgb8(214, 24, 24)
                                          : rgb8(28, 92, 190);
        signShadow(cr, [&] { circle(cr, c, c, 14.5); });
        circle(cr, c, c, 14.5);
        cairo_set_source_rgb(cr, 1, 1, 1);
        cairo_fill(cr);
        circle(cr, c, c, 12.8);
        setColor(cr, fill);
        cairo_fill(cr);
        cairo_set_source_rgb(cr, 1, 1, 1);
        if (name == "flood") {
            cairo_set_line_width(cr, 2.2);
            cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
            for (double y : {11.5, 16.0, 20.5}) {
                cairo_move_to(cr, 8, y);
                cairo_curve_to(cr, 10.5, y - 2.5, 13, y - 2.5, c, y);
                cairo_curve_to(cr, 19, y + 2.5, 21.5, y + 2.5, 24, y);
            }
            cairo_stroke(cr);
        } else if (name == "roadclosed") {
            roundedRect(cr, 7, c - 2.6, 18, 5.2, 1);
            cairo_fill(cr);
        } else {
            circle(cr, c, 9.6, 2);
            cairo_fill(cr);
            roundedRect(cr, c - 1.8, 13, 3.6, 11, 0.8);
            cairo_fill(cr);
        }
    } else if (name == "event") {
        signShadow(cr, [&] { roundedRect(cr, 2, 2, 28, 28, 6); });
        roundedRect(cr, 2, 2, 28, 28, 6);
        cairo_set_source_rgb(cr, 1, 1, 1);
        cairo_fill(cr);
        roundedRect(cr, 3.6, 3.6, 24.8, 24.8, 4.8);
        setColor(cr, rgb8(128, 52, 176));
        cairo_fill(cr);
        cairo_set_source_rgb(cr, 1, 1, 1);
        star(cr, c, c + 0.6, 9.5, 4);
        cairo_fill(cr);
    } else if (name == "camera" || name == "video") {
        signShadow(cr, [&] { roundedRect(cr, 2, 4, 28, 24, 5); });
        roundedRect(cr, 2, 4, 28, 24, 5);
        cairo_set_source_rgb(cr, 1, 1, 1);
        cairo_fill(cr);
        roundedRect(cr, 3.5, 5.5, 25, 21, 4);
        setColor(cr, rgb8(44, 52, 64));
        cairo_fill(cr);
        cairo_set_source_rgb(cr, 1, 1, 1);
        if (name == "camera") {
            roundedRect(cr, 7, 11, 18, 12, 2);
            cairo_fill(cr);
            cairo_rectangle(cr, 12, 9, 7, 3);
            cairo_fill(cr);
            setColor(cr, rgb8(44, 52, 64));
            circle(cr, c, 17, 3.8);
            cairo_fill(cr);
            cairo_set_source_rgb(cr, 1, 1, 1);
            circle(cr, c, 17, 2.2);
            cairo_fill(cr);
        } else {
            roundedRect(cr, 6, 11, 14, 10, 2);
            cairo_fill(cr);
            cairo_move_to(cr, 20.5, c);
            cairo_line_to(cr, 26, 11.5);
            cairo_line_to(cr, 26, 20.5);
            cairo_close_path(cr);
            cairo_fill(cr);
        }
    }
}

bool isTrafficIconName(std::string_view name) {
    if (name == "information" || name == "camera" || name == "video") {
        return true;
    }
    for (std::string_view known : eventIconNames()) {
        if (name == known) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::shared_ptr<gfx::Image> paintMapIcon(std::string_view name, int scale) {
    if (scale < 1 || scale > 3 || !isMapIconName(name)) {
        return nullptr;
    }
    if (name == "reddot") {
        return redDot(scale);
    }
    auto underscore = name.rfind('_');
    if (underscore == std::string_view::npos) {
        return categoryIcon(name, scale);
    }
    return clusterIcon(name.substr(0, underscore), name.substr(underscore + 1), scale);
}

std::shared_ptr<gfx::Image> paintTrafficIcon(std::string_view name) {
    if (!isTrafficIconName(name)) {
        return nullptr;
    }
    return draw(kSignPoints, kSignPoints, kSignScale, [&](cairo_t* cr) { paintSign(cr, name); });
}

}  // namespace sorvan::server

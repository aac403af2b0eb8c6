#include "graphics/kit_images.hpp"

#include <cairo.h>

#include <cmath>
#include <functional>
#include <map>

#include "sorvan/platform/graphics/image_context.hpp"

namespace sorvan::gfx {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kScale = 2.0;

void rgba(cairo_t* cr, int r, int g, int b, double a = 1) {
    cairo_set_source_rgba(cr, r / 255.0, g / 255.0, b / 255.0, a);
}

std::shared_ptr<Image> draw(Size size, const std::function<void(cairo_t*)>& paint) {
    ImageContext ctx(size, kScale);
    cairo_t* cr = ctx.cairo();
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_BEST);
    paint(cr);
    return ctx.makeImage();
}

// A thin dark cross with a gap and a small ring in the middle, over a pale halo so it reads
// on dark satellite pictures as well as on pale maps.
void crosshair(cairo_t* cr) {
    const double c = 20;
    auto strokes = [&] {
        cairo_move_to(cr, 3, c);
        cairo_line_to(cr, c - 6.5, c);
        cairo_move_to(cr, c + 6.5, c);
        cairo_line_to(cr, 37, c);
        cairo_move_to(cr, c, 3);
        cairo_line_to(cr, c, c - 6.5);
        cairo_move_to(cr, c, c + 6.5);
        cairo_line_to(cr, c, 37);
        cairo_new_sub_path(cr);
        cairo_arc(cr, c, c, 3.5, 0, 2 * kPi);
    };
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    strokes();
    cairo_set_line_width(cr, 2.6);
    rgba(cr, 255, 255, 255, 0.75);
    cairo_stroke(cr);
    strokes();
    cairo_set_line_width(cr, 1.0);
    rgba(cr, 40, 40, 46, 0.95);
    cairo_stroke(cr);
    cairo_arc(cr, c, c, 0.9, 0, 2 * kPi);
    rgba(cr, 40, 40, 46, 0.95);
    cairo_fill(cr);
}

// The classic pin: a red drop with a white rim and a white eye, its tip at the bottom centre
// on a soft shadow.
void reddot(cairo_t* cr) {
    const double cx = 12, cy = 11, r = 9, tipY = 31.5;
    // Shadow where the tip meets the ground.
    cairo_save(cr);
    cairo_translate(cr, cx, tipY);
    cairo_scale(cr, 1, 0.32);
    cairo_pattern_t* shadow = cairo_pattern_create_radial(0, 0, 0, 0, 0, 6.5);
    cairo_pattern_add_color_stop_rgba(shadow, 0, 0, 0, 0, 0.45);
    cairo_pattern_add_color_stop_rgba(shadow, 1, 0, 0, 0, 0);
    cairo_set_source(cr, shadow);
    cairo_arc(cr, 0, 0, 6.5, 0, 2 * kPi);
    cairo_fill(cr);
    cairo_pattern_destroy(shadow);
    cairo_restore(cr);

    // The drop: the circle and the two tangents to the tip, the tip slightly rounded.
    double d = tipY - cy;
    double beta = std::acos(r / d);
    auto body = [&] {
        cairo_new_path(cr);
        cairo_arc(cr, cx, cy, r, kPi / 2 + beta, kPi / 2 - beta + 2 * kPi);
        double rx = cx + r * std::cos(kPi / 2 - beta), ry = cy + r * std::sin(kPi / 2 - beta);
        cairo_curve_to(cr, rx - 0.6, ry + 5, cx + 0.9, tipY - 3.5, cx, tipY);
        double lx = cx + r * std::cos(kPi / 2 + beta), ly = cy + r * std::sin(kPi / 2 + beta);
        cairo_curve_to(cr, cx - 0.9, tipY - 3.5, lx + 0.6, ly + 5, lx, ly);
        cairo_close_path(cr);
    };
    body();
    cairo_pattern_t* fill = cairo_pattern_create_radial(cx - 3.5, cy - 4, 1, cx, cy, 18);
    cairo_pattern_add_color_stop_rgb(fill, 0, 1.0, 0.42, 0.38);
    cairo_pattern_add_color_stop_rgb(fill, 0.55, 0.88, 0.13, 0.12);
    cairo_pattern_add_color_stop_rgb(fill, 1, 0.62, 0.05, 0.05);
    cairo_set_source(cr, fill);
    cairo_fill_preserve(cr);
    cairo_pattern_destroy(fill);
    cairo_set_line_width(cr, 1.5);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    rgba(cr, 255, 255, 255);
    cairo_stroke(cr);
    // A thin dark outline outside the rim keeps the pin apart from pale maps.
    cairo_save(cr);
    body();
    cairo_set_line_width(cr, 2.6);
    rgba(cr, 90, 10, 10, 0.35);
    cairo_set_operator(cr, CAIRO_OPERATOR_DEST_OVER);
    cairo_stroke(cr);
    cairo_restore(cr);
    // The eye.
    cairo_arc(cr, cx, cy, 3.4, 0, 2 * kPi);
    rgba(cr, 255, 255, 255);
    cairo_fill(cr);
}

// A round blue traffic information sign with a white rim and a white "i".
void information(cairo_t* cr) {
    const double c = 16;
    cairo_arc(cr, c, c + 0.6, 15, 0, 2 * kPi);
    rgba(cr, 0, 0, 0, 0.22);
    cairo_fill(cr);
    cairo_arc(cr, c, c, 15, 0, 2 * kPi);
    rgba(cr, 255, 255, 255);
    cairo_fill(cr);
    cairo_arc(cr, c, c, 15, 0, 2 * kPi);
    cairo_set_line_width(cr, 0.8);
    rgba(cr, 20, 50, 110, 0.6);
    cairo_stroke(cr);
    cairo_arc(cr, c, c, 12.8, 0, 2 * kPi);
    cairo_pattern_t* fill = cairo_pattern_create_linear(0, 3, 0, 29);
    cairo_pattern_add_color_stop_rgb(fill, 0, 0.20, 0.50, 0.92);
    cairo_pattern_add_color_stop_rgb(fill, 1, 0.05, 0.30, 0.72);
    cairo_set_source(cr, fill);
    cairo_fill(cr);
    cairo_pattern_destroy(fill);
    // The letter: a dot over a stem with a short foot.
    rgba(cr, 255, 255, 255);
    cairo_arc(cr, c, 9.2, 2.2, 0, 2 * kPi);
    cairo_fill(cr);
    cairo_move_to(cr, c - 3.2, 13.2);
    cairo_line_to(cr, c + 1.8, 13.2);
    cairo_line_to(cr, c + 1.8, 22.2);
    cairo_line_to(cr, c + 3.2, 22.2);
    cairo_line_to(cr, c + 3.2, 24.6);
    cairo_line_to(cr, c - 3.4, 24.6);
    cairo_line_to(cr, c - 3.4, 22.2);
    cairo_line_to(cr, c - 1.8, 22.2);
    cairo_line_to(cr, c - 1.8, 15.4);
    cairo_line_to(cr, c - 3.2, 15.4);
    cairo_close_path(cr);
    cairo_fill(cr);
}

// The user's position: a blue disc in a white ring on a soft blue halo, centred in a 70 pt
// square so the heading cone can share the centre.
void marker(cairo_t* cr) {
    const double c = 35;
    cairo_pattern_t* halo = cairo_pattern_create_radial(c, c, 10, c, c, 32);
    cairo_pattern_add_color_stop_rgba(halo, 0, 0.16, 0.47, 0.93, 0.30);
    cairo_pattern_add_color_stop_rgba(halo, 0.6, 0.16, 0.47, 0.93, 0.12);
    cairo_pattern_add_color_stop_rgba(halo, 1, 0.16, 0.47, 0.93, 0);
    cairo_set_source(cr, halo);
    cairo_arc(cr, c, c, 32, 0, 2 * kPi);
    cairo_fill(cr);
    cairo_pattern_destroy(halo);
    cairo_pattern_t* shadow = cairo_pattern_create_radial(c, c + 1, 10, c, c + 1, 14.5);
    cairo_pattern_add_color_stop_rgba(shadow, 0, 0, 0, 0, 0.3);
    cairo_pattern_add_color_stop_rgba(shadow, 1, 0, 0, 0, 0);
    cairo_set_source(cr, shadow);
    cairo_arc(cr, c, c + 1, 14.5, 0, 2 * kPi);
    cairo_fill(cr);
    cairo_pattern_destroy(shadow);
    cairo_arc(cr, c, c, 11.5, 0, 2 * kPi);
    rgba(cr, 255, 255, 255);
    cairo_fill(cr);
    cairo_arc(cr, c, c, 8.5, 0, 2 * kPi);
    cairo_pattern_t* fill = cairo_pattern_create_radial(c - 2.5, c - 3, 1, c, c, 9);
    cairo_pattern_add_color_stop_rgb(fill, 0, 0.35, 0.62, 1.0);
    cairo_pattern_add_color_stop_rgb(fill, 1, 0.09, 0.42, 0.90);
    cairo_set_source(cr, fill);
    cairo_fill(cr);
    cairo_pattern_destroy(fill);
}

// The heading: a translucent blue beam opening upwards from the centre, with a crisp arrow
// head just outside the marker's ring. Drawn pointing north; the map view rotates it.
void heading(cairo_t* cr) {
    const double c = 35, spread = 26 * kPi / 180, reach = 34;
    cairo_move_to(cr, c, c);
    cairo_arc(cr, c, c, reach, -kPi / 2 - spread, -kPi / 2 + spread);
    cairo_close_path(cr);
    cairo_pattern_t* beam = cairo_pattern_create_radial(c, c, 4, c, c, reach);
    cairo_pattern_add_color_stop_rgba(beam, 0, 0.12, 0.45, 0.95, 0.55);
    cairo_pattern_add_color_stop_rgba(beam, 0.7, 0.12, 0.45, 0.95, 0.22);
    cairo_pattern_add_color_stop_rgba(beam, 1, 0.12, 0.45, 0.95, 0);
    cairo_set_source(cr, beam);
    cairo_fill(cr);
    cairo_pattern_destroy(beam);
    // Arrow head.
    cairo_move_to(cr, c, c - 22.5);
    cairo_line_to(cr, c + 5.2, c - 14.2);
    cairo_line_to(cr, c, c - 16.2);
    cairo_line_to(cr, c - 5.2, c - 14.2);
    cairo_close_path(cr);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_set_line_width(cr, 1.6);
    rgba(cr, 255, 255, 255, 0.9);
    cairo_stroke_preserve(cr);
    rgba(cr, 22, 104, 228, 0.95);
    cairo_fill(cr);
}

const std::map<std::string, std::shared_ptr<Image>>& pictures() {
    // Drawn once, on first use, by whichever thread asks first; the others wait.
    static const std::map<std::string, std::shared_ptr<Image>> all = {
        {"crosshair", draw({40, 40}, crosshair)},     {"reddot", draw({24, 34}, reddot)},
        {"information", draw({32, 32}, information)}, {"marker", draw({70, 70}, marker)},
        {"heading", draw({70, 70}, heading)},
    };
    return all;
}

}  // namespace

std::shared_ptr<Image> kitImage(const std::string& name) {
    const auto& all = pictures();
    auto it = all.find(name);
    return it == all.end() ? nullptr : it->second;
}

}  // namespace sorvan::gfx

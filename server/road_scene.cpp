#include "road_scene.hpp"

#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace sorvan::server {

namespace {

// Distances along the road, in metres from the camera: the nearest drawn and the horizon's.
constexpr double kNear = 4.0;
constexpr double kFar = 110.0;
constexpr int kLanes = 4;

// A small deterministic generator: the same name paints the same street.
struct Random {
    std::uint64_t state;
    explicit Random(const std::string& seed) : state(1469598103934665603ull) {
        for (unsigned char c : seed)
            state = (state ^ c) * 1099511628211ull;
        if (state == 0)
            state = 1;
    }
    double next() {  // [0, 1)
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return static_cast<double>(state >> 11) / 9007199254740992.0;
    }
};

struct Car {
    int lane;
    double start, speed;  // metres, metres per second (sign gives the direction)
    double r, g, b;
};

struct Scene {
    double w, h, horizon, cx, roadNear;  // roadNear: half the road's width at the bottom edge

    // Perspective: a point `distance` metres away sits this far below the horizon.
    double yAt(double distance) const { return horizon + (h - horizon) * (kNear / distance); }
    double scaleAt(double distance) const { return kNear / distance; }
    double laneX(int lane, double distance) const {
        double offset = (lane + 0.5) / kLanes * 2 - 1;  // -0.75 .. 0.75 of the half width
        return cx + offset * roadNear * scaleAt(distance);
    }
};

void paintSky(cairo_t* cr, const Scene& s) {
    cairo_pattern_t* sky = cairo_pattern_create_linear(0, 0, 0, s.horizon);
    cairo_pattern_add_color_stop_rgb(sky, 0, 0.42, 0.62, 0.85);
    cairo_pattern_add_color_stop_rgb(sky, 1, 0.80, 0.88, 0.95);
    cairo_set_source(cr, sky);
    cairo_rectangle(cr, 0, 0, s.w, s.horizon);
    cairo_fill(cr);
    cairo_pattern_destroy(sky);
}

void paintSkyline(cairo_t* cr, const Scene& s, Random& random) {
    double x = 0;
    while (x < s.w) {
        double bw = s.w * (0.03 + random.next() * 0.06);
        double bh = s.h * (0.05 + random.next() * 0.22);
        double shade = 0.45 + random.next() * 0.25;
        cairo_set_source_rgb(cr, shade * 0.9, shade * 0.92, shade);
        cairo_rectangle(cr, x, s.horizon - bh, bw, bh);
        cairo_fill(cr);
        // A few lit windows.
        cairo_set_source_rgba(cr, 1, 0.95, 0.7, 0.5);
        for (double wy = s.horizon - bh + 4; wy < s.horizon - 6; wy += 8)
            for (double wx = x + 3; wx < x + bw - 5; wx += 7)
                if (random.next() < 0.3) {
                    cairo_rectangle(cr, wx, wy, 3, 4);
                    cairo_fill(cr);
                }
        x += bw + s.w * 0.005;
    }
}

void paintGround(cairo_t* cr, const Scene& s) {
    cairo_set_source_rgb(cr, 0.36, 0.55, 0.30);
    cairo_rectangle(cr, 0, s.horizon, s.w, s.h - s.horizon);
    cairo_fill(cr);
    // The road: a trapezoid from the bottom edge to the horizon.
    double farHalf = s.roadNear * (kNear / kFar);
    cairo_set_source_rgb(cr, 0.30, 0.30, 0.32);
    cairo_move_to(cr, s.cx - s.roadNear * 1.3, s.h);
    cairo_line_to(cr, s.cx + s.roadNear * 1.3, s.h);
    cairo_line_to(cr, s.cx + farHalf, s.horizon);
    cairo_line_to(cr, s.cx - farHalf, s.horizon);
    cairo_close_path(cr);
    cairo_fill(cr);
}

// Dashes slide towards the camera with time, so the road itself seems to move.
void paintMarkings(cairo_t* cr, const Scene& s, double seconds) {
    for (int divider = 1; divider < kLanes; ++divider) {
        double offset = static_cast<double>(divider) / kLanes * 2 - 1;
        bool centre = divider == kLanes / 2;
        cairo_set_source_rgb(cr, centre ? 0.95 : 0.92, centre ? 0.80 : 0.92, centre ? 0.20 : 0.92);
        double phase = std::fmod(seconds * 6.0, 6.0);
        for (double d = kNear + 6.0 - phase; d < kFar; d += 6.0) {
            double d2 = d + (centre ? 6.0 : 3.0);
            double x1 = s.cx + offset * s.roadNear * s.scaleAt(std::max(d, kNear));
            double x2 = s.cx + offset * s.roadNear * s.scaleAt(d2);
            double y1 = s.yAt(std::max(d, kNear)), y2 = s.yAt(d2);
            double w1 = 0.012 * s.roadNear * s.scaleAt(std::max(d, kNear)) * 4;
            double w2 = 0.012 * s.roadNear * s.scaleAt(d2) * 4;
            cairo_move_to(cr, x1 - w1, y1);
            cairo_line_to(cr, x1 + w1, y1);
            cairo_line_to(cr, x2 + w2, y2);
            cairo_line_to(cr, x2 - w2, y2);
            cairo_close_path(cr);
            cairo_fill(cr);
        }
    }
}

void paintCar(cairo_t* cr, const Scene& s, const Car& car, double distance) {
    double scale = s.scaleAt(distance);
    double x = s.laneX(car.lane, distance), y = s.yAt(distance);
    double cw = s.roadNear * 0.42 * scale, ch = cw * 0.62;
    // Shadow, body, cabin, lights.
    cairo_set_source_rgba(cr, 0, 0, 0, 0.25);
    cairo_rectangle(cr, x - cw * 0.55, y - ch * 0.08, cw * 1.1, ch * 0.16);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, car.r, car.g, car.b);
    cairo_rectangle(cr, x - cw / 2, y - ch * 0.7, cw, ch * 0.7);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, car.r * 0.7, car.g * 0.7, car.b * 0.7);
    cairo_rectangle(cr, x - cw * 0.36, y - ch, cw * 0.72, ch * 0.32);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 0.75, 0.85, 0.95);
    cairo_rectangle(cr, x - cw * 0.3, y - ch * 0.95, cw * 0.6, ch * 0.22);
    cairo_fill(cr);
    bool away = car.speed > 0;  // seen from behind: red lights; coming: white ones
    cairo_set_source_rgb(cr, away ? 0.9 : 1.0, away ? 0.1 : 1.0, away ? 0.1 : 0.85);
    double lw = cw * 0.14, lh = ch * 0.12;
    cairo_rectangle(cr, x - cw / 2 + cw * 0.05, y - ch * 0.45, lw, lh);
    cairo_rectangle(cr, x + cw / 2 - cw * 0.05 - lw, y - ch * 0.45, lw, lh);
    cairo_fill(cr);
}

void paintCaption(cairo_t* cr, const Scene& s, const std::string& name, const std::string& clock) {
    double barHeight = std::max(14.0, s.h * 0.075);
    cairo_set_source_rgba(cr, 0, 0, 0, 0.55);
    cairo_rectangle(cr, 0, 0, s.w, barHeight);
    cairo_fill(cr);
    PangoLayout* layout = pango_cairo_create_layout(cr);
    PangoFontDescription* font = pango_font_description_from_string("DejaVu Sans Mono Bold");
    pango_font_description_set_absolute_size(font, barHeight * 0.62 * PANGO_SCALE);
    pango_layout_set_font_description(layout, font);
    pango_font_description_free(font);
    cairo_set_source_rgb(cr, 1, 1, 1);
    int tw = 0, th = 0;
    pango_layout_set_text(layout, name.c_str(), -1);
    pango_layout_get_pixel_size(layout, &tw, &th);
    cairo_move_to(cr, barHeight * 0.4, (barHeight - th) / 2);
    pango_cairo_show_layout(cr, layout);
    pango_layout_set_text(layout, clock.c_str(), -1);
    pango_layout_get_pixel_size(layout, &tw, &th);
    cairo_move_to(cr, s.w - tw - barHeight * 0.4, (barHeight - th) / 2);
    pango_cairo_show_layout(cr, layout);
    g_object_unref(layout);
}

}  // namespace

void paintRoadScene(cairo_t* cr, int width, int height, const std::string& name, double seconds,
                    const std::string& clock) {
    if (width <= 0 || height <= 0)
        return;
    Random random(name);
    Scene s{static_cast<double>(width), static_cast<double>(height), height * 0.42,
            width * (0.45 + random.next() * 0.1), width * 0.42};
    cairo_save(cr);
    paintSky(cr, s);
    paintSkyline(cr, s, random);
    paintGround(cr, s);
    paintMarkings(cr, s, seconds);

    std::vector<Car> cars;
    int count = 10 + static_cast<int>(random.next() * 5);
    for (int i = 0; i < count; ++i) {
        Car car{};
        car.lane = static_cast<int>(random.next() * kLanes) % kLanes;
        double speed = 6 + random.next() * 10;
        // The left half of the road drives away from the camera, the right half towards it.
        car.speed = car.lane < kLanes / 2 ? speed : -speed;
        car.start = random.next() * (kFar - kNear);
        car.r = 0.15 + random.next() * 0.8;
        car.g = 0.15 + random.next() * 0.8;
        car.b = 0.15 + random.next() * 0.8;
        cars.push_back(car);
    }
    std::vector<std::pair<double, const Car*>> placed;
    for (const Car& car : cars) {
        double span = kFar - kNear;
        double d = std::fmod(car.start + car.speed * seconds, span);
        if (d < 0)
            d += span;
        placed.emplace_back(kNear + d, &car);
    }
    // Far cars first, so near ones cover them.
    std::sort(placed.begin(), placed.end(), [](auto& a, auto& b) { return a.first > b.first; });
    for (auto& [distance, car] : placed)
        paintCar(cr, s, *car, distance);

    paintCaption(cr, s, name, clock);
    cairo_restore(cr);
}

}  // namespace sorvan::server

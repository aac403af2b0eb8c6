#include "tile_painter.hpp"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <vector>

#include "graphics/cairo_handles.hpp"
#include "tile_world.hpp"

namespace sorvan::server {
namespace {

using gfx::ContextPtr;
using gfx::SurfacePtr;
using world::WorldPoint;

// ---------------------------------------------------------------------------------------------
// Styles.

struct RGB {
    double r = 0, g = 0, b = 0;
};

RGB rgb8(int r, int g, int b) {
    return {r / 255.0, g / 255.0, b / 255.0};
}

RGB mixRGB(RGB a, RGB b, double t) {
    return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

enum class Kind { Map, Icons, Traffic, Satellite, Terrain, Political, Hydro, Neutral };
enum RoadClass { kMinor, kStreet, kSecondary, kPrimary, kMotorway, kRoadClasses };

struct Palette {
    RGB land, urban, water, park, forest, building, buildingEdge;
    std::array<RGB, kRoadClasses> road, casing;
    RGB label, halo, districtLabel, waterLabel, border;
};

struct Style {
    Kind kind = Kind::Neutral;
    bool english = false;
    bool labels = true;
    bool roads = true;
    Palette pal;
};

Palette normalPalette() {
    Palette p;
    p.land = rgb8(248, 244, 232);
    p.urban = rgb8(238, 230, 222);
    p.water = rgb8(166, 206, 233);
    p.park = rgb8(200, 228, 182);
    p.forest = rgb8(212, 230, 190);
    p.building = rgb8(222, 214, 204);
    p.buildingEdge = rgb8(200, 190, 180);
    p.road = {rgb8(255, 255, 255), rgb8(255, 255, 255), rgb8(255, 246, 196), rgb8(252, 214, 112),
              rgb8(240, 142, 82)};
    p.casing = {rgb8(214, 206, 196), rgb8(200, 192, 182), rgb8(212, 190, 120), rgb8(212, 160, 70),
                rgb8(196, 96, 50)};
    p.label = rgb8(60, 50, 45);
    p.halo = rgb8(255, 255, 255);
    p.districtLabel = rgb8(110, 90, 100);
    p.waterLabel = rgb8(40, 100, 160);
    p.border = rgb8(160, 110, 170);
    return p;
}

Palette osmPalette() {
    Palette p = normalPalette();
    p.land = rgb8(242, 239, 233);
    p.urban = rgb8(224, 223, 223);
    p.water = rgb8(170, 211, 223);
    p.park = rgb8(200, 250, 204);
    p.forest = rgb8(173, 209, 158);
    p.building = rgb8(217, 208, 201);
    p.buildingEdge = rgb8(196, 182, 171);
    p.road = {rgb8(255, 255, 255), rgb8(255, 255, 255), rgb8(247, 250, 191), rgb8(252, 214, 164),
              rgb8(232, 146, 162)};
    p.casing = {rgb8(190, 185, 180), rgb8(180, 175, 170), rgb8(170, 178, 120), rgb8(190, 150, 100),
                rgb8(190, 90, 110)};
    return p;
}

RGB toGray(RGB c) {
    double l = 0.299 * c.r + 0.587 * c.g + 0.114 * c.b;
    return {l, l, l};
}

Palette grayPalette() {
    Palette p = normalPalette();
    for (RGB* c : {&p.land, &p.urban, &p.water, &p.park, &p.forest, &p.building, &p.buildingEdge,
                   &p.label, &p.districtLabel, &p.waterLabel, &p.border}) {
        *c = toGray(*c);
    }
    p.water = rgb8(196, 198, 200);
    for (int i = 0; i < kRoadClasses; ++i) {
        p.road[i] = i >= kPrimary ? rgb8(252, 252, 252) : rgb8(255, 255, 255);
        p.casing[i] = toGray(p.casing[i]);
    }
    return p;
}

Palette hydroPalette() {
    Palette p = normalPalette();
    p.land = rgb8(250, 250, 246);
    p.urban = rgb8(238, 238, 234);
    p.water = rgb8(98, 160, 222);
    p.park = rgb8(236, 242, 230);
    p.forest = rgb8(236, 242, 230);
    for (int i = 0; i < kRoadClasses; ++i) {
        p.road[i] = rgb8(226, 226, 222);
        p.casing[i] = rgb8(226, 226, 222);
    }
    p.waterLabel = rgb8(20, 70, 150);
    return p;
}

Palette politicalPalette() {
    Palette p = normalPalette();
    p.land = rgb8(255, 255, 255);
    p.urban = rgb8(246, 244, 242);
    p.water = rgb8(206, 226, 240);
    p.park = p.forest = p.land;
    p.border = rgb8(150, 96, 168);
    p.label = rgb8(70, 60, 80);
    return p;
}

Style parseStyle(std::string_view name) {
    Style s;
    constexpr std::string_view kEnglish = "-en";
    if (name.size() > kEnglish.size() && name.ends_with(kEnglish)) {
        s.english = true;
        name.remove_suffix(kEnglish.size());
    }
    s.pal = normalPalette();
    if (name == "normal" || name == "normalr" || name == "base") {
        s.kind = Kind::Map;
        s.labels = name != "base";
    } else if (name == "gray") {
        s.kind = Kind::Map;
        s.pal = grayPalette();
    } else if (name == "osm" || name == "mapquest_osm" || name == "osm_opencycle") {
        s.kind = Kind::Map;
        s.pal = osmPalette();
        s.english = true;
    } else if (name == "icons" || name == "iconstransp") {
        s.kind = Kind::Icons;
        s.labels = name == "icons";
    } else if (name == "trafficoverlay") {
        s.kind = Kind::Traffic;
    } else if (name == "thaichote" || name == "gistda_spot5") {
        s.kind = Kind::Satellite;
        s.labels = false;
    } else if (name == "bluemarble_terrain") {
        s.kind = Kind::Terrain;
        s.labels = false;
        s.roads = false;
    } else if (name == "politicalwhite" || name == "politicalwhitenolabel") {
        s.kind = Kind::Political;
        s.pal = politicalPalette();
        s.labels = name == "politicalwhite";
        s.roads = false;
    } else if (name == "hydro") {
        s.kind = Kind::Hydro;
        s.pal = hydroPalette();
    } else {
        s.kind = Kind::Neutral;
        s.labels = false;
        s.roads = false;
        s.pal.land = rgb8(232, 232, 230);
        s.pal.urban = rgb8(224, 224, 222);
        s.pal.water = rgb8(206, 208, 212);
    }
    return s;
}

// ---------------------------------------------------------------------------------------------
// The frame: which part of the world lands on which pixel.

struct Pt {
    double x = 0, y = 0;
};

class Frame {
  public:
    Frame(const MapBox& box, int w, int h) : box_(box), w_(w), h_(h) {
        if (box.srs == MapBox::SRS::Mercator3857) {
            mx0_ = box.minX, my0_ = box.minY, mx1_ = box.maxX, my1_ = box.maxY;
        } else {
            mx0_ = world::xOfLon(box.minX), mx1_ = world::xOfLon(box.maxX);
            my0_ = world::yOfLat(box.minY), my1_ = world::yOfLat(box.maxY);
        }
        mpp_ = (mx1_ - mx0_) / w;
        zoom_ = std::log2(2 * world::kHalfWorld / (256 * mpp_));
        level_ = static_cast<int>(std::floor(zoom_ + 0.01));
    }

    Pt px(double mx, double my) const {
        if (box_.srs == MapBox::SRS::Mercator3857) {
            return {(mx - mx0_) / (mx1_ - mx0_) * w_, (my1_ - my) / (my1_ - my0_) * h_};
        }
        double lon = world::lonOfX(mx), lat = world::latOfY(my);
        return {(lon - box_.minX) / (box_.maxX - box_.minX) * w_,
                (box_.maxY - lat) / (box_.maxY - box_.minY) * h_};
    }
    Pt px(const WorldPoint& p) const { return px(p.x, p.y); }

    WorldPoint world(double x, double y) const {
        if (box_.srs == MapBox::SRS::Mercator3857) {
            return {mx0_ + x / w_ * (mx1_ - mx0_), my1_ - y / h_ * (my1_ - my0_)};
        }
        double lon = box_.minX + x / w_ * (box_.maxX - box_.minX);
        double lat = box_.maxY - y / h_ * (box_.maxY - box_.minY);
        return {world::xOfLon(lon), world::yOfLat(lat)};
    }

    /// True when a world box, grown by marginPx pixels, touches the frame.
    bool touches(double x0, double y0, double x1, double y1, double marginPx) const {
        double m = marginPx * mpp_;
        return x1 >= mx0_ - m && x0 <= mx1_ + m && y1 >= my0_ - m && y0 <= my1_ + m;
    }

    int width() const { return w_; }
    int height() const { return h_; }
    double mpp() const { return mpp_; }
    /// Fractional zoom, and the whole zoom level that picks what is drawn.
    double zoom() const { return zoom_; }
    int level() const { return level_; }
    double minX() const { return mx0_; }
    double minY() const { return my0_; }
    double maxX() const { return mx1_; }
    double maxY() const { return my1_; }
    /// Coastline detail worth computing: about four pixels.
    double detailDegrees() const { return 4 * mpp_ / world::kHalfWorld * 180; }

  private:
    MapBox box_;
    int w_, h_;
    double mx0_ = 0, my0_ = 0, mx1_ = 0, my1_ = 0;
    double mpp_ = 1, zoom_ = 0;
    int level_ = 0;
};

double landAt(const Frame& f, const WorldPoint& p) {
    return world::landness(world::lonOfX(p.x), world::latOfY(p.y), f.detailDegrees());
}

double cityAt(const WorldPoint& p) {
    return world::cityness(world::lonOfX(p.x), world::latOfY(p.y));
}

// ---------------------------------------------------------------------------------------------
// The ground: land, towns and water per pixel, from fields sampled every few pixels.

constexpr int kStep = 4;

struct Fields {
    int gw = 0, gh = 0;
    std::vector<float> land, city;
    float at(const std::vector<float>& v, int gx, int gy) const {
        return v[static_cast<std::size_t>(gy) * gw + gx];
    }
};

Fields sampleFields(const Frame& f) {
    Fields s;
    s.gw = f.width() / kStep + 2;
    s.gh = f.height() / kStep + 2;
    s.land.resize(static_cast<std::size_t>(s.gw) * s.gh);
    s.city.resize(s.land.size());
    double detail = f.detailDegrees();
    for (int gy = 0; gy < s.gh; ++gy) {
        for (int gx = 0; gx < s.gw; ++gx) {
            WorldPoint p = f.world(gx * kStep, gy * kStep);
            double lon = world::lonOfX(p.x), lat = world::latOfY(p.y);
            auto i = static_cast<std::size_t>(gy) * s.gw + gx;
            s.land[i] = static_cast<float>(world::landness(lon, lat, detail));
            s.city[i] = static_cast<float>(world::cityness(lon, lat));
        }
    }
    return s;
}

std::uint32_t packRGB(RGB c) {
    auto b = [](double v) {
        return static_cast<std::uint32_t>(std::clamp(v, 0.0, 1.0) * 255 + 0.5);
    };
    return 0xff000000u | (b(c.r) << 16) | (b(c.g) << 8) | b(c.b);
}

// Texture of the satellite-like styles: fields of crops and bare soil in the country, roofs in
// towns, all fixed to world cells.
RGB satelliteLand(const Frame& f, const WorldPoint& p, double city) {
    static const RGB crops[] = {rgb8(92, 116, 58),  rgb8(118, 132, 70), rgb8(70, 98, 46),
                                rgb8(140, 128, 86), rgb8(104, 90, 62),  rgb8(126, 142, 84),
                                rgb8(84, 104, 52),  rgb8(150, 140, 100)};
    constexpr double kField = 180;  // metres
    RGB c;
    double fieldPx = kField / f.mpp();
    if (fieldPx >= 2) {
        std::uint64_t h = world::hash(static_cast<std::int64_t>(std::floor(p.x / kField)),
                                      static_cast<std::int64_t>(std::floor(p.y / kField)), 401);
        c = crops[h % 8];
    } else {
        double n = world::valueNoise(p.x / 9000, p.y / 9000, 403);
        c = mixRGB(rgb8(86, 110, 56), rgb8(132, 124, 84), n);
    }
    double forest = world::valueNoise(p.x / 15000, p.y / 15000, 409);
    if (forest > 0.62) {
        c = mixRGB(c, rgb8(38, 66, 34), std::min(1.0, (forest - 0.62) * 6));
    }
    if (city > 0.05) {
        // Blocks of different roofing, single roofs when they are big enough to see, and
        // trees in between.
        constexpr double kBlock = 130, kRoof = 24;
        double block =
            world::unit(world::hash(static_cast<std::int64_t>(std::floor(p.x / kBlock)),
                                    static_cast<std::int64_t>(std::floor(p.y / kBlock)), 417));
        double roof = f.mpp() < kRoof / 1.5
                          ? world::unit(world::hash(static_cast<std::int64_t>(p.x / kRoof),
                                                    static_cast<std::int64_t>(p.y / kRoof), 419))
                          : 0.5;
        RGB town = mixRGB(rgb8(120, 112, 104), rgb8(200, 190, 178), 0.5 * block + 0.5 * roof);
        if (block > 0.85) {
            town = mixRGB(town, rgb8(170, 90, 70), 0.5);  // tiled roofs
        }
        double trees = world::valueNoise(p.x / 350, p.y / 350, 423);
        if (trees > 0.6) {
            town = mixRGB(town, rgb8(60, 88, 48), std::min(1.0, (trees - 0.6) * 4));
        }
        c = mixRGB(c, town, std::min(1.0, city * 1.2));
    }
    // Fine grain, fixed to the pixel's world cell so neighbours agree.
    double grain =
        world::unit(world::hash(static_cast<std::int64_t>(std::floor(p.x / f.mpp())),
                                static_cast<std::int64_t>(std::floor(p.y / f.mpp())), 421)) -
        0.5;
    return {c.r + grain * 0.05, c.g + grain * 0.05, c.b + grain * 0.05};
}

RGB terrainLand(const WorldPoint& p) {
    double n = world::valueNoise(p.x / 400000, p.y / 400000, 431) * 0.6 +
               world::valueNoise(p.x / 90000, p.y / 90000, 433) * 0.3 +
               world::valueNoise(p.x / 20000, p.y / 20000, 437) * 0.1;
    RGB c = mixRGB(rgb8(52, 92, 40), rgb8(150, 130, 88), std::clamp((n - 0.3) * 2.2, 0.0, 1.0));
    double shade = world::valueNoise(p.x / 30000 + 0.3, p.y / 30000, 439) - 0.5;
    return {c.r + shade * 0.12, c.g + shade * 0.12, c.b + shade * 0.1};
}

void paintGround(const Style& s, const Frame& f, std::vector<std::uint32_t>& pixels) {
    Fields fields = sampleFields(f);
    const bool satellite = s.kind == Kind::Satellite;
    const bool terrain = s.kind == Kind::Terrain;
    RGB water = satellite ? rgb8(26, 56, 70) : terrain ? rgb8(12, 34, 86) : s.pal.water;
    for (int y = 0; y < f.height(); ++y) {
        int gy = y / kStep;
        double ty = (y % kStep + 0.5) / kStep;
        for (int x = 0; x < f.width(); ++x) {
            int gx = x / kStep;
            double tx = (x % kStep + 0.5) / kStep;
            auto bil = [&](const std::vector<float>& v) {
                double a = fields.at(v, gx, gy), b = fields.at(v, gx + 1, gy);
                double c = fields.at(v, gx, gy + 1), d = fields.at(v, gx + 1, gy + 1);
                return (a + (b - a) * tx) + ((c + (d - c) * tx) - (a + (b - a) * tx)) * ty;
            };
            // Coverage of land in this pixel from the field's value and its slope: an
            // antialiased coast without supersampling.
            double v = bil(fields.land);
            double dx =
                (fields.at(fields.land, gx + 1, gy) - fields.at(fields.land, gx, gy)) / kStep;
            double dy =
                (fields.at(fields.land, gx, gy + 1) - fields.at(fields.land, gx, gy)) / kStep;
            double slope = std::max(std::hypot(dx, dy), 1e-6);
            double cover = std::clamp(0.5 + v / slope, 0.0, 1.0);
            double city = std::clamp(bil(fields.city), 0.0, 1.0);
            RGB land;
            if (satellite || terrain) {
                WorldPoint p = f.world(x + 0.5, y + 0.5);
                land = satellite ? satelliteLand(f, p, city) : terrainLand(p);
            } else {
                land = mixRGB(s.pal.land, s.pal.urban, std::min(1.0, city * 1.1));
            }
            pixels[static_cast<std::size_t>(y) * f.width() + x] =
                packRGB(mixRGB(water, land, cover));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Drawing helpers in pixel space.

using Path = std::vector<Pt>;

void setColor(cairo_t* cr, RGB c, double a = 1) {
    cairo_set_source_rgba(cr, c.r, c.g, c.b, a);
}

void tracePath(cairo_t* cr, const Path& path) {
    if (path.empty()) {
        return;
    }
    cairo_move_to(cr, path[0].x, path[0].y);
    for (std::size_t i = 1; i < path.size(); ++i) {
        cairo_line_to(cr, path[i].x, path[i].y);
    }
}

void strokePath(cairo_t* cr, const Path& path, double width, RGB color, double alpha = 1) {
    if (path.size() < 2) {
        return;
    }
    tracePath(cr, path);
    cairo_set_line_width(cr, width);
    setColor(cr, color, alpha);
    cairo_stroke(cr);
}

/// The index ranges [first, last] of a world polyline that lie on land. A run keeps the
/// first point past the coast so lines reach the water's edge.
std::vector<std::pair<std::size_t, std::size_t>> landRanges(const Frame& f,
                                                            const std::vector<WorldPoint>& pts) {
    std::vector<std::pair<std::size_t, std::size_t>> ranges;
    std::size_t start = 0;
    bool inside = false;
    for (std::size_t k = 0; k < pts.size(); ++k) {
        bool land = landAt(f, pts[k]) > 0;
        if (land && !inside) {
            start = k;
            inside = true;
        } else if (!land && inside) {
            ranges.emplace_back(start, k);
            inside = false;
        }
    }
    if (inside && pts.size() - start > 1) {
        ranges.emplace_back(start, pts.size() - 1);
    }
    return ranges;
}

/// The runs of a world polyline that lie on land, in pixels.
std::vector<Path> landRuns(const Frame& f, const std::vector<WorldPoint>& pts) {
    std::vector<Path> runs;
    for (auto [a, b] : landRanges(f, pts)) {
        Path p;
        for (std::size_t k = a; k <= b; ++k) {
            p.push_back(f.px(pts[k]));
        }
        runs.push_back(std::move(p));
    }
    return runs;
}

/// A smooth curve through world points (Catmull-Rom), sampled about every 4 pixels.
std::vector<WorldPoint> smoothCurve(const Frame& f, const std::vector<WorldPoint>& pts) {
    std::vector<WorldPoint> out;
    if (pts.size() < 2) {
        return pts;
    }
    for (std::size_t i = 0; i + 1 < pts.size(); ++i) {
        const WorldPoint& p0 = pts[i == 0 ? 0 : i - 1];
        const WorldPoint& p3 = pts[std::min(i + 2, pts.size() - 1)];
        double len = std::hypot(pts[i + 1].x - pts[i].x, pts[i + 1].y - pts[i].y) / f.mpp();
        int n = std::clamp(static_cast<int>(len / 4), 1, 64);
        for (int k = 0; k < n; ++k) {
            out.push_back(
                world::catmullRom(p0, pts[i], pts[i + 1], p3, static_cast<double>(k) / n));
        }
    }
    out.push_back(pts.back());
    return out;
}

std::vector<WorldPoint> degreesToWorld(const std::vector<WorldPoint>& deg) {
    std::vector<WorldPoint> out;
    out.reserve(deg.size());
    for (const auto& d : deg) {
        out.push_back({world::xOfLon(d.x), world::yOfLat(d.y)});
    }
    return out;
}

bool touchesPolyline(const Frame& f, const std::vector<WorldPoint>& pts, double marginPx) {
    double x0 = 1e300, y0 = 1e300, x1 = -1e300, y1 = -1e300;
    for (const auto& p : pts) {
        x0 = std::min(x0, p.x), y0 = std::min(y0, p.y);
        x1 = std::max(x1, p.x), y1 = std::max(y1, p.y);
    }
    return f.touches(x0, y0, x1, y1, marginPx);
}

// ---------------------------------------------------------------------------------------------
// Areas: forests and reservoirs at a coarse scale, parks and ponds in towns, named parks.

/// A closed blob inside a world cell, fixed by the cell's hash.
std::vector<WorldPoint> blob(double cell, std::int64_t i, std::int64_t j, std::uint64_t seed) {
    double cx =
        (static_cast<double>(i) + 0.3 + 0.4 * world::unit(world::hash(i, j, seed + 1))) * cell;
    double cy =
        (static_cast<double>(j) + 0.3 + 0.4 * world::unit(world::hash(i, j, seed + 2))) * cell;
    double r = cell * (0.14 + 0.16 * world::unit(world::hash(i, j, seed + 3)));
    std::vector<WorldPoint> ring;
    constexpr int kVertices = 9;
    for (int k = 0; k < kVertices; ++k) {
        double a = 2 * world::kPi * k / kVertices;
        double rr = r * (0.7 + 0.5 * world::unit(world::hash(i * 31 + k, j, seed + 4)));
        ring.push_back({cx + rr * std::cos(a), cy + rr * std::sin(a) * 0.8});
    }
    return ring;
}

void fillBlob(cairo_t* cr, const Frame& f, const std::vector<WorldPoint>& ring, RGB color,
              double alpha = 1) {
    // Closed Catmull-Rom through the ring's vertices.
    std::size_t n = ring.size();
    bool first = true;
    for (std::size_t i = 0; i < n; ++i) {
        for (int k = 0; k < 8; ++k) {
            WorldPoint p = world::catmullRom(ring[(i + n - 1) % n], ring[i], ring[(i + 1) % n],
                                             ring[(i + 2) % n], k / 8.0);
            Pt q = f.px(p);
            if (first) {
                cairo_move_to(cr, q.x, q.y);
                first = false;
            } else {
                cairo_line_to(cr, q.x, q.y);
            }
        }
    }
    cairo_close_path(cr);
    setColor(cr, color, alpha);
    cairo_fill(cr);
}

template <typename Fn>
void forEachCell(const Frame& f, double cell, Fn&& fn) {
    auto i0 = static_cast<std::int64_t>(std::floor(f.minX() / cell)) - 1;
    auto i1 = static_cast<std::int64_t>(std::floor(f.maxX() / cell)) + 1;
    auto j0 = static_cast<std::int64_t>(std::floor(f.minY() / cell)) - 1;
    auto j1 = static_cast<std::int64_t>(std::floor(f.maxY() / cell)) + 1;
    if ((i1 - i0) * (j1 - j0) > 200000) {
        return;  // far too fine for this view; the caller picked the wrong scale
    }
    for (std::int64_t j = j0; j <= j1; ++j) {
        for (std::int64_t i = i0; i <= i1; ++i) {
            fn(i, j);
        }
    }
}

void paintAreas(cairo_t* cr, const Style& s, const Frame& f) {
    const int z = f.level();
    RGB forest = s.pal.forest, park = s.pal.park, water = s.pal.water;
    if (s.kind == Kind::Satellite) {
        forest = park = rgb8(44, 74, 38);
        water = rgb8(26, 56, 70);
    }
    if (z >= 8) {
        constexpr double kCoarse = 22000;
        forEachCell(f, kCoarse, [&](std::int64_t i, std::int64_t j) {
            double u = world::unit(world::hash(i, j, 503));
            if (u >= 0.2) {
                return;
            }
            WorldPoint c{(static_cast<double>(i) + 0.5) * kCoarse,
                         (static_cast<double>(j) + 0.5) * kCoarse};
            if (landAt(f, c) < 0.15 || cityAt(c) > 0.3) {
                return;
            }
            bool lake = u >= 0.14;
            if (lake || s.kind != Kind::Political) {
                fillBlob(cr, f, blob(kCoarse, i, j, 509), lake ? water : forest);
            }
        });
    }
    if (z >= 11) {
        constexpr double kFine = 1500;
        forEachCell(f, kFine, [&](std::int64_t i, std::int64_t j) {
            double u = world::unit(world::hash(i, j, 521));
            if (u >= 0.1) {
                return;
            }
            WorldPoint c{(static_cast<double>(i) + 0.5) * kFine,
                         (static_cast<double>(j) + 0.5) * kFine};
            if (landAt(f, c) < 0.05) {
                return;
            }
            bool pond = u >= 0.065;
            if (pond || s.kind != Kind::Political) {
                fillBlob(cr, f, blob(kFine, i, j, 523), pond ? water : park);
            }
        });
        // Two well-known parks of Bangkok, as rectangles.
        struct NamedPark {
            double lon0, lat0, lon1, lat1;
        };
        static const NamedPark parks[] = {{100.5365, 13.7275, 100.5448, 13.7328},
                                          {100.5490, 13.8030, 100.5565, 13.8120}};
        if (s.kind != Kind::Political) {
            for (const auto& p : parks) {
                Pt a = f.px(world::xOfLon(p.lon0), world::yOfLat(p.lat1));
                Pt b = f.px(world::xOfLon(p.lon1), world::yOfLat(p.lat0));
                cairo_rectangle(cr, a.x, a.y, b.x - a.x, b.y - a.y);
                setColor(cr, park);
                cairo_fill(cr);
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Rivers and canals.

void paintWaterways(cairo_t* cr, const Style& s, const Frame& f) {
    const int z = f.level();
    RGB water = s.kind == Kind::Satellite ? rgb8(26, 56, 70)
                : s.kind == Kind::Terrain ? rgb8(12, 34, 86)
                                          : s.pal.water;
    double boost = s.kind == Kind::Hydro ? 1.5 : 1.0;
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    // Rivers of the wider world: north-south courses through jittered points one degree
    // apart, one per chosen column of the grid (none near Bangkok: its river is drawn below).
    if (z >= 6) {
        double width = std::clamp(70 / f.mpp(), 1.0, 8.0) * boost;
        double lon0 = world::lonOfX(f.minX()), lon1 = world::lonOfX(f.maxX());
        double lat0 = world::latOfY(f.minY()), lat1 = world::latOfY(f.maxY());
        for (auto i = static_cast<std::int64_t>(std::floor(lon0)) - 1;
             i <= static_cast<std::int64_t>(std::floor(lon1)) + 1; ++i) {
            if (world::unit(world::hash(i, 0, 601)) > 0.4 || (i >= 99 && i <= 101)) {
                continue;
            }
            std::vector<WorldPoint> deg;
            for (auto j = static_cast<std::int64_t>(std::floor(lat0)) - 2;
                 j <= static_cast<std::int64_t>(std::floor(lat1)) + 3; ++j) {
                double u = world::unit(world::hash(i, j, 607));
                deg.push_back({static_cast<double>(i) + 0.15 + 0.7 * u, static_cast<double>(j)});
            }
            // Finer meanders between the one-degree points.
            std::vector<WorldPoint> fine;
            for (std::size_t k = 0; k + 1 < deg.size(); ++k) {
                for (int m = 0; m < 6; ++m) {
                    double t = m / 6.0;
                    double lat = deg[k].y + t;
                    double lon = deg[k].x + (deg[k + 1].x - deg[k].x) * (3 - 2 * t) * t * t +
                                 0.04 * std::sin(lat * 23.0 + static_cast<double>(i));
                    fine.push_back({lon, lat});
                }
            }
            auto curve = smoothCurve(f, degreesToWorld(fine));
            for (const auto& run : landRuns(f, curve)) {
                strokePath(cr, run, width, water);
            }
        }
    }
    // The river through Bangkok and its canals.
    static const std::vector<WorldPoint> river = degreesToWorld(world::chaoPhrayaDegrees());
    if (z >= 5 && touchesPolyline(f, river, 40)) {
        double width = std::clamp(260 / f.mpp(), 2.0, 400.0) * (z < 12 ? boost : 1.0);
        strokePath(
            cr,
            [&] {
                Path p;
                for (const auto& w : smoothCurve(f, river)) {
                    p.push_back(f.px(w));
                }
                return p;
            }(),
            width, water);
    }
    if (z >= 12 || (s.kind == Kind::Hydro && z >= 10)) {
        double width = std::clamp(28 / f.mpp(), 1.0, 40.0) * boost;
        for (const auto& canalDeg : world::canalsDegrees()) {
            auto canal = degreesToWorld(canalDeg);
            if (!touchesPolyline(f, canal, 20)) {
                continue;
            }
            Path p;
            for (const auto& w : smoothCurve(f, canal)) {
                p.push_back(f.px(w));
            }
            strokePath(cr, p, width, water);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Roads: for each class a grid of jittered nodes; an edge between neighbouring nodes exists by
// a hash weighed by how urban the place is. Chains of edges are Catmull-Rom curves, so a road
// runs smoothly through its nodes and meets its crossing roads exactly there.

struct RoadLevel {
    double spacing;  // metres
    int minZoom;
    RoadClass cls;
    double cityProbability, ruralProbability;
    std::uint64_t seed;
};

constexpr RoadLevel kRoadLevels[] = {
    {40000, 5, kMotorway, 1.0, 0.55, 701},  {10000, 8, kPrimary, 1.0, 0.8, 711},
    {2500, 10, kSecondary, 1.0, 0.35, 721}, {625, 13, kStreet, 0.95, 0.08, 731},
    {156.25, 14, kMinor, 0.9, 0.0, 741},
};

double roadWidth(RoadClass cls, double zoom) {
    static constexpr double kAt12[] = {1.0, 2.4, 3.4, 4.2, 5.0};
    static constexpr double kMax[] = {11, 15, 19, 22, 26};
    return std::clamp(kAt12[cls] * std::pow(1.33, zoom - 12), 0.7, kMax[cls]);
}

struct RoadPiece {
    RoadClass cls;
    std::uint64_t id;
    Path path;
    // Per point: which stretch of its road the point belongs to, fixed in the world so that
    // traffic colours change at the same place in every tile.
    std::vector<int> stretch;
};

bool edgeExists(const RoadLevel& level, int zoom, std::int64_t i, std::int64_t j, int dir,
                const WorldPoint& mid) {
    double u = world::unit(world::hash(i * 2 + dir, j, level.seed + 7));
    if (u >= std::max(level.cityProbability, level.ruralProbability)) {
        return false;
    }
    double c = cityAt(mid);
    double p = level.ruralProbability + (level.cityProbability - level.ruralProbability) * c;
    // Far out, only the trunk of the network (whole chains of it): a zoom-7 view is not a
    // grid of motorways.
    if (zoom < level.minZoom + 3 &&
        world::unit(world::hash(dir == 0 ? j : i, dir, level.seed + 17)) > 0.45 + 0.55 * c) {
        return false;
    }
    return u < p;
}

void collectRoads(const Frame& f, int minZoomShift, std::vector<RoadPiece>& out) {
    const int z = f.level();
    for (const auto& level : kRoadLevels) {
        if (z < level.minZoom + minZoomShift) {
            continue;
        }
        double margin = 2 * level.spacing + 30 * f.mpp();
        auto i0 = static_cast<std::int64_t>(std::floor((f.minX() - margin) / level.spacing));
        auto i1 = static_cast<std::int64_t>(std::floor((f.maxX() + margin) / level.spacing));
        auto j0 = static_cast<std::int64_t>(std::floor((f.minY() - margin) / level.spacing));
        auto j1 = static_cast<std::int64_t>(std::floor((f.maxY() + margin) / level.spacing));
        if ((i1 - i0) * (j1 - j0) > 40000) {
            continue;
        }
        auto node = [&](std::int64_t i, std::int64_t j) {
            return world::gridNode(level.spacing, level.seed, i, j);
        };
        for (std::int64_t j = j0; j <= j1; ++j) {
            for (std::int64_t i = i0; i <= i1; ++i) {
                for (int dir = 0; dir < 2; ++dir) {
                    std::int64_t di = dir == 0 ? 1 : 0, dj = dir == 0 ? 0 : 1;
                    WorldPoint p0 = node(i - di, j - dj), p1 = node(i, j);
                    WorldPoint p2 = node(i + di, j + dj), p3 = node(i + 2 * di, j + 2 * dj);
                    double x0 = std::min(p1.x, p2.x), x1 = std::max(p1.x, p2.x);
                    double y0 = std::min(p1.y, p2.y), y1 = std::max(p1.y, p2.y);
                    if (!f.touches(x0, y0, x1, y1, 30 + level.spacing * 0.2 / f.mpp())) {
                        continue;
                    }
                    WorldPoint mid = world::catmullRom(p0, p1, p2, p3, 0.5);
                    if (!edgeExists(level, z, i, j, dir, mid)) {
                        continue;
                    }
                    double len = std::hypot(p2.x - p1.x, p2.y - p1.y) / f.mpp();
                    int n = std::clamp(static_cast<int>(len / 5), 1, 48);
                    std::vector<WorldPoint> pts;
                    for (int k = 0; k <= n; ++k) {
                        pts.push_back(
                            world::catmullRom(p0, p1, p2, p3, static_cast<double>(k) / n));
                    }
                    auto id = world::hash(i * 2 + dir, j, level.seed + 13);
                    bool allLand = landAt(f, p1) > 0 && landAt(f, p2) > 0 && landAt(f, mid) > 0;
                    auto ranges =
                        allLand
                            ? std::vector<std::pair<std::size_t, std::size_t>>{{0, pts.size() - 1}}
                            : landRanges(f, pts);
                    for (auto [a, b] : ranges) {
                        RoadPiece piece{level.cls, id, {}, {}};
                        for (std::size_t k = a; k <= b; ++k) {
                            piece.path.push_back(f.px(pts[k]));
                            piece.stretch.push_back(
                                static_cast<int>(std::min<std::size_t>(2, k * 3 / pts.size())));
                        }
                        out.push_back(std::move(piece));
                    }
                }
            }
        }
    }
    // Bangkok's two ring roads.
    WorldPoint centre{world::xOfLon(100.545), world::yOfLat(13.765)};
    struct Ring {
        double rx, ry;
        RoadClass cls;
        int minZoom;
    };
    for (const Ring& ring : {Ring{7500, 8500, kPrimary, 9}, Ring{23000, 25000, kMotorway, 7}}) {
        if (z < ring.minZoom + minZoomShift ||
            !f.touches(centre.x - ring.rx, centre.y - ring.ry, centre.x + ring.rx,
                       centre.y + ring.ry, 30)) {
            continue;
        }
        double circumference = 2 * world::kPi * std::max(ring.rx, ring.ry) / f.mpp();
        int n = std::clamp(static_cast<int>(circumference / 5), 48, 20000);
        std::vector<WorldPoint> pts;
        for (int k = 0; k <= n; ++k) {
            double a = 2 * world::kPi * k / n;
            double wobble = 1 + 0.06 * std::sin(3 * a + 0.7);
            pts.push_back({centre.x + ring.rx * wobble * std::cos(a),
                           centre.y + ring.ry * wobble * std::sin(a)});
        }
        // Only the part near the frame, so huge rings at deep zooms stay cheap.
        RoadPiece current{ring.cls, static_cast<std::uint64_t>(ring.rx), {}, {}};
        auto flush = [&] {
            if (current.path.size() > 1) {
                out.push_back(current);
            }
            current.path.clear();
            current.stretch.clear();
        };
        for (std::size_t k = 0; k < pts.size(); ++k) {
            Pt p = f.px(pts[k]);
            bool near = p.x > -200 && p.y > -200 && p.x < f.width() + 200 && p.y < f.height() + 200;
            if (near) {
                current.path.push_back(p);
                current.stretch.push_back(static_cast<int>(k * 40 / pts.size()));
            } else {
                flush();
            }
        }
        flush();
    }
}

/// Draws the roads of classes [first, last]: the small ones go under the rivers, the big ones
/// cross them on bridges.
void paintRoads(cairo_t* cr, const Style& s, const Frame& f, const std::vector<RoadPiece>& roads,
                int first, int last) {
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    const double zoom = f.level();
    if (s.kind == Kind::Satellite) {
        for (int cls = first; cls <= last; ++cls) {
            for (const auto& r : roads) {
                if (r.cls == cls && (cls >= kSecondary || zoom >= 15)) {
                    strokePath(cr, r.path, roadWidth(r.cls, zoom) * 0.6, rgb8(214, 208, 196), 0.75);
                }
            }
        }
        return;
    }
    const bool casings = zoom >= 11 && s.kind != Kind::Hydro;
    if (casings) {
        for (int cls = first; cls <= last; ++cls) {
            for (const auto& r : roads) {
                if (r.cls == cls) {
                    double w = roadWidth(r.cls, zoom);
                    strokePath(cr, r.path, w + 2 * std::max(0.6, w * 0.14), s.pal.casing[cls]);
                }
            }
        }
    }
    for (int cls = first; cls <= last; ++cls) {
        for (const auto& r : roads) {
            if (r.cls == cls) {
                double w = roadWidth(r.cls, zoom);
                if (s.kind == Kind::Hydro) {
                    w *= 0.5;
                }
                // Below the casing zooms minor classes are drawn in their casing colour so
                // white roads stay visible on the pale land.
                RGB c = casings || cls >= kSecondary ? s.pal.road[cls] : s.pal.casing[cls];
                strokePath(cr, r.path, w, c);
            }
        }
    }
}

void paintTraffic(cairo_t* cr, const Frame& f, const std::vector<RoadPiece>& roads) {
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_BUTT);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    static const RGB kFlow[] = {rgb8(52, 178, 74), rgb8(247, 148, 30), rgb8(222, 40, 40)};
    for (int cls = kMinor; cls < kRoadClasses; ++cls) {
        for (const auto& r : roads) {
            if (r.cls != cls || r.path.size() < 2) {
                continue;
            }
            double w = std::max(2.0, roadWidth(r.cls, f.level()) * 0.8);
            // A road changes speed along its length: each stretch has a flow of its own.
            std::size_t a = 0;
            while (a + 1 < r.path.size()) {
                std::size_t b = a + 1;
                while (b + 1 < r.path.size() && r.stretch[b] == r.stretch[a]) {
                    ++b;
                }
                double u =
                    world::unit(world::hash(static_cast<std::int64_t>(r.id), r.stretch[a], 801));
                RGB c = u < 0.6 ? kFlow[0] : u < 0.85 ? kFlow[1] : kFlow[2];
                Path piece(r.path.begin() + static_cast<std::ptrdiff_t>(a),
                           r.path.begin() + static_cast<std::ptrdiff_t>(b) + 1);
                strokePath(cr, piece, w, c, 0.9);
                a = b;
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Buildings in towns at street level.

void paintBuildings(cairo_t* cr, const Style& s, const Frame& f) {
    if (f.level() < 16 || s.kind == Kind::Hydro || s.kind == Kind::Political) {
        return;
    }
    constexpr double kLot = 42;
    forEachCell(f, kLot, [&](std::int64_t i, std::int64_t j) {
        WorldPoint c{(static_cast<double>(i) + 0.5) * kLot, (static_cast<double>(j) + 0.5) * kLot};
        double u = world::unit(world::hash(i, j, 901));
        if (u > 0.7 * cityAt(c)) {
            return;
        }
        double w = kLot * (0.35 + 0.4 * world::unit(world::hash(i, j, 903)));
        double h = kLot * (0.35 + 0.4 * world::unit(world::hash(i, j, 905)));
        Pt a = f.px(c.x - w / 2, c.y + h / 2);
        Pt b = f.px(c.x + w / 2, c.y - h / 2);
        cairo_rectangle(cr, a.x, a.y, b.x - a.x, b.y - a.y);
        if (s.kind == Kind::Satellite) {
            setColor(cr, rgb8(170, 160, 150));
            cairo_fill(cr);
            return;
        }
        setColor(cr, s.pal.building);
        cairo_fill_preserve(cr);
        cairo_set_line_width(cr, 1);
        setColor(cr, s.pal.buildingEdge);
        cairo_stroke(cr);
    });
}

// ---------------------------------------------------------------------------------------------
// Borders of provinces and countries (political styles).

void paintBorders(cairo_t* cr, const Style& s, const Frame& f) {
    struct BorderLevel {
        double spacing;
        int minZoom;
        double width;
        bool dashed;
        std::uint64_t seed;
    };
    for (const BorderLevel& b :
         {BorderLevel{130000, 5, 1.2, true, 1001}, BorderLevel{900000, 1, 2.2, false, 1011}}) {
        if (f.level() < b.minZoom) {
            continue;
        }
        double margin = 2 * b.spacing;
        auto i0 = static_cast<std::int64_t>(std::floor((f.minX() - margin) / b.spacing));
        auto i1 = static_cast<std::int64_t>(std::floor((f.maxX() + margin) / b.spacing));
        auto j0 = static_cast<std::int64_t>(std::floor((f.minY() - margin) / b.spacing));
        auto j1 = static_cast<std::int64_t>(std::floor((f.maxY() + margin) / b.spacing));
        if ((i1 - i0) * (j1 - j0) > 20000) {
            continue;
        }
        if (b.dashed) {
            double dash[] = {5, 3};
            cairo_set_dash(cr, dash, 2, 0);
        }
        for (std::int64_t j = j0; j <= j1; ++j) {
            for (std::int64_t i = i0; i <= i1; ++i) {
                for (int dir = 0; dir < 2; ++dir) {
                    std::int64_t di = dir == 0 ? 1 : 0, dj = dir == 0 ? 0 : 1;
                    auto node = [&](std::int64_t a, std::int64_t c) {
                        return world::gridNode(b.spacing, b.seed, a, c);
                    };
                    WorldPoint p0 = node(i - di, j - dj), p1 = node(i, j);
                    WorldPoint p2 = node(i + di, j + dj), p3 = node(i + 2 * di, j + 2 * dj);
                    if (!f.touches(std::min(p1.x, p2.x), std::min(p1.y, p2.y), std::max(p1.x, p2.x),
                                   std::max(p1.y, p2.y), 10 + b.spacing * 0.2 / f.mpp())) {
                        continue;
                    }
                    double len = std::hypot(p2.x - p1.x, p2.y - p1.y) / f.mpp();
                    int n = std::clamp(static_cast<int>(len / 4), 2, 200);
                    std::vector<WorldPoint> pts;
                    for (int k = 0; k <= n; ++k) {
                        WorldPoint p =
                            world::catmullRom(p0, p1, p2, p3, static_cast<double>(k) / n);
                        // Borders follow no straight line.
                        double t = static_cast<double>(k) / n;
                        double wig = std::sin(t * world::kPi * 5 + static_cast<double>(i + j)) *
                                     b.spacing * 0.02;
                        p.x += dir == 1 ? wig : 0;
                        p.y += dir == 0 ? wig : 0;
                        pts.push_back(p);
                    }
                    for (const auto& run : landRuns(f, pts)) {
                        strokePath(cr, run, b.width, s.pal.border, b.dashed ? 0.8 : 0.9);
                    }
                }
            }
        }
        cairo_set_dash(cr, nullptr, 0, 0);
    }
}

// ---------------------------------------------------------------------------------------------
// Text.

struct Place {
    const char* thai;
    const char* english;
    double lon, lat;
    int minZoom, maxZoom;
    enum Type { City, Province, District, Landmark, River } type;
};

const std::vector<Place>& places() {
    static const std::vector<Place> list = {
        {"กรุงเทพมหานคร", "Bangkok", 100.5018, 13.7563, 5, 11, Place::City},
        {"นนทบุรี", "Nonthaburi", 100.5144, 13.8621, 9, 13, Place::Province},
        {"สมุทรปราการ", "Samut Prakan", 100.6098, 13.5991, 9, 13, Place::Province},
        {"ปทุมธานี", "Pathum Thani", 100.5250, 14.0208, 9, 13, Place::Province},
        {"พระนครศรีอยุธยา", "Phra Nakhon Si Ayutthaya", 100.5877, 14.3532, 7, 12, Place::Province},
        {"นครปฐม", "Nakhon Pathom", 100.0600, 13.8200, 8, 12, Place::Province},
        {"ฉะเชิงเทรา", "Chachoengsao", 101.0700, 13.6900, 8, 12, Place::Province},
        {"ชลบุรี", "Chon Buri", 100.9900, 13.3600, 8, 12, Place::Province},
        {"สมุทรสาคร", "Samut Sakhon", 100.2740, 13.5470, 9, 13, Place::Province},
        {"ประเทศไทย", "Thailand", 101.0000, 15.8000, 3, 6, Place::City},
        {"อ่าวไทย", "Gulf of Thailand", 101.2000, 11.2000, 5, 8, Place::River},
        {"สยาม", "Siam", 100.5340, 13.7456, 12, 16, Place::District},
        {"สีลม", "Silom", 100.5290, 13.7262, 12, 16, Place::District},
        {"สาทร", "Sathon", 100.5330, 13.7110, 13, 16, Place::District},
        {"ดุสิต", "Dusit", 100.5130, 13.7770, 12, 16, Place::District},
        {"ธนบุรี", "Thon Buri", 100.4860, 13.7250, 12, 16, Place::District},
        {"จตุจักร", "Chatuchak", 100.5600, 13.8150, 12, 16, Place::District},
        {"สุขุมวิท", "Sukhumvit", 100.5650, 13.7370, 12, 16, Place::District},
        {"พระนคร", "Phra Nakhon", 100.4990, 13.7600, 12, 16, Place::District},
        {"ห้วยขวาง", "Huai Khwang", 100.5750, 13.7760, 12, 16, Place::District},
        {"บางกะปิ", "Bang Kapi", 100.6450, 13.7660, 12, 16, Place::District},
        {"ลาดพร้าว", "Lat Phrao", 100.6080, 13.8160, 12, 16, Place::District},
        {"บางนา", "Bang Na", 100.6050, 13.6680, 12, 16, Place::District},
        {"ดอนเมือง", "Don Mueang", 100.6010, 13.9130, 11, 16, Place::District},
        {"สุวรรณภูมิ", "Suvarnabhumi", 100.7501, 13.6900, 11, 16, Place::District},
        {"เยาวราช", "Yaowarat", 100.5080, 13.7400, 14, 18, Place::Landmark},
        {"พระโขนง", "Phra Khanong", 100.5930, 13.7050, 12, 16, Place::District},
        {"จอมทอง", "Chom Thong", 100.4700, 13.6800, 12, 16, Place::District},
        {"สวนลุมพินี", "Lumphini Park", 100.5406, 13.7301, 14, 20, Place::Landmark},
        {"สวนจตุจักร", "Chatuchak Park", 100.5527, 13.8075, 14, 20, Place::Landmark},
        {"พระบรมมหาราชวัง", "Grand Palace", 100.4913, 13.7500, 14, 20, Place::Landmark},
        {"แม่น้ำเจ้าพระยา", "Chao Phraya River", 100.5080, 13.7880, 11, 17, Place::River},
        {"แม่น้ำเจ้าพระยา", "Chao Phraya River", 100.5400, 13.6560, 12, 17, Place::River},
    };
    return list;
}

void drawText(cairo_t* cr, const std::string& text, double cx, double cy, double sizePx, bool bold,
              bool italic, RGB color, RGB halo) {
    PangoLayout* layout = pango_cairo_create_layout(cr);
    PangoFontDescription* desc = pango_font_description_new();
    pango_font_description_set_family(desc, "DejaVu Sans,Loma,Sans");
    pango_font_description_set_weight(desc, bold ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
    pango_font_description_set_style(desc, italic ? PANGO_STYLE_ITALIC : PANGO_STYLE_NORMAL);
    pango_font_description_set_absolute_size(desc, sizePx * PANGO_SCALE);
    pango_layout_set_font_description(layout, desc);
    pango_font_description_free(desc);
    pango_layout_set_text(layout, text.c_str(), -1);
    int w = 0, h = 0;
    pango_layout_get_pixel_size(layout, &w, &h);
    cairo_move_to(cr, std::round(cx - w / 2.0), std::round(cy - h / 2.0));
    pango_cairo_layout_path(cr, layout);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_set_line_width(cr, 3);
    setColor(cr, halo, 0.85);
    cairo_stroke_preserve(cr);
    setColor(cr, color);
    cairo_fill(cr);
    g_object_unref(layout);
}

void paintLabels(cairo_t* cr, const Style& s, const Frame& f) {
    const int z = f.level();
    for (const Place& p : places()) {
        if (z < p.minZoom || z > p.maxZoom) {
            continue;
        }
        if (s.kind == Kind::Hydro && p.type != Place::River) {
            continue;
        }
        if (s.kind == Kind::Political && p.type != Place::City && p.type != Place::Province) {
            continue;
        }
        Pt at = f.px(world::xOfLon(p.lon), world::yOfLat(p.lat));
        if (at.x < -400 || at.y < -60 || at.x > f.width() + 400 || at.y > f.height() + 60) {
            continue;
        }
        const std::string text = s.english ? p.english : p.thai;
        switch (p.type) {
            case Place::City:
                drawText(cr, text, at.x, at.y, 16, true, false, s.pal.label, s.pal.halo);
                break;
            case Place::Province:
                drawText(cr, text, at.x, at.y, 12.5, true, false, s.pal.label, s.pal.halo);
                break;
            case Place::District:
                drawText(cr, text, at.x, at.y, 11.5, false, false, s.pal.districtLabel, s.pal.halo);
                break;
            case Place::Landmark:
                drawText(cr, text, at.x, at.y, 11, false, false, s.pal.label, s.pal.halo);
                break;
            case Place::River:
                drawText(cr, text, at.x, at.y, 11.5, false, true, s.pal.waterLabel,
                         s.kind == Kind::Satellite ? rgb8(20, 40, 50) : s.pal.halo);
                break;
        }
    }
}

void paintStamp(cairo_t* cr, const std::string& stamp) {
    PangoLayout* layout = pango_cairo_create_layout(cr);
    PangoFontDescription* desc = pango_font_description_from_string("DejaVu Sans Mono");
    pango_font_description_set_absolute_size(desc, 9 * PANGO_SCALE);
    pango_layout_set_font_description(layout, desc);
    pango_font_description_free(desc);
    pango_layout_set_text(layout, stamp.c_str(), -1);
    int w = 0, h = 0;
    pango_layout_get_pixel_size(layout, &w, &h);
    // Inset from the top and left edges so the shared edges of neighbouring tiles stay clean.
    cairo_rectangle(cr, 4, 4, w + 6, h + 2);
    cairo_set_source_rgba(cr, 1, 1, 1, 0.7);
    cairo_fill(cr);
    cairo_move_to(cr, 7, 5);
    cairo_set_source_rgba(cr, 0.15, 0.15, 0.15, 1);
    pango_cairo_show_layout(cr, layout);
    g_object_unref(layout);
}

// ---------------------------------------------------------------------------------------------
// Points of interest (icon styles).

enum class Poi { Hospital, Fuel, Restaurant, Temple, Bank, Hotel, School, Shop, kCount };

void drawPoi(cairo_t* cr, Poi kind, double x, double y, double r) {
    static const RGB kColours[] = {rgb8(214, 50, 48),  rgb8(232, 120, 24), rgb8(226, 150, 40),
                                   rgb8(196, 150, 30), rgb8(40, 140, 90),  rgb8(40, 100, 190),
                                   rgb8(140, 90, 60),  rgb8(150, 70, 170)};
    // Shadow, white rim, coloured disc.
    cairo_arc(cr, x + 0.6, y + 1.0, r + 1.5, 0, 2 * world::kPi);
    cairo_set_source_rgba(cr, 0, 0, 0, 0.25);
    cairo_fill(cr);
    cairo_arc(cr, x, y, r + 1.4, 0, 2 * world::kPi);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_fill(cr);
    cairo_arc(cr, x, y, r, 0, 2 * world::kPi);
    setColor(cr, kColours[static_cast<int>(kind)]);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 1, 1, 1);
    double u = r / 7;
    switch (kind) {
        case Poi::Hospital:
            cairo_rectangle(cr, x - 1.2 * u, y - 4 * u, 2.4 * u, 8 * u);
            cairo_rectangle(cr, x - 4 * u, y - 1.2 * u, 8 * u, 2.4 * u);
            cairo_fill(cr);
            break;
        case Poi::Fuel:
            cairo_rectangle(cr, x - 3 * u, y - 3.5 * u, 4 * u, 7 * u);
            cairo_fill(cr);
            cairo_set_line_width(cr, 1.1 * u);
            cairo_move_to(cr, x + 1 * u, y - 2 * u);
            cairo_line_to(cr, x + 3 * u, y - 0.5 * u);
            cairo_line_to(cr, x + 3 * u, y + 2.5 * u);
            cairo_stroke(cr);
            break;
        case Poi::Restaurant:
            cairo_set_line_width(cr, 1.1 * u);
            cairo_move_to(cr, x - 2 * u, y - 4 * u);
            cairo_line_to(cr, x - 2 * u, y + 4 * u);
            cairo_move_to(cr, x - 3.3 * u, y - 4 * u);
            cairo_line_to(cr, x - 3.3 * u, y - 1 * u);
            cairo_line_to(cr, x - 0.7 * u, y - 1 * u);
            cairo_line_to(cr, x - 0.7 * u, y - 4 * u);
            cairo_move_to(cr, x + 2.2 * u, y - 4 * u);
            cairo_line_to(cr, x + 2.2 * u, y + 4 * u);
            cairo_stroke(cr);
            cairo_arc(cr, x + 2.6 * u, y - 1.8 * u, 1.3 * u, 0, 2 * world::kPi);
            cairo_fill(cr);
            break;
        case Poi::Temple:
            // A stepped roof under a spire.
            cairo_move_to(cr, x, y - 4.6 * u);
            cairo_line_to(cr, x + 3.8 * u, y + 0.6 * u);
            cairo_line_to(cr, x - 3.8 * u, y + 0.6 * u);
            cairo_close_path(cr);
            cairo_fill(cr);
            cairo_rectangle(cr, x - 2.8 * u, y + 1.2 * u, 5.6 * u, 3 * u);
            cairo_fill(cr);
            break;
        case Poi::Bank: {
            PangoLayout* layout = pango_cairo_create_layout(cr);
            PangoFontDescription* desc = pango_font_description_from_string("Loma Bold");
            pango_font_description_set_absolute_size(desc, 9.5 * u * PANGO_SCALE);
            pango_layout_set_font_description(layout, desc);
            pango_font_description_free(desc);
            pango_layout_set_text(layout, "฿", -1);
            int w = 0, h = 0;
            pango_layout_get_pixel_size(layout, &w, &h);
            cairo_move_to(cr, x - w / 2.0, y - h / 2.0);
            pango_cairo_show_layout(cr, layout);
            g_object_unref(layout);
            break;
        }
        case Poi::Hotel:
            cairo_rectangle(cr, x - 4 * u, y - 0.5 * u, 8 * u, 2.6 * u);
            cairo_rectangle(cr, x - 4 * u, y - 3.5 * u, 1.3 * u, 7 * u);
            cairo_fill(cr);
            cairo_arc(cr, x - 1.3 * u, y - 2 * u, 1.2 * u, 0, 2 * world::kPi);
            cairo_fill(cr);
            break;
        case Poi::School:
            cairo_move_to(cr, x - 4 * u, y - 1 * u);
            cairo_line_to(cr, x, y - 3.5 * u);
            cairo_line_to(cr, x + 4 * u, y - 1 * u);
            cairo_line_to(cr, x, y + 1.5 * u);
            cairo_close_path(cr);
            cairo_fill(cr);
            cairo_rectangle(cr, x - 2.3 * u, y + 0.3 * u, 4.6 * u, 2.6 * u);
            cairo_fill(cr);
            break;
        case Poi::Shop:
            cairo_rectangle(cr, x - 3 * u, y - 1.5 * u, 6 * u, 5 * u);
            cairo_fill(cr);
            cairo_set_line_width(cr, 1 * u);
            cairo_arc(cr, x, y - 1.5 * u, 1.8 * u, world::kPi, 2 * world::kPi);
            cairo_stroke(cr);
            break;
        case Poi::kCount:
            break;
    }
}

void paintPois(cairo_t* cr, const Style& s, const Frame& f) {
    const int z = f.level();
    if (z < 10) {
        return;
    }
    double cell = z >= 16 ? 220 : z >= 15 ? 440 : z >= 13 ? 900 : 3600;
    double r = z >= 15 ? 8 : z >= 13 ? 7 : 6;
    double opacity = s.labels ? 1.0 : 0.92;
    forEachCell(f, cell, [&](std::int64_t i, std::int64_t j) {
        double u = world::unit(world::hash(i, j, 1101));
        WorldPoint p{
            (static_cast<double>(i) + 0.15 + 0.7 * world::unit(world::hash(i, j, 1103))) * cell,
            (static_cast<double>(j) + 0.15 + 0.7 * world::unit(world::hash(i, j, 1105))) * cell};
        double c = cityAt(p);
        if (u > 0.03 + 0.5 * c || landAt(f, p) <= 0) {
            return;
        }
        auto kind = static_cast<Poi>(world::hash(i, j, 1107) % static_cast<int>(Poi::kCount));
        if (z < 13 && kind != Poi::Hospital && kind != Poi::Temple) {
            return;
        }
        Pt at = f.px(p);
        cairo_push_group(cr);
        drawPoi(cr, kind, std::round(at.x) + 0.5, std::round(at.y) + 0.5, r);
        cairo_pop_group_to_source(cr);
        cairo_paint_with_alpha(cr, opacity);
    });
}

}  // namespace

// ---------------------------------------------------------------------------------------------

MapBox tileBox(int z, std::int64_t x, std::int64_t y) {
    double n = std::exp2(z);
    double size = 2 * world::kHalfWorld / n;
    MapBox box;
    box.minX = -world::kHalfWorld + static_cast<double>(x) * size;
    box.maxX = box.minX + size;
    box.maxY = world::kHalfWorld - static_cast<double>(y) * size;
    box.minY = box.maxY - size;
    return box;
}

std::shared_ptr<gfx::Image> paintMap(const std::string& styleName, const MapBox& box, int width,
                                     int height, const std::string& stamp) {
    if (width <= 0 || height <= 0 || width > 8192 || height > 8192 || !(box.maxX > box.minX) ||
        !(box.maxY > box.minY)) {
        return nullptr;
    }
    const Style style = parseStyle(styleName);
    const Frame frame(box, width, height);
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(width) * height, 0);
    const bool transparent = style.kind == Kind::Icons || style.kind == Kind::Traffic;
    if (!transparent) {
        paintGround(style, frame, pixels);
    }
    {
        SurfacePtr surface(
            cairo_image_surface_create_for_data(reinterpret_cast<unsigned char*>(pixels.data()),
                                                CAIRO_FORMAT_ARGB32, width, height, width * 4));
        ContextPtr cr(cairo_create(surface.get()));
        if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS) {
            return nullptr;
        }
        cairo_t* c = cr.get();
        switch (style.kind) {
            case Kind::Icons:
                paintPois(c, style, frame);
                if (style.labels) {
                    paintLabels(c, style, frame);
                }
                break;
            case Kind::Traffic:
                if (frame.level() >= 7) {
                    std::vector<RoadPiece> roads;
                    collectRoads(frame, 2, roads);
                    paintTraffic(c, frame, roads);
                }
                break;
            case Kind::Terrain:
                paintWaterways(c, style, frame);
                break;
            case Kind::Neutral:
                break;
            default: {
                paintAreas(c, style, frame);
                paintBuildings(c, style, frame);
                std::vector<RoadPiece> roads;
                if (style.roads || style.kind == Kind::Hydro) {
                    collectRoads(frame, style.kind == Kind::Hydro ? 3 : 0, roads);
                }
                paintRoads(c, style, frame, roads, kMinor, kStreet);
                paintWaterways(c, style, frame);
                paintRoads(c, style, frame, roads, kSecondary, kMotorway);
                if (style.kind == Kind::Political) {
                    paintBorders(c, style, frame);
                }
                if (style.labels) {
                    paintLabels(c, style, frame);
                }
                break;
            }
        }
        if (!stamp.empty()) {
            paintStamp(c, stamp);
        }
        cairo_surface_flush(surface.get());
    }
    return gfx::Image::fromPixels(width, height, std::move(pixels));
}

std::shared_ptr<gfx::Image> paintTile(const std::string& style, int z, std::int64_t x,
                                      std::int64_t y, bool stamped) {
    if (!stamped) {
        return paintMap(style, tileBox(z, x, y), 256, 256);
    }
    char stamp[96];
    std::snprintf(stamp, sizeof stamp, " %d/%lld/%lld", z, static_cast<long long>(x),
                  static_cast<long long>(y));
    return paintMap(style, tileBox(z, x, y), 256, 256,
                    (style.empty() ? std::string("(none)") : style) + stamp);
}

gfx::PNGOptions tilePNGOptions() {
    return gfx::PNGOptions::fast();
}

}  // namespace sorvan::server

#include "tile_world.hpp"

#include <algorithm>
#include <cmath>
#include <initializer_list>

namespace sorvan::server::world {

double lonOfX(double mx) {
    return mx / kHalfWorld * 180.0;
}

double latOfY(double my) {
    return std::atan(std::sinh(my / kEarthRadius)) * 180.0 / kPi;
}

double xOfLon(double lon) {
    return lon / 180.0 * kHalfWorld;
}

double yOfLat(double lat) {
    lat = std::clamp(lat, -85.05112878, 85.05112878);
    return std::log(std::tan((90.0 + lat) * kPi / 360.0)) * kEarthRadius;
}

namespace {

std::uint64_t mix(std::uint64_t z) {
    z += 0x9e3779b97f4a7c15ull;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

double smooth(double t) {
    return t * t * (3 - 2 * t);
}

double smoothstep(double e0, double e1, double x) {
    double t = std::clamp((x - e0) / (e1 - e0), 0.0, 1.0);
    return smooth(t);
}

// Weight 1 inside the box, 0 outside, with a soft band of `soft` degrees around the edge.
double boxWeight(double lon, double lat, double x0, double y0, double x1, double y1, double soft) {
    double dx = std::max(x0 - lon, lon - x1);
    double dy = std::max(y0 - lat, lat - y1);
    double outside = std::hypot(std::max(dx, 0.0), std::max(dy, 0.0));
    double sd = outside + std::min(std::max(dx, dy), 0.0);
    return smoothstep(soft, -soft, sd);
}

double ellipseWeight(double lon, double lat, double cx, double cy, double rx, double ry,
                     double soft) {
    double n = std::hypot((lon - cx) / rx, (lat - cy) / ry);
    double sd = (n - 1) * std::min(rx, ry);
    return smoothstep(soft, -soft, sd);
}

double fbm(double x, double y, int octaves, std::uint64_t seed) {
    double sum = 0, amp = 0.5, norm = 0;
    for (int o = 0; o < octaves; ++o) {
        sum += amp * valueNoise(x, y, seed + static_cast<std::uint64_t>(o));
        norm += amp;
        amp *= 0.5;
        x *= 2.03;
        y *= 2.03;
    }
    return sum / norm;
}

}  // namespace

std::uint64_t hash(std::int64_t a, std::int64_t b, std::uint64_t seed) {
    return mix(mix(seed ^ static_cast<std::uint64_t>(a) * 0x632be59bd9b4e019ull) ^
               static_cast<std::uint64_t>(b) * 0x8cb92ba72f3d8dd7ull);
}

double unit(std::uint64_t h) {
    return static_cast<double>(h >> 11) * 0x1p-53;
}

double valueNoise(double x, double y, std::uint64_t seed) {
    double fx = std::floor(x), fy = std::floor(y);
    auto ix = static_cast<std::int64_t>(fx), iy = static_cast<std::int64_t>(fy);
    double tx = smooth(x - fx), ty = smooth(y - fy);
    double a = unit(hash(ix, iy, seed)), b = unit(hash(ix + 1, iy, seed));
    double c = unit(hash(ix, iy + 1, seed)), d = unit(hash(ix + 1, iy + 1, seed));
    return (a + (b - a) * tx) + ((c + (d - c) * tx) - (a + (b - a) * tx)) * ty;
}

double landness(double lon, double lat, double detailDegrees) {
    // Continents everywhere, from low-frequency noise.
    double global = (fbm(lon / 47.0, lat / 41.0, 4, 101) - 0.5) * 3.0 + 0.05;
    // Thailand and its neighbours are land; the Bight of Bangkok and the Gulf cut in from
    // the south, leaving the coast some 30 km south of the city.
    double region = boxWeight(lon, lat, 92.0, 4.0, 109.0, 25.0, 1.0);
    double gulf = std::max({boxWeight(lon, lat, 99.97, 11.5, 100.93, 13.45, 0.25),
                            ellipseWeight(lon, lat, 101.2, 9.6, 2.2, 3.1, 0.25),
                            ellipseWeight(lon, lat, 91.0, 12.0, 6.5, 7.5, 0.5),
                            ellipseWeight(lon, lat, 110.5, 12.0, 2.2, 6.0, 0.5)});
    double city = 1 - smoothstep(0.12, 0.2, std::hypot(lon - 100.53, lat - 13.78));
    double local = 0.8 - 1.6 * gulf + 0.8 * city;
    double base = global * (1 - region) + local * region;

    // Coastline detail, octave by octave down to the visible scale. Far from a coast the sign
    // cannot change any more, so the walk stops early.
    constexpr double kFirstAmplitude = 0.6;
    double remaining = 2 * kFirstAmplitude;
    if (std::abs(base) > remaining) {
        return base;
    }
    double amp = kFirstAmplitude, wavelength = 0.5;
    for (int o = 0; o < 20 && wavelength > detailDegrees; ++o) {
        base +=
            amp *
            (valueNoise(lon / wavelength, lat / wavelength, 211 + static_cast<std::uint64_t>(o)) -
             0.5) *
            2;
        remaining -= amp;
        if (std::abs(base) > remaining) {
            break;
        }
        amp *= 0.5;
        wavelength *= 0.5;
    }
    return base;
}

double cityness(double lon, double lat) {
    double c = 1 - smoothstep(0.09, 0.28, std::hypot((lon - 100.54) * 0.97, lat - 13.76));
    constexpr double kCell = 0.6;
    auto ci = static_cast<std::int64_t>(std::floor(lon / kCell));
    auto cj = static_cast<std::int64_t>(std::floor(lat / kCell));
    for (std::int64_t i = ci - 1; i <= ci + 1; ++i) {
        for (std::int64_t j = cj - 1; j <= cj + 1; ++j) {
            std::uint64_t h = hash(i, j, 307);
            if (unit(h) > 0.5) {
                continue;
            }
            double tx = (static_cast<double>(i) + 0.2 + 0.6 * unit(hash(i, j, 311))) * kCell;
            double ty = (static_cast<double>(j) + 0.2 + 0.6 * unit(hash(i, j, 313))) * kCell;
            double r = 0.025 + 0.05 * unit(hash(i, j, 317));
            double d = std::hypot(lon - tx, lat - ty);
            c = std::max(c, 0.85 * (1 - smoothstep(0.25 * r, r, d)));
        }
    }
    return c;
}

WorldPoint gridNode(double spacing, std::uint64_t seed, std::int64_t i, std::int64_t j) {
    double jx = unit(hash(i, j, seed)) - 0.5;
    double jy = unit(hash(i, j, seed + 1)) - 0.5;
    return {(static_cast<double>(i) + 0.5 + 0.5 * jx) * spacing,
            (static_cast<double>(j) + 0.5 + 0.5 * jy) * spacing};
}

WorldPoint catmullRom(const WorldPoint& p0, const WorldPoint& p1, const WorldPoint& p2,
                      const WorldPoint& p3, double t) {
    double t2 = t * t, t3 = t2 * t;
    auto f = [&](double a, double b, double c, double d) {
        return 0.5 * (2 * b + (-a + c) * t + (2 * a - 5 * b + 4 * c - d) * t2 +
                      (-a + 3 * b - 3 * c + d) * t3);
    };
    return {f(p0.x, p1.x, p2.x, p3.x), f(p0.y, p1.y, p2.y, p3.y)};
}

const std::vector<WorldPoint>& chaoPhrayaDegrees() {
    // North to south: past Nonthaburi, the bend around the old town, the loop around the green
    // island on the east bank, and out to the sea.
    static const std::vector<WorldPoint> river = {
        {100.560, 14.350}, {100.545, 14.200}, {100.530, 14.080}, {100.505, 13.960},
        {100.495, 13.880}, {100.510, 13.840}, {100.520, 13.810}, {100.505, 13.785},
        {100.494, 13.765}, {100.490, 13.748}, {100.497, 13.735}, {100.508, 13.727},
        {100.516, 13.716}, {100.526, 13.705}, {100.541, 13.697}, {100.556, 13.700},
        {100.569, 13.708}, {100.578, 13.698}, {100.575, 13.680}, {100.560, 13.668},
        {100.545, 13.665}, {100.540, 13.650}, {100.548, 13.632}, {100.563, 13.615},
        {100.575, 13.595}, {100.585, 13.570}, {100.590, 13.540}, {100.592, 13.500},
        {100.590, 13.440}, {100.588, 13.380}};
    return river;
}

const std::vector<std::vector<WorldPoint>>& canalsDegrees() {
    static const std::vector<std::vector<WorldPoint>> canals = {
        {{100.512, 13.752},
         {100.545, 13.748},
         {100.580, 13.745},
         {100.620, 13.752},
         {100.680, 13.757},
         {100.750, 13.770},
         {100.820, 13.790}},
        {{100.517, 13.778}, {100.520, 13.800}, {100.531, 13.860}, {100.550, 13.950}},
        {{100.488, 13.762}, {100.470, 13.778}, {100.440, 13.790}, {100.400, 13.795}},
        {{100.496, 13.733}, {100.470, 13.722}, {100.440, 13.702}, {100.410, 13.690}},
        {{100.514, 13.775}, {100.520, 13.752}, {100.512, 13.736}, {100.509, 13.729}},
        {{100.640, 13.700}, {100.650, 13.760}, {100.660, 13.840}, {100.672, 13.930}},
    };
    return canals;
}

}  // namespace sorvan::server::world

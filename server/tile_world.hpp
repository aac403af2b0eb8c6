// The synthetic world behind the map painter: pure functions of world position, seeded by
// fixed constants, so every request sees the same coasts, towns and roads. Positions are
// Web-Mercator metres (x east, y north) unless a name says degrees. Thread-safe.
#pragma once

#include <cstdint>
#include <vector>

namespace sorvan::server::world {

constexpr double kPi = 3.14159265358979323846;
constexpr double kEarthRadius = 6378137.0;
constexpr double kHalfWorld = 20037508.342789244;  // metres from the centre to an edge

double lonOfX(double mx);
double latOfY(double my);
double xOfLon(double lon);
double yOfLat(double lat);

std::uint64_t hash(std::int64_t a, std::int64_t b, std::uint64_t seed);
/// A hash as a number in [0, 1).
double unit(std::uint64_t h);
/// Smooth value noise in [0, 1) on an integer lattice.
double valueNoise(double x, double y, std::uint64_t seed);

/// > 0 on land, < 0 on water; about 0.1 per pixel near coasts. detailDegrees is the shortest
/// wavelength of coastline detail worth computing (a few pixels at the current zoom).
double landness(double lon, double lat, double detailDegrees);
/// 0 in the country, 1 in the middle of a city (Bangkok, and towns scattered by a hash).
double cityness(double lon, double lat);

struct WorldPoint {
    double x = 0, y = 0;
};

/// The jittered node (i, j) of a road or border grid of the given spacing (metres).
WorldPoint gridNode(double spacing, std::uint64_t seed, std::int64_t i, std::int64_t j);
/// Uniform Catmull-Rom: the point at t in [0, 1] between p1 and p2.
WorldPoint catmullRom(const WorldPoint& p0, const WorldPoint& p1, const WorldPoint& p2,
                      const WorldPoint& p3, double t);

/// Bangkok's centre, and the polylines (lon, lat pairs) of its river and canals.
constexpr double kBangkokLon = 100.5018, kBangkokLat = 13.7563;
const std::vector<WorldPoint>& chaoPhrayaDegrees();
const std::vector<std::vector<WorldPoint>>& canalsDegrees();

}  // namespace sorvan::server::world

// Plain geometry and colour values in points. Value types.
#pragma once

#include <cmath>

#include "sorvan/platform/export.hpp"

namespace sorvan::gfx {

struct SORVAN_EXPORT Point {
    double x = 0, y = 0;
    bool operator==(const Point&) const = default;
};

struct SORVAN_EXPORT Size {
    double width = 0, height = 0;
    bool operator==(const Size&) const = default;
};

struct SORVAN_EXPORT Rect {
    Point origin;
    Size size;
    Rect() = default;
    Rect(double x, double y, double w, double h) : origin{x, y}, size{w, h} {}
    Rect(Point o, Size s) : origin(o), size(s) {}
    double minX() const { return origin.x; }
    double minY() const { return origin.y; }
    double maxX() const { return origin.x + size.width; }
    double maxY() const { return origin.y + size.height; }
    double midX() const { return origin.x + size.width / 2; }
    double midY() const { return origin.y + size.height / 2; }
    bool contains(Point p) const {
        return p.x >= minX() && p.x < maxX() && p.y >= minY() && p.y < maxY();
    }
    bool intersects(const Rect& r) const {
        return minX() < r.maxX() && r.minX() < maxX() && minY() < r.maxY() && r.minY() < maxY();
    }
    bool operator==(const Rect&) const = default;
};

/// Straight (not premultiplied) RGBA, components 0..1.
struct SORVAN_EXPORT Color {
    double r = 0, g = 0, b = 0, a = 1;
    static Color white() { return {1, 1, 1, 1}; }
    static Color black() { return {0, 0, 0, 1}; }
    static Color clear() { return {0, 0, 0, 0}; }
    static Color darkGray() { return {1.0 / 3, 1.0 / 3, 1.0 / 3, 1}; }
    static Color red() { return {1, 0, 0, 1}; }
    bool operator==(const Color&) const = default;
};

/// 2-D affine transform: x' = a*x + c*y + tx, y' = b*x + d*y + ty.
struct SORVAN_EXPORT AffineTransform {
    double a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;
    static AffineTransform identity() { return {}; }
    static AffineTransform rotation(double radians) {
        double s = std::sin(radians), co = std::cos(radians);
        return {co, s, -s, co, 0, 0};
    }
    bool isIdentity() const { return *this == AffineTransform{}; }
    bool operator==(const AffineTransform&) const = default;
};

}  // namespace sorvan::gfx

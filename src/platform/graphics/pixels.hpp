// Conversions between cairo's premultiplied native-endian ARGB32 and the straight byte
// orders of the codecs. Internal to the graphics area. Pure functions, thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace sorvan::gfx {

/// Rounds c * a / 255 the way cairo does, so decoded and drawn pixels agree exactly.
inline std::uint32_t mulDiv255(std::uint32_t c, std::uint32_t a) {
    std::uint32_t t = c * a + 0x80;
    return ((t >> 8) + t) >> 8;
}

/// Straight components from a premultiplied pixel; the inverse of mulDiv255 to within one.
inline std::uint8_t unpremultiplyComponent(std::uint32_t c, std::uint32_t a) {
    std::uint32_t v = (c * 255 + a / 2) / a;
    return static_cast<std::uint8_t>(v > 255 ? 255 : v);
}

inline std::array<std::uint8_t, 4> unpremultiplyPixel(std::uint32_t p) {
    std::uint32_t a = p >> 24;
    std::uint32_t r = (p >> 16) & 0xff, g = (p >> 8) & 0xff, b = p & 0xff;
    if (a == 0) {
        return {0, 0, 0, 0};
    }
    if (a == 255) {
        return {static_cast<std::uint8_t>(r), static_cast<std::uint8_t>(g),
                static_cast<std::uint8_t>(b), 255};
    }
    return {unpremultiplyComponent(r, a), unpremultiplyComponent(g, a),
            unpremultiplyComponent(b, a), static_cast<std::uint8_t>(a)};
}

/// Straight ARGB pixels (as a codec delivers them) to premultiplied, in place.
inline void premultiplyInPlace(std::span<std::uint32_t> pixels) {
    for (auto& p : pixels) {
        std::uint32_t a = p >> 24;
        if (a == 255) {
            continue;
        }
        if (a == 0) {
            p = 0;
            continue;
        }
        std::uint32_t r = mulDiv255((p >> 16) & 0xff, a);
        std::uint32_t g = mulDiv255((p >> 8) & 0xff, a);
        std::uint32_t b = mulDiv255(p & 0xff, a);
        p = (a << 24) | (r << 16) | (g << 8) | b;
    }
}

/// One row of opaque pixels as R,G,B bytes (3 * width).
inline void packOpaqueRowRGB(const std::uint32_t* src, int width, std::uint8_t* out) {
    for (int i = 0; i < width; ++i) {
        std::uint32_t p = src[i];
        out[0] = static_cast<std::uint8_t>(p >> 16);
        out[1] = static_cast<std::uint8_t>(p >> 8);
        out[2] = static_cast<std::uint8_t>(p);
        out += 3;
    }
}

/// One row of premultiplied pixels as straight R,G,B,A bytes (4 * width).
inline void unpremultiplyRowRGBA(const std::uint32_t* src, int width, std::uint8_t* out) {
    for (int i = 0; i < width; ++i) {
        auto px = unpremultiplyPixel(src[i]);
        out[0] = px[0];
        out[1] = px[1];
        out[2] = px[2];
        out[3] = px[3];
        out += 4;
    }
}

}  // namespace sorvan::gfx

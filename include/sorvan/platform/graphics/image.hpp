// Decoded raster images and PNG encoding. An Image is immutable once made and may be shared
// between threads.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/geometry.hpp"

namespace sorvan::gfx {

/// PNG encoder settings. zlib level 0..9 (out-of-range values are clamped); the filter choice
/// matters as much as the level. Filter::Default looks at the picture: flat-colour pictures
/// (maps, icons, overlays) are written unfiltered, which for them is both the smallest and the
/// fastest choice; photo-like ones with the Up filter. Adaptive lets the encoder try every
/// filter on every row: slower, and for maps larger. Figures: bench/bench_png.cpp.
struct SORVAN_EXPORT PNGOptions {
    int compressionLevel = 6;
    enum class Filter { Default, None, Sub, Up, Paeth, Adaptive } filter = Filter::Default;

    /// The setting for pictures made per request and kept briefly (tiles): about a tenth
    /// larger than level 6 and more than twice as fast.
    static PNGOptions fast() { return {1, Filter::Default}; }
};

/// The largest picture a decode may make. The header's size is checked against it before any
/// pixel memory is taken, so a few bytes claiming a huge picture cost nothing.
struct ImageLimits {
    std::uint32_t maxSide = 1u << 15;
    std::uint64_t maxPixels = 1ull << 28;
};

class SORVAN_EXPORT Image {
  public:
    /// Decodes PNG (any colour type and bit depth, interlaced or not) or JPEG bytes; nullptr
    /// when they are neither, cannot be decoded or are larger than limits allow. Scale:
    /// pixels per point (> 0).
    static std::shared_ptr<Image> fromData(std::span<const std::uint8_t> bytes, double scale = 1.0,
                                           const ImageLimits& limits = {});
    static std::shared_ptr<Image> fromFile(const std::string& path, double scale = 1.0,
                                           const ImageLimits& limits = {});
    /// Wraps premultiplied ARGB32 pixels (native-endian uint32, cairo's layout), row stride in
    /// bytes = 4 * width. nullptr when the vector does not hold width * height pixels.
    static std::shared_ptr<Image> fromPixels(int pixelWidth, int pixelHeight,
                                             std::vector<std::uint32_t> argbPremultiplied,
                                             double scale = 1.0);

    int pixelWidth() const { return width_; }
    int pixelHeight() const { return height_; }
    double scale() const { return scale_; }
    /// Size in points = pixels / scale.
    Size size() const { return {width_ / scale_, height_ / scale_}; }

    /// Premultiplied ARGB32 pixels, row-major, no padding.
    const std::vector<std::uint32_t>& pixels() const { return pixels_; }
    /// The straight RGBA of one pixel, components 0..255; {0,0,0,0} outside the image.
    std::array<std::uint8_t, 4> rgbaAt(int x, int y) const;
    /// True when every pixel is fully opaque (computed once).
    bool isOpaque() const;

    /// PNG bytes (RGBA, or RGB when opaque). Never fails for a valid image.
    std::vector<std::uint8_t> pngData(const PNGOptions& options = {}) const;
    /// Writes PNG bytes atomically (temporary file in the same directory + rename): readers see
    /// the old file or the whole new one, never a part. Returns false on an I/O error, leaving
    /// no temporary file behind.
    bool writePNG(const std::string& path, const PNGOptions& options = {}) const;

  private:
    Image(int w, int h, std::vector<std::uint32_t> px, double scale);
    int width_ = 0, height_ = 0;
    double scale_ = 1.0;
    std::vector<std::uint32_t> pixels_;
    mutable std::atomic<int> opaque_{-1};  // -1 = not yet known; a benign race computes it twice
};

}  // namespace sorvan::gfx

// Decoded raster images and PNG encoding. An Image is immutable once made and may be shared
// between threads.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sorvan/platform/graphics/geometry.hpp"

namespace sorvan::gfx {

/// PNG encoder settings. zlib level 1..9; the filter choice matters as much as the level.
struct PNGOptions {
    int compressionLevel = 6;
    enum class Filter { Default, None, Sub, Up, Paeth, Adaptive } filter = Filter::Default;
};

class Image {
  public:
    /// Decodes PNG or JPEG bytes; nullptr when they are neither. Scale: pixels per point.
    static std::shared_ptr<Image> fromData(std::span<const std::uint8_t> bytes, double scale = 1.0);
    static std::shared_ptr<Image> fromFile(const std::string& path, double scale = 1.0);
    /// Wraps premultiplied ARGB32 pixels (native-endian uint32, cairo's layout), row stride in
    /// bytes = 4 * width.
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
    /// The straight RGBA of one pixel, components 0..255.
    std::array<std::uint8_t, 4> rgbaAt(int x, int y) const;
    /// True when every pixel is fully opaque (computed once).
    bool isOpaque() const;

    /// PNG bytes (RGBA, or RGB when opaque). Never fails for a valid image.
    std::vector<std::uint8_t> pngData(const PNGOptions& options = {}) const;
    /// Writes PNG bytes atomically (temporary file + rename). Returns false on an I/O error.
    bool writePNG(const std::string& path, const PNGOptions& options = {}) const;

  private:
    Image(int w, int h, std::vector<std::uint32_t> px, double scale);
    int width_ = 0, height_ = 0;
    double scale_ = 1.0;
    std::vector<std::uint32_t> pixels_;
    mutable int opaque_ = -1;
};

}  // namespace sorvan::gfx

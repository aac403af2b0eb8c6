// Small encoded pictures made in code for the codec tests: PNGs of every colour type written
// with libpng directly, and JPEGs written with libjpeg.
#pragma once

#include <cstdint>
#include <vector>

namespace sorvan::testing {

struct RawPNG {
    int width = 0, height = 0;
    int colorType = 0;  // PNG_COLOR_TYPE_*
    int bitDepth = 8;
    bool interlaced = false;
    std::vector<std::uint8_t> samples;     // rows packed as the PNG stores them (big-endian 16-bit)
    std::vector<std::uint8_t> paletteRGB;  // colour type 3: 3 bytes per entry
    std::vector<std::uint8_t> transparency;  // tRNS: palette alphas, or one gray/RGB sample
};

std::vector<std::uint8_t> encodeRawPNG(const RawPNG& png);

/// A JPEG of the given straight RGB bytes (3 per pixel), or of gray bytes when components is 1.
std::vector<std::uint8_t> encodeJPEG(int width, int height, int components,
                                     const std::vector<std::uint8_t>& samples, int quality = 95);

}  // namespace sorvan::testing

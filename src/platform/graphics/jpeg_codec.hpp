// JPEG decoding into cairo's pixel layout. Internal to the graphics area. Thread-safe.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::gfx {

/// Decodes baseline or progressive JPEG (gray, YCbCr, CMYK/YCCK) into opaque native-endian
/// ARGB32. False, with the outputs untouched, when the bytes cannot be decoded or the picture
/// is larger than limits allow (checked before the pixels are allocated).
bool decodeJPEG(std::span<const std::uint8_t> bytes, const ImageLimits& limits, int& width,
                int& height, std::vector<std::uint32_t>& pixels);

}  // namespace sorvan::gfx

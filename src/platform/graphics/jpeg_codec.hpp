// JPEG decoding into cairo's pixel layout. Internal to the graphics area. Thread-safe.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace sorvan::gfx {

/// Decodes baseline or progressive JPEG (gray, YCbCr, CMYK/YCCK) into opaque native-endian
/// ARGB32. False, with the outputs untouched, when the bytes cannot be decoded.
bool decodeJPEG(std::span<const std::uint8_t> bytes, int& width, int& height,
                std::vector<std::uint32_t>& pixels);

}  // namespace sorvan::gfx

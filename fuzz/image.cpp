// Image decoding (PNG and JPEG are told apart by content, so one target serves both corpora:
// fuzz_png and fuzz_jpeg differ only in their seeds). A picture that decodes must be whole,
// within the limits it was decoded with, and encode back to PNG.
//
// Decoded with the tile layers' limits, as every picture from the network is: a few bytes of
// header claiming a huge picture must be refused before any pixel memory is taken, so such
// inputs are the decoders' to handle, not the harness's to skip.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fuzz_support.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "tiles/tile_codec.hpp"

using namespace sorvan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const gfx::ImageLimits& limits = tiles::kLayerImageLimits;
    auto image = gfx::Image::fromData(fuzz::bytesOf(data, size), 1.0, limits);
    if (!image) {
        return 0;
    }
    const auto w = static_cast<std::size_t>(image->pixelWidth());
    const auto h = static_cast<std::size_t>(image->pixelHeight());
    if (w == 0 || h == 0 || image->pixels().size() != w * h || w > limits.maxSide ||
        h > limits.maxSide || w * h > limits.maxPixels) {
        std::abort();
    }
    (void)image->rgbaAt(image->pixelWidth() - 1, image->pixelHeight() - 1);
    // Re-encoding is bounded so that a large but legal picture does not make the run slow.
    if (w * h <= 512 * 512 && image->pngData(gfx::PNGOptions::fast()).empty()) {
        std::abort();
    }
    return 0;
}

#include "graphics/jpeg_codec.hpp"

// jpeglib.h needs size_t and FILE declared first.
#include <cstddef>
#include <cstdio>

#include <jpeglib.h>

#include <bit>
#include <csetjmp>
#include <new>

namespace sorvan::gfx {
namespace {

// libjpeg reports fatal errors through error_exit, which must not return: it longjmps back to
// the setjmp in the phase function that called into the library. As with PNG, the phase
// functions keep only trivially destructible locals and the caller owns every C++ object.
struct JpegReader {
    jpeg_decompress_struct cinfo{};
    jpeg_error_mgr err{};
    std::jmp_buf jump{};
    bool created = false;

    ~JpegReader() {
        if (created) {
            jpeg_destroy_decompress(&cinfo);
        }
    }
};

[[noreturn]] void jpegErrorExit(j_common_ptr cinfo) {
    auto* r = static_cast<JpegReader*>(cinfo->client_data);
    std::longjmp(r->jump, 1);
}

// Corrupt-data warnings (a truncated scan, say) are not fatal: the decoder fills the rest in
// grey, as viewers do. They are not worth a line on stderr.
void jpegOutputMessage(j_common_ptr) {}

bool jpegStart(JpegReader& r, const unsigned char* data, unsigned long size,
               const ImageLimits& limits) {
    if (setjmp(r.jump)) {
        return false;
    }
    jpeg_create_decompress(&r.cinfo);
    r.created = true;
    jpeg_mem_src(&r.cinfo, data, size);
    if (jpeg_read_header(&r.cinfo, TRUE) != JPEG_HEADER_OK) {
        return false;
    }
    if (r.cinfo.jpeg_color_space == JCS_CMYK || r.cinfo.jpeg_color_space == JCS_YCCK) {
        r.cinfo.out_color_space = JCS_CMYK;
    } else if constexpr (std::endian::native == std::endian::little) {
        r.cinfo.out_color_space = JCS_EXT_BGRA;
    } else {
        r.cinfo.out_color_space = JCS_EXT_ARGB;
    }
    if (r.cinfo.image_width == 0 || r.cinfo.image_height == 0 ||
        r.cinfo.image_width > limits.maxSide || r.cinfo.image_height > limits.maxSide ||
        std::uint64_t{r.cinfo.image_width} * r.cinfo.image_height > limits.maxPixels) {
        return false;
    }
    jpeg_start_decompress(&r.cinfo);
    return r.cinfo.output_components == 4;
}

bool jpegReadRows(JpegReader& r, std::uint32_t* pixels) {
    if (setjmp(r.jump)) {
        return false;
    }
    const bool cmyk = r.cinfo.out_color_space == JCS_CMYK;
    // Files written by the common desktop editors store CMYK inverted (an Adobe marker).
    const bool inverted = r.cinfo.saw_Adobe_marker != 0;
    const unsigned width = r.cinfo.output_width;
    while (r.cinfo.output_scanline < r.cinfo.output_height) {
        auto* row = pixels + static_cast<std::size_t>(r.cinfo.output_scanline) * width;
        JSAMPROW rows[1] = {reinterpret_cast<JSAMPROW>(row)};
        if (jpeg_read_scanlines(&r.cinfo, rows, 1) != 1) {
            return false;
        }
        if (cmyk) {
            auto* bytes = reinterpret_cast<const std::uint8_t*>(row);
            for (unsigned i = 0; i < width; ++i) {
                unsigned c = bytes[4 * i], m = bytes[4 * i + 1], y = bytes[4 * i + 2],
                         k = bytes[4 * i + 3];
                if (!inverted) {
                    c = 255 - c, m = 255 - m, y = 255 - y, k = 255 - k;
                }
                std::uint32_t red = (c * k + 127) / 255, green = (m * k + 127) / 255,
                              blue = (y * k + 127) / 255;
                row[i] = 0xff000000u | (red << 16) | (green << 8) | blue;
            }
        }
    }
    jpeg_finish_decompress(&r.cinfo);
    return true;
}

}  // namespace

bool decodeJPEG(std::span<const std::uint8_t> bytes, const ImageLimits& limits, int& width,
                int& height, std::vector<std::uint32_t>& pixels) {
    JpegReader r;
    r.cinfo.err = jpeg_std_error(&r.err);
    r.err.error_exit = jpegErrorExit;
    r.err.output_message = jpegOutputMessage;
    r.cinfo.client_data = &r;
    if (!jpegStart(r, bytes.data(), static_cast<unsigned long>(bytes.size()), limits)) {
        return false;
    }
    std::vector<std::uint32_t> out;
    try {
        out.resize(static_cast<std::size_t>(r.cinfo.output_width) * r.cinfo.output_height);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (!jpegReadRows(r, out.data())) {
        return false;
    }
    width = static_cast<int>(r.cinfo.output_width);
    height = static_cast<int>(r.cinfo.output_height);
    pixels = std::move(out);
    return true;
}

}  // namespace sorvan::gfx

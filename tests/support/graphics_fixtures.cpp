#include "support/graphics_fixtures.hpp"

#include <png.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include <jpeglib.h>

namespace sorvan::testing {
namespace {

void appendToVector(png_structp png, png_bytep data, png_size_t length) {
    auto* out = static_cast<std::vector<std::uint8_t>*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + length);
}

void noFlush(png_structp) {}

// Test fixtures are well-formed by construction; a libpng error here is a bug in the test, so
// the default handler (which aborts the write by longjmp to the setjmp below) is enough. Every
// C++ object lives in the caller so the jump skips no destructor.
bool writePNG(const RawPNG& raw, const std::vector<png_color>& palette,
              std::vector<std::uint8_t>& out, png_bytepp rows) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, &out, appendToVector, noFlush);
    png_set_IHDR(png, info, static_cast<png_uint_32>(raw.width),
                 static_cast<png_uint_32>(raw.height), raw.bitDepth, raw.colorType,
                 raw.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (raw.colorType == PNG_COLOR_TYPE_PALETTE) {
        png_set_PLTE(png, info, palette.data(), static_cast<int>(palette.size()));
        if (!raw.transparency.empty()) {
            png_set_tRNS(png, info, raw.transparency.data(),
                         static_cast<int>(raw.transparency.size()), nullptr);
        }
    } else if (!raw.transparency.empty()) {
        png_color_16 value{};
        value.gray = raw.transparency[0];
        value.red = raw.transparency[0];
        value.green = raw.transparency.size() > 1 ? raw.transparency[1] : 0;
        value.blue = raw.transparency.size() > 2 ? raw.transparency[2] : 0;
        png_set_tRNS(png, info, nullptr, 0, &value);
    }
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

std::vector<std::uint8_t> encodeRawPNG(const RawPNG& raw) {
    std::size_t rowBytes = raw.samples.size() / static_cast<std::size_t>(raw.height);
    std::vector<png_bytep> rows(static_cast<std::size_t>(raw.height));
    std::vector<std::uint8_t> copy = raw.samples;
    for (int y = 0; y < raw.height; ++y) {
        rows[static_cast<std::size_t>(y)] = copy.data() + rowBytes * static_cast<std::size_t>(y);
    }
    std::vector<png_color> palette;
    for (std::size_t i = 0; i + 2 < raw.paletteRGB.size(); i += 3) {
        palette.push_back({raw.paletteRGB[i], raw.paletteRGB[i + 1], raw.paletteRGB[i + 2]});
    }
    std::vector<std::uint8_t> out;
    if (!writePNG(raw, palette, out, rows.data())) {
        throw std::runtime_error("fixture PNG could not be written");
    }
    return out;
}

std::vector<std::uint8_t> encodeJPEG(int width, int height, int components,
                                     const std::vector<std::uint8_t>& samples, int quality) {
    jpeg_compress_struct cinfo{};
    jpeg_error_mgr err{};
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_compress(&cinfo);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&cinfo, &buffer, &size);
    cinfo.image_width = static_cast<JDIMENSION>(width);
    cinfo.image_height = static_cast<JDIMENSION>(height);
    cinfo.input_components = components;
    cinfo.in_color_space = components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    std::vector<std::uint8_t> copy = samples;
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = copy.data() + static_cast<std::size_t>(cinfo.next_scanline) *
                                         static_cast<std::size_t>(width * components);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    std::vector<std::uint8_t> out(buffer, buffer + size);
    std::free(buffer);
    return out;
}

}  // namespace sorvan::testing

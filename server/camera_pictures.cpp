#include "camera_pictures.hpp"

#include <cairo.h>
#include <jpeglib.h>
#include <pango/pangocairo.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "camera_feed.hpp"
#include "event_feed.hpp"
#include "road_scene.hpp"

namespace sorvan::server {
namespace {

struct SurfaceDeleter {
    void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
struct ContextDeleter {
    void operator()(cairo_t* c) const { cairo_destroy(c); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;
using Context = std::unique_ptr<cairo_t, ContextDeleter>;

double secondsOf(std::chrono::system_clock::time_point t) {
    return std::chrono::duration<double>(t.time_since_epoch()).count();
}

Surface paintStreet(const std::string& camid, int width, int height,
                    std::chrono::system_clock::time_point at) {
    Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height));
    Context cr(cairo_create(surface.get()));
    paintRoadScene(cr.get(), width, height, camid, secondsOf(at), bangkokTimeText(at));
    cairo_surface_flush(surface.get());
    return surface;
}

cairo_status_t appendBytes(void* closure, const unsigned char* data, unsigned int length) {
    static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
    return CAIRO_STATUS_SUCCESS;
}

std::string pngOf(cairo_surface_t* surface) {
    std::string bytes;
    cairo_surface_write_to_png_stream(surface, appendBytes, &bytes);
    return bytes;
}

std::string jpegOf(cairo_surface_t* surface) {
    int width = cairo_image_surface_get_width(surface);
    int height = cairo_image_surface_get_height(surface);
    int stride = cairo_image_surface_get_stride(surface);
    const unsigned char* pixels = cairo_image_surface_get_data(surface);

    jpeg_compress_struct info{};
    jpeg_error_mgr errors{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_compress(&info);
    unsigned char* out = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&info, &out, &size);
    info.image_width = static_cast<JDIMENSION>(width);
    info.image_height = static_cast<JDIMENSION>(height);
    info.input_components = 3;
    info.in_color_space = JCS_RGB;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, 85, TRUE);
    jpeg_start_compress(&info, TRUE);
    std::vector<unsigned char> row(static_cast<std::size_t>(width) * 3);
    while (info.next_scanline < info.image_height) {
        const auto* px =
            reinterpret_cast<const std::uint32_t*>(pixels + info.next_scanline * stride);
        for (int x = 0; x < width; ++x) {
            row[x * 3] = static_cast<unsigned char>(px[x] >> 16);
            row[x * 3 + 1] = static_cast<unsigned char>(px[x] >> 8);
            row[x * 3 + 2] = static_cast<unsigned char>(px[x]);
        }
        JSAMPROW rows[1] = {row.data()};
        jpeg_write_scanlines(&info, rows, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    std::string bytes(reinterpret_cast<const char*>(out), size);
    std::free(out);
    return bytes;
}

void putU32(std::string& s, std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        s.push_back(static_cast<char>((v >> shift) & 0xff));
    }
}

void putU16(std::string& s, std::uint16_t v) {
    s.push_back(static_cast<char>(v >> 8));
    s.push_back(static_cast<char>(v & 0xff));
}

std::uint32_t getU32(const std::string& s, std::size_t at) {
    return (std::uint32_t(static_cast<unsigned char>(s[at])) << 24) |
           (std::uint32_t(static_cast<unsigned char>(s[at + 1])) << 16) |
           (std::uint32_t(static_cast<unsigned char>(s[at + 2])) << 8) |
           std::uint32_t(static_cast<unsigned char>(s[at + 3]));
}

void putChunk(std::string& out, const char* type, const std::string& data) {
    putU32(out, static_cast<std::uint32_t>(data.size()));
    std::string body = std::string(type, 4) + data;
    out += body;
    putU32(out, static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(body.data()),
                                                 static_cast<uInt>(body.size()))));
}

struct Chunk {
    std::string type, data;
};

std::vector<Chunk> chunksOf(const std::string& png) {
    std::vector<Chunk> chunks;
    std::size_t at = 8;
    while (at + 12 <= png.size()) {
        std::uint32_t length = getU32(png, at);
        if (at + 12 + length > png.size()) {
            break;
        }
        chunks.push_back({png.substr(at + 4, 4), png.substr(at + 8, length)});
        at += 12 + length;
    }
    return chunks;
}

}  // namespace

std::string cameraStillJPEG(const std::string& camid, std::chrono::system_clock::time_point now) {
    Surface street = paintStreet(camid, 640, 360, now);
    return jpegOf(street.get());
}

std::string cameraMotionAPNG(const std::string& camid, std::chrono::system_clock::time_point now) {
    constexpr int kFrames = 8;
    constexpr std::uint16_t kDelayNumerator = 1, kDelayDenominator = 4;  // seconds per picture
    std::string out("\x89PNG\r\n\x1a\n", 8);
    std::uint32_t sequence = 0;
    for (int k = 0; k < kFrames; ++k) {
        auto at = now + std::chrono::milliseconds(250 * k);
        Surface street = paintStreet(camid, 320, 180, at);
        std::vector<Chunk> chunks = chunksOf(pngOf(street.get()));
        if (k == 0) {
            for (const Chunk& c : chunks) {
                if (c.type == "IHDR") {
                    putChunk(out, "IHDR", c.data);
                }
            }
            std::string control;
            putU32(control, kFrames);
            putU32(control, 0);  // loop for ever
            putChunk(out, "acTL", control);
        }
        std::string frame;
        putU32(frame, sequence++);
        putU32(frame, 320);
        putU32(frame, 180);
        putU32(frame, 0);
        putU32(frame, 0);
        putU16(frame, kDelayNumerator);
        putU16(frame, kDelayDenominator);
        frame.push_back(0);  // no disposal: every picture covers the whole frame
        frame.push_back(0);  // replace, not blend
        putChunk(out, "fcTL", frame);
        for (const Chunk& c : chunks) {
            if (c.type != "IDAT") {
                continue;
            }
            if (k == 0) {
                putChunk(out, "IDAT", c.data);
            } else {
                std::string data;
                putU32(data, sequence++);
                putChunk(out, "fdAT", data + c.data);
            }
        }
    }
    putChunk(out, "IEND", "");
    return out;
}

std::optional<std::string> sponsorBannerPNG(const std::string& name) {
    const auto& names = sponsorBanners();
    std::size_t index = 0;
    while (index < names.size() && names[index] != name) {
        ++index;
    }
    if (index == names.size()) {
        return std::nullopt;
    }
    static const double kColours[][3] = {{0.85, 0.2, 0.45}, {0.1, 0.45, 0.8}, {0.15, 0.55, 0.3}};
    static const char* const kWords[] = {"ธนาคารสายรุ้ง  Rainbow Bank", "น้ำดื่มใสสะอาด  Clear Water",
                                         "ประกันภัยทางไกล  Long Road Insurance"};
    constexpr int kWidth = 600, kHeight = 90;
    Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, kWidth, kHeight));
    Context cr(cairo_create(surface.get()));
    const double* c = kColours[index];
    cairo_pattern_t* fade = cairo_pattern_create_linear(0, 0, kWidth, 0);
    cairo_pattern_add_color_stop_rgb(fade, 0, c[0], c[1], c[2]);
    cairo_pattern_add_color_stop_rgb(fade, 1, c[0] * 0.5, c[1] * 0.5, c[2] * 0.5);
    cairo_set_source(cr.get(), fade);
    cairo_paint(cr.get());
    cairo_pattern_destroy(fade);

    PangoLayout* layout = pango_cairo_create_layout(cr.get());
    PangoFontDescription* font = pango_font_description_from_string("Sans Bold");
    pango_font_description_set_absolute_size(font, 30 * PANGO_SCALE);
    pango_layout_set_font_description(layout, font);
    pango_font_description_free(font);
    pango_layout_set_text(layout, kWords[index], -1);
    int tw = 0, th = 0;
    pango_layout_get_pixel_size(layout, &tw, &th);
    cairo_set_source_rgb(cr.get(), 1, 1, 1);
    cairo_move_to(cr.get(), (kWidth - tw) / 2.0, (kHeight - th) / 2.0);
    pango_cairo_show_layout(cr.get(), layout);
    g_object_unref(layout);
    cairo_surface_flush(surface.get());
    return pngOf(surface.get());
}

}  // namespace sorvan::server

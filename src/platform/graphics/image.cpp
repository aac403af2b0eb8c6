#include "sorvan/platform/graphics/image.hpp"

#include <fcntl.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>

#include "graphics/jpeg_codec.hpp"
#include "graphics/pixels.hpp"

namespace sorvan::gfx {
namespace {

// ---------------------------------------------------------------------------------------------
// PNG decoding.
//
// libpng reports errors by longjmp. Every function below that calls setjmp keeps only trivially
// destructible locals, and every C++ object (the pixel vector, the row table) lives in the
// caller, so a longjmp never skips a destructor. The png structs themselves are released by a
// guard in the caller after the jump has landed.

struct PngReader {
    png_structp png = nullptr;
    png_infop info = nullptr;
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::size_t pos = 0;
    png_uint_32 width = 0, height = 0;
    bool hasAlpha = false;

    ~PngReader() {
        if (png != nullptr) {
            png_destroy_read_struct(&png, info != nullptr ? &info : nullptr, nullptr);
        }
    }
};

[[noreturn]] void pngError(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

void pngWarning(png_structp, png_const_charp) {}

void pngReadFromMemory(png_structp png, png_bytep out, png_size_t length) {
    auto* r = static_cast<PngReader*>(png_get_io_ptr(png));
    if (length > r->size - r->pos) {
        png_error(png, "truncated");
    }
    std::memcpy(out, r->data + r->pos, length);
    r->pos += length;
}

// Reads the header and sets the transforms that turn every colour type and depth into
// 8-bit B,G,R,A (or A,R,G,B on big-endian machines): the byte order of a native uint32 ARGB.
bool pngReadHeader(PngReader& r, png_uint_32 maxSide) {
    if (setjmp(png_jmpbuf(r.png))) {
        return false;
    }
    png_set_user_limits(r.png, maxSide, maxSide);
    png_set_read_fn(r.png, &r, pngReadFromMemory);
    png_read_info(r.png, r.info);

    int bitDepth = 0, colorType = 0;
    png_get_IHDR(r.png, r.info, &r.width, &r.height, &bitDepth, &colorType, nullptr, nullptr,
                 nullptr);
    if (colorType == PNG_COLOR_TYPE_PALETTE) {
        png_set_palette_to_rgb(r.png);
    }
    if (colorType == PNG_COLOR_TYPE_GRAY && bitDepth < 8) {
        png_set_expand_gray_1_2_4_to_8(r.png);
    }
    r.hasAlpha = (colorType & PNG_COLOR_MASK_ALPHA) != 0;
    if (png_get_valid(r.png, r.info, PNG_INFO_tRNS) != 0) {
        png_set_tRNS_to_alpha(r.png);
        r.hasAlpha = true;
    }
    if (bitDepth == 16) {
        png_set_scale_16(r.png);
    }
    if (colorType == PNG_COLOR_TYPE_GRAY || colorType == PNG_COLOR_TYPE_GRAY_ALPHA) {
        png_set_gray_to_rgb(r.png);
    }
    if constexpr (std::endian::native == std::endian::little) {
        png_set_bgr(r.png);
        if (!r.hasAlpha) {
            png_set_add_alpha(r.png, 0xff, PNG_FILLER_AFTER);
        }
    } else {
        if (r.hasAlpha) {
            png_set_swap_alpha(r.png);
        } else {
            png_set_add_alpha(r.png, 0xff, PNG_FILLER_BEFORE);
        }
    }
    png_set_interlace_handling(r.png);
    png_read_update_info(r.png, r.info);
    return png_get_rowbytes(r.png, r.info) == std::size_t{r.width} * 4;
}

bool pngReadRows(PngReader& r, png_bytepp rows) {
    if (setjmp(png_jmpbuf(r.png))) {
        return false;
    }
    png_read_image(r.png, rows);
    // Trailing chunks are not needed; a file cut after the last row still shows.
    return true;
}

std::shared_ptr<Image> decodePNG(std::span<const std::uint8_t> bytes, double scale,
                                 const ImageLimits& limits) {
    PngReader r;
    r.data = bytes.data();
    r.size = bytes.size();
    r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, pngError, pngWarning);
    if (r.png == nullptr) {
        return nullptr;
    }
    r.info = png_create_info_struct(r.png);
    if (r.info == nullptr || !pngReadHeader(r, limits.maxSide)) {
        return nullptr;
    }
    if (r.width == 0 || r.height == 0 || std::uint64_t{r.width} * r.height > limits.maxPixels) {
        return nullptr;
    }
    std::vector<std::uint32_t> pixels;
    std::vector<png_bytep> rows;
    try {
        pixels.resize(std::size_t{r.width} * r.height);
        rows.resize(r.height);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    for (png_uint_32 y = 0; y < r.height; ++y) {
        rows[y] = reinterpret_cast<png_bytep>(pixels.data() + std::size_t{y} * r.width);
    }
    if (!pngReadRows(r, rows.data())) {
        return nullptr;
    }
    if (r.hasAlpha) {
        premultiplyInPlace(pixels);
    }
    return Image::fromPixels(static_cast<int>(r.width), static_cast<int>(r.height),
                             std::move(pixels), scale);
}

// ---------------------------------------------------------------------------------------------
// PNG encoding.

struct PngWriter {
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::vector<std::uint8_t>* out = nullptr;
    bool outOfMemory = false;

    ~PngWriter() {
        if (png != nullptr) {
            png_destroy_write_struct(&png, info != nullptr ? &info : nullptr);
        }
    }
};

bool appendBytes(PngWriter& w, png_bytep data, png_size_t length) noexcept {
    try {
        w.out->insert(w.out->end(), data, data + length);
        return true;
    } catch (const std::bad_alloc&) {
        w.outOfMemory = true;
        return false;
    }
}

void pngWriteToVector(png_structp png, png_bytep data, png_size_t length) {
    auto* w = static_cast<PngWriter*>(png_get_io_ptr(png));
    // The jump happens outside any catch block: appendBytes has already returned.
    if (!appendBytes(*w, data, length)) {
        png_error(png, "out of memory");
    }
}

void pngFlushNothing(png_structp) {}

// Share of pixels that repeat their left neighbour, from every fourth row.
double flatShare(const std::uint32_t* pixels, int width, int height) {
    std::size_t same = 0, total = 0;
    for (int y = 0; y < height; y += 4) {
        const std::uint32_t* row = pixels + static_cast<std::size_t>(y) * width;
        for (int x = 1; x < width; ++x) {
            same += row[x] == row[x - 1];
        }
        total += static_cast<std::size_t>(width - 1);
    }
    return total == 0 ? 1.0 : static_cast<double>(same) / static_cast<double>(total);
}

int pngFilterMask(PNGOptions::Filter filter, const std::uint32_t* pixels, int width, int height) {
    switch (filter) {
        case PNGOptions::Filter::None:
            return PNG_FILTER_NONE;
        case PNGOptions::Filter::Sub:
            return PNG_FILTER_SUB;
        case PNGOptions::Filter::Up:
            return PNG_FILTER_UP;
        case PNGOptions::Filter::Paeth:
            return PNG_FILTER_PAETH;
        case PNGOptions::Filter::Adaptive:
            return PNG_ALL_FILTERS;
        case PNGOptions::Filter::Default:
            break;
    }
    // Measured on composed map tiles (bench/bench_png.cpp): pictures made of flat colours
    // (maps, icons, overlays) come out both smallest and fastest unfiltered, because deflate
    // finds the repeated pixel runs directly; the per-row filter search only gets in its way.
    // Photo-like pictures (satellite layers) are about a tenth smaller with Up at the same
    // speed. One sampled pass tells the two apart.
    return flatShare(pixels, width, height) >= 0.5 ? PNG_FILTER_NONE : PNG_FILTER_UP;
}

struct EncodeJob {
    const std::uint32_t* pixels = nullptr;
    int width = 0, height = 0;
    bool opaque = true;
    int level = 6;
    int filterMask = PNG_FILTER_UP;
    std::uint8_t* rowBuffer = nullptr;  // 4 * width bytes, owned by the caller
};

bool pngEncode(PngWriter& w, const EncodeJob& job) {
    if (setjmp(png_jmpbuf(w.png))) {
        return false;
    }
    png_set_write_fn(w.png, &w, pngWriteToVector, pngFlushNothing);
    png_set_IHDR(w.png, w.info, static_cast<png_uint_32>(job.width),
                 static_cast<png_uint_32>(job.height), 8,
                 job.opaque ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(w.png, job.level);
    png_set_filter(w.png, PNG_FILTER_TYPE_BASE, job.filterMask);
    png_write_info(w.png, w.info);
    for (int y = 0; y < job.height; ++y) {
        const std::uint32_t* src = job.pixels + static_cast<std::size_t>(y) * job.width;
        if (job.opaque) {
            packOpaqueRowRGB(src, job.width, job.rowBuffer);
        } else {
            unpremultiplyRowRGBA(src, job.width, job.rowBuffer);
        }
        png_write_row(w.png, job.rowBuffer);
    }
    png_write_end(w.png, nullptr);
    return true;
}

bool looksLikePNG(std::span<const std::uint8_t> b) {
    static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    return b.size() >= 8 && std::memcmp(b.data(), kSignature, 8) == 0;
}

bool looksLikeJPEG(std::span<const std::uint8_t> b) {
    return b.size() >= 3 && b[0] == 0xff && b[1] == 0xd8 && b[2] == 0xff;
}

bool writeAll(int fd, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

Image::Image(int w, int h, std::vector<std::uint32_t> px, double scale)
    : width_(w), height_(h), scale_(scale), pixels_(std::move(px)) {}

std::shared_ptr<Image> Image::fromData(std::span<const std::uint8_t> bytes, double scale,
                                       const ImageLimits& limits) {
    if (!(scale > 0)) {
        scale = 1.0;
    }
    if (looksLikePNG(bytes)) {
        return decodePNG(bytes, scale, limits);
    }
    if (looksLikeJPEG(bytes)) {
        int w = 0, h = 0;
        std::vector<std::uint32_t> pixels;
        if (!decodeJPEG(bytes, limits, w, h, pixels)) {
            return nullptr;
        }
        return fromPixels(w, h, std::move(pixels), scale);
    }
    return nullptr;
}

std::shared_ptr<Image> Image::fromFile(const std::string& path, double scale,
                                       const ImageLimits& limits) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return nullptr;
    }
    std::vector<std::uint8_t> bytes;
    try {
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } catch (const std::exception&) {
        return nullptr;
    }
    return fromData(bytes, scale, limits);
}

std::shared_ptr<Image> Image::fromPixels(int pixelWidth, int pixelHeight,
                                         std::vector<std::uint32_t> argbPremultiplied,
                                         double scale) {
    if (pixelWidth < 0 || pixelHeight < 0 ||
        argbPremultiplied.size() != static_cast<std::size_t>(pixelWidth) * pixelHeight) {
        return nullptr;
    }
    if (!(scale > 0)) {
        scale = 1.0;
    }
    return std::shared_ptr<Image>(
        new Image(pixelWidth, pixelHeight, std::move(argbPremultiplied), scale));
}

std::array<std::uint8_t, 4> Image::rgbaAt(int x, int y) const {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) {
        return {0, 0, 0, 0};
    }
    return unpremultiplyPixel(pixels_[static_cast<std::size_t>(y) * width_ + x]);
}

bool Image::isOpaque() const {
    int known = opaque_.load(std::memory_order_relaxed);
    if (known < 0) {
        known = std::all_of(pixels_.begin(), pixels_.end(),
                            [](std::uint32_t p) { return (p >> 24) == 0xff; })
                    ? 1
                    : 0;
        opaque_.store(known, std::memory_order_relaxed);
    }
    return known == 1;
}

std::vector<std::uint8_t> Image::pngData(const PNGOptions& options) const {
    std::vector<std::uint8_t> out;
    PngWriter w;
    w.out = &out;
    w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, pngError, pngWarning);
    if (w.png == nullptr) {
        return {};
    }
    w.info = png_create_info_struct(w.png);
    if (w.info == nullptr) {
        return {};
    }
    // A PNG must have at least one pixel; an empty image is written as one transparent pixel.
    static const std::uint32_t kNothing = 0;
    EncodeJob job;
    job.pixels = pixels_.empty() ? &kNothing : pixels_.data();
    job.width = pixels_.empty() ? 1 : width_;
    job.height = pixels_.empty() ? 1 : height_;
    job.opaque = !pixels_.empty() && isOpaque();
    job.level = std::clamp(options.compressionLevel, 0, 9);
    job.filterMask = pngFilterMask(options.filter, job.pixels, job.width, job.height);
    std::vector<std::uint8_t> row;
    try {
        row.resize(static_cast<std::size_t>(job.width) * 4);
        // Map tiles land near a quarter of their raw size; one reservation avoids most regrowth.
        out.reserve(pixels_.size() + 1024);
    } catch (const std::bad_alloc&) {
        return {};
    }
    job.rowBuffer = row.data();
    if (!pngEncode(w, job)) {
        return {};
    }
    return out;
}

bool Image::writePNG(const std::string& path, const PNGOptions& options) const {
    std::vector<std::uint8_t> bytes = pngData(options);
    if (bytes.empty()) {
        return false;
    }
    // The temporary file sits beside the target so the rename stays within one file system.
    std::filesystem::path target(path);
    std::string pattern = target.has_parent_path() ? target.parent_path().string() : ".";
    pattern.append("/.");
    pattern.append(target.filename().string());
    pattern.append(".XXXXXX");
    int fd = ::mkstemp(pattern.data());
    if (fd < 0) {
        return false;
    }
    bool ok = writeAll(fd, bytes.data(), bytes.size()) && ::fchmod(fd, 0644) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok && std::rename(pattern.c_str(), path.c_str()) == 0) {
        return true;
    }
    ::unlink(pattern.c_str());
    return false;
}

}  // namespace sorvan::gfx

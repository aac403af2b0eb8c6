#include "sorvan/platform/graphics/image.hpp"

#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>

#include "support/foundation_support.hpp"
#include "support/graphics_fixtures.hpp"

namespace sorvan::gfx {
namespace {

using testing::encodeJPEG;
using testing::encodeRawPNG;
using testing::RawPNG;
using Rgba = std::array<std::uint8_t, 4>;

void expectNear(const Rgba& actual, const Rgba& expected, int tolerance, const char* what) {
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(actual[i], expected[i], tolerance) << what << " component " << i;
    }
}

// png with its header rewritten to announce width x height (and a matching CRC).
std::vector<std::uint8_t> announcing(std::vector<std::uint8_t> png, std::uint32_t width,
                                     std::uint32_t height) {
    for (int i = 0; i < 4; ++i) {
        png[16 + i] = static_cast<std::uint8_t>(width >> (24 - 8 * i));
        png[20 + i] = static_cast<std::uint8_t>(height >> (24 - 8 * i));
    }
    const auto crc = static_cast<std::uint32_t>(crc32(0, png.data() + 12, 17));
    for (int i = 0; i < 4; ++i) {
        png[29 + i] = static_cast<std::uint8_t>(crc >> (24 - 8 * i));
    }
    return png;
}

std::shared_ptr<Image> decode(const std::vector<std::uint8_t>& bytes, double scale = 1.0) {
    return Image::fromData(bytes, scale);
}

TEST(Image, DecodesEveryPNGColourType) {
    // RGBA, 8 bit: one opaque, one half-transparent, one clear pixel.
    {
        RawPNG raw{3,  1,     PNG_COLOR_TYPE_RGB_ALPHA,
                   8,  false, {10, 20, 30, 255, 200, 100, 50, 128, 1, 2, 3, 0},
                   {}, {}};
        auto img = decode(encodeRawPNG(raw));
        ASSERT_NE(img, nullptr);
        EXPECT_EQ(img->rgbaAt(0, 0), (Rgba{10, 20, 30, 255}));
        // Stored premultiplied, as cairo wants it.
        EXPECT_EQ(img->pixels()[1], (128u << 24) | (100u << 16) | (50u << 8) | 25u);
        expectNear(img->rgbaAt(1, 0), {200, 100, 50, 128}, 1, "half alpha");
        EXPECT_EQ(img->pixels()[2], 0u);
        EXPECT_FALSE(img->isOpaque());
    }
    // RGB, 8 bit.
    {
        RawPNG raw{2, 1, PNG_COLOR_TYPE_RGB, 8, false, {1, 2, 3, 250, 251, 252}, {}, {}};
        auto img = decode(encodeRawPNG(raw));
        ASSERT_NE(img, nullptr);
        EXPECT_EQ(img->pixels()[0], 0xff010203u);
        EXPECT_EQ(img->pixels()[1], 0xfffafbfcu);
        EXPECT_TRUE(img->isOpaque());
    }
    // Gray 8 bit, gray 1 bit, gray + alpha.
    {
        auto g8 = decode(encodeRawPNG({2, 1, PNG_COLOR_TYPE_GRAY, 8, false, {0, 77}, {}, {}}));
        ASSERT_NE(g8, nullptr);
        EXPECT_EQ(g8->rgbaAt(1, 0), (Rgba{77, 77, 77, 255}));
        auto g1 = decode(encodeRawPNG({8, 1, PNG_COLOR_TYPE_GRAY, 1, false, {0b10100000}, {}, {}}));
        ASSERT_NE(g1, nullptr);
        EXPECT_EQ(g1->rgbaAt(0, 0), (Rgba{255, 255, 255, 255}));
        EXPECT_EQ(g1->rgbaAt(1, 0), (Rgba{0, 0, 0, 255}));
        EXPECT_EQ(g1->rgbaAt(2, 0), (Rgba{255, 255, 255, 255}));
        auto ga =
            decode(encodeRawPNG({1, 1, PNG_COLOR_TYPE_GRAY_ALPHA, 8, false, {200, 51}, {}, {}}));
        ASSERT_NE(ga, nullptr);
        expectNear(ga->rgbaAt(0, 0), {200, 200, 200, 51}, 2, "gray alpha");
    }
    // Palette with a transparency table: entry 1 is half transparent, entry 2 has no alpha
    // entry and so is opaque.
    {
        RawPNG raw{3,
                   1,
                   PNG_COLOR_TYPE_PALETTE,
                   8,
                   false,
                   {0, 1, 2},
                   {255, 0, 0, 0, 255, 0, 0, 0, 255},
                   {255, 128}};
        auto img = decode(encodeRawPNG(raw));
        ASSERT_NE(img, nullptr);
        EXPECT_EQ(img->rgbaAt(0, 0), (Rgba{255, 0, 0, 255}));
        expectNear(img->rgbaAt(1, 0), {0, 255, 0, 128}, 1, "palette alpha");
        EXPECT_EQ(img->rgbaAt(2, 0), (Rgba{0, 0, 255, 255}));
    }
    // 16 bit RGBA and RGB with a tRNS colour key.
    {
        RawPNG raw{1,  1,     PNG_COLOR_TYPE_RGB_ALPHA,
                   16, false, {0x80, 0x80, 0xff, 0xff, 0x00, 0x00, 0xff, 0xff},
                   {}, {}};
        auto img = decode(encodeRawPNG(raw));
        ASSERT_NE(img, nullptr);
        EXPECT_EQ(img->rgbaAt(0, 0), (Rgba{0x80, 0xff, 0x00, 0xff}));
        auto keyed = decode(
            encodeRawPNG({2, 1, PNG_COLOR_TYPE_RGB, 8, false, {9, 9, 9, 5, 6, 7}, {}, {9, 9, 9}}));
        ASSERT_NE(keyed, nullptr);
        EXPECT_EQ(keyed->rgbaAt(0, 0)[3], 0);
        EXPECT_EQ(keyed->rgbaAt(1, 0), (Rgba{5, 6, 7, 255}));
    }
}

TEST(Image, InterlacedPNGDecodesLikeProgressiveOne) {
    RawPNG raw{13, 11, PNG_COLOR_TYPE_RGB, 8, false, {}, {}, {}};
    std::mt19937 rng(7);
    for (int i = 0; i < 13 * 11 * 3; ++i) {
        raw.samples.push_back(static_cast<std::uint8_t>(rng()));
    }
    auto plain = decode(encodeRawPNG(raw));
    raw.interlaced = true;
    auto interlaced = decode(encodeRawPNG(raw));
    ASSERT_NE(plain, nullptr);
    ASSERT_NE(interlaced, nullptr);
    EXPECT_EQ(plain->pixels(), interlaced->pixels());
    EXPECT_EQ(interlaced->rgbaAt(12, 10),
              (Rgba{raw.samples[(10 * 13 + 12) * 3], raw.samples[(10 * 13 + 12) * 3 + 1],
                    raw.samples[(10 * 13 + 12) * 3 + 2], 255}));
}

TEST(Image, DecodesJPEG) {
    std::vector<std::uint8_t> rgb;
    for (int i = 0; i < 16 * 16; ++i) {
        rgb.insert(rgb.end(), {200, 60, 30});
    }
    auto img = decode(encodeJPEG(16, 16, 3, rgb), 2.0);
    ASSERT_NE(img, nullptr);
    EXPECT_EQ(img->pixelWidth(), 16);
    EXPECT_EQ(img->size(), (Size{8, 8}));
    EXPECT_TRUE(img->isOpaque());
    expectNear(img->rgbaAt(5, 5), {200, 60, 30, 255}, 4, "jpeg rgb");

    std::vector<std::uint8_t> gray(8 * 8, 90);
    auto g = decode(encodeJPEG(8, 8, 1, gray));
    ASSERT_NE(g, nullptr);
    expectNear(g->rgbaAt(3, 3), {90, 90, 90, 255}, 2, "jpeg gray");
}

TEST(Image, UndecodableBytesGiveNull) {
    RawPNG raw{4, 4, PNG_COLOR_TYPE_RGB, 8, false, std::vector<std::uint8_t>(48, 100), {}, {}};
    auto png = encodeRawPNG(raw);
    auto jpeg = encodeJPEG(16, 16, 3, std::vector<std::uint8_t>(16 * 16 * 3, 50));

    std::vector<std::vector<std::uint8_t>> bad = {
        {},
        {0x89, 'P', 'N', 'G'},
        {'<', 'h', 't', 'm', 'l', '>'},
        std::vector<std::uint8_t>(png.begin(), png.begin() + 8),      // signature only
        std::vector<std::uint8_t>(png.begin(), png.begin() + 40),     // cut inside the data
        std::vector<std::uint8_t>(jpeg.begin(), jpeg.begin() + 3),    // JPEG marker only
        std::vector<std::uint8_t>(jpeg.begin(), jpeg.begin() + 100),  // cut in the tables
    };
    // A header whose CRC no longer matches.
    auto flipped = png;
    flipped[20] ^= 0x01;
    bad.push_back(flipped);
    // A well-formed header announcing a picture far beyond any sane size.
    bad.push_back(announcing(png, 0x7f000004, 4));
    for (std::size_t i = 0; i < bad.size(); ++i) {
        EXPECT_EQ(Image::fromData(bad[i]), nullptr) << "case " << i;
    }
    EXPECT_EQ(Image::fromFile("/nonexistent/tile.png"), nullptr);
}

TEST(Image, LimitsRefuseLargerPicturesBeforeTheirPixelsAreMade) {
    const ImageLimits tile{64, 64 * 32};
    auto png = [](int w, int h) {
        return encodeRawPNG(RawPNG{w,
                                   h,
                                   PNG_COLOR_TYPE_GRAY,
                                   8,
                                   false,
                                   std::vector<std::uint8_t>(std::size_t(w) * h, 90),
                                   {},
                                   {}});
    };
    auto jpeg = [](int w, int h) {
        return encodeJPEG(w, h, 1, std::vector<std::uint8_t>(std::size_t(w) * h, 90));
    };
    // At the bounds: decoded. One past a side or past the pixel count: refused, PNG and JPEG
    // alike, though the same bytes decode under the default limits.
    for (const auto& encode : {std::function(png), std::function(jpeg)}) {
        EXPECT_NE(Image::fromData(encode(64, 32), 1.0, tile), nullptr);
        EXPECT_NE(Image::fromData(encode(32, 64), 1.0, tile), nullptr);
        for (auto [w, h] : {std::pair{65, 8}, std::pair{8, 65}, std::pair{64, 33}}) {
            const auto bytes = encode(w, h);
            EXPECT_EQ(Image::fromData(bytes, 1.0, tile), nullptr) << w << " x " << h;
            EXPECT_NE(Image::fromData(bytes), nullptr) << w << " x " << h;
        }
    }
    // A 2 KB answer whose header claims 32768 x 8192 pixels is refused at the header.
    std::vector<std::uint8_t> claim = announcing(png(1, 1), 32768, 8192);
    claim.resize(2048, 0);
    EXPECT_EQ(Image::fromData(claim, 1.0, tile), nullptr);
}

std::shared_ptr<Image> gradient(bool withAlpha) {
    std::vector<std::uint32_t> px;
    for (int y = 0; y < 32; ++y) {
        for (int x = 0; x < 40; ++x) {
            std::uint32_t a = withAlpha ? static_cast<std::uint32_t>((x * 7 + y * 3) % 256) : 255;
            std::uint32_t r = a * static_cast<std::uint32_t>(x) / 40;
            std::uint32_t g = a * static_cast<std::uint32_t>(y) / 32;
            std::uint32_t b = a / 2;
            px.push_back((a << 24) | (r << 16) | (g << 8) | b);
        }
    }
    return Image::fromPixels(40, 32, std::move(px));
}

TEST(Image, PNGRoundTripIsExactForEveryOption) {
    using F = PNGOptions::Filter;
    for (bool alpha : {false, true}) {
        auto img = gradient(alpha);
        for (F f : {F::Default, F::None, F::Sub, F::Up, F::Paeth, F::Adaptive}) {
            for (int level : {0, 1, 6, 9}) {
                auto bytes = img->pngData({level, f});
                ASSERT_GT(bytes.size(), 33u);
                // Colour type in the header: RGB for opaque pictures, RGBA otherwise.
                EXPECT_EQ(bytes[25], alpha ? 6 : 2);
                auto back = Image::fromData(bytes);
                ASSERT_NE(back, nullptr);
                EXPECT_EQ(back->pixels(), img->pixels())
                    << "alpha " << alpha << " level " << level << " filter " << int(f);
            }
        }
    }
}

TEST(Image, FromPixelsChecksTheCountAndKeepsTheScale) {
    EXPECT_EQ(Image::fromPixels(2, 2, {1, 2, 3}), nullptr);
    EXPECT_EQ(Image::fromPixels(-1, 0, {}), nullptr);
    auto img = Image::fromPixels(6, 4, std::vector<std::uint32_t>(24, 0xff00ff00u), 2.0);
    ASSERT_NE(img, nullptr);
    EXPECT_EQ(img->size(), (Size{3, 2}));
    EXPECT_EQ(img->scale(), 2.0);
    EXPECT_EQ(img->rgbaAt(5, 3), (Rgba{0, 255, 0, 255}));
    EXPECT_EQ(img->rgbaAt(6, 0), (Rgba{0, 0, 0, 0}));
    EXPECT_EQ(img->rgbaAt(0, -1), (Rgba{0, 0, 0, 0}));
    // An empty picture still encodes to a valid (one clear pixel) PNG.
    auto empty = Image::fromPixels(0, 0, {});
    ASSERT_NE(empty, nullptr);
    EXPECT_NE(Image::fromData(empty->pngData()), nullptr);
}

class ImageFiles : public ::testing::Test {
  protected:
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(dir_)) {
            names.push_back(e.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    test::TempDir scratch_;
    const std::filesystem::path dir_ = scratch_.path();
};

TEST_F(ImageFiles, WritePNGReplacesTheFileWhole) {
    auto path = (dir_ / "tile.png").string();
    std::ofstream(path) << "old contents";
    auto img = gradient(true);
    ASSERT_TRUE(img->writePNG(path));
    EXPECT_EQ(entries(), std::vector<std::string>{"tile.png"});
    auto back = Image::fromFile(path, 2.0);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->pixels(), img->pixels());
    EXPECT_EQ(back->scale(), 2.0);
}

TEST_F(ImageFiles, FailedWritePNGLeavesNoPartialFile) {
    auto img = gradient(false);
    EXPECT_FALSE(img->writePNG((dir_ / "missing" / "tile.png").string()));
    // The target is a non-empty directory: the rename fails after the data was written.
    std::filesystem::create_directories(dir_ / "busy.png" / "inside");
    EXPECT_FALSE(img->writePNG((dir_ / "busy.png").string()));
    EXPECT_EQ(entries(), std::vector<std::string>{"busy.png"});
}

}  // namespace
}  // namespace sorvan::gfx

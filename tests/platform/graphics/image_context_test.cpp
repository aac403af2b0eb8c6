#include "sorvan/platform/graphics/image_context.hpp"

#include <cairo.h>
#include <gtest/gtest.h>

namespace sorvan::gfx {
namespace {

using Rgba = std::array<std::uint8_t, 4>;

void expectNear(const Rgba& actual, const Rgba& expected, const char* what) {
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(actual[i], expected[i], 1) << what << " component " << i;
    }
}

std::shared_ptr<Image> solid(int w, int h, Color c, double scale = 1.0) {
    ImageContext ctx({w / scale, h / scale}, scale);
    ctx.fill({0, 0, w / scale, h / scale}, c);
    return ctx.makeImage();
}

TEST(ImageContext, SizeIsInPointsAndPixelsFollowTheScale) {
    ImageContext ctx({40, 34.25}, 2);
    EXPECT_EQ(ctx.size(), (Size{40, 34.25}));
    EXPECT_EQ(ctx.scale(), 2.0);
    auto img = ctx.makeImage();
    ASSERT_NE(img, nullptr);
    EXPECT_EQ(img->pixelWidth(), 80);
    EXPECT_EQ(img->pixelHeight(), 69);  // rounded up
    EXPECT_EQ(img->scale(), 2.0);
    // A new context is transparent.
    EXPECT_EQ(img->rgbaAt(10, 10), (Rgba{0, 0, 0, 0}));

    // User space is in points: a 10 pt square covers 20 pixels.
    ctx.fill({0, 0, 10, 10}, Color::red());
    img = ctx.makeImage();
    EXPECT_EQ(img->rgbaAt(19, 19), (Rgba{255, 0, 0, 255}));
    EXPECT_EQ(img->rgbaAt(20, 20), (Rgba{0, 0, 0, 0}));
}

TEST(ImageContext, DrawImageIsSourceOver) {
    // Half-transparent red over opaque blue.
    ImageContext ctx({4, 4}, 1);
    ctx.fill({0, 0, 4, 4}, {0, 0, 1, 1});
    ctx.drawImage(*solid(4, 4, {1, 0, 0, 128 / 255.0}), {0, 0, 4, 4});
    auto out = ctx.makeImage();
    expectNear(out->rgbaAt(2, 2), {128, 0, 127, 255}, "over opaque");

    // The same over nothing keeps the source as it is.
    ImageContext clear({4, 4}, 1);
    clear.drawImage(*solid(4, 4, {1, 0, 0, 128 / 255.0}), {0, 0, 4, 4});
    expectNear(clear.makeImage()->rgbaAt(1, 1), {255, 0, 0, 128}, "over clear");

    // Extra opacity multiplies: opaque green at 0.5 over white.
    ImageContext white({4, 4}, 1);
    white.fill({0, 0, 4, 4}, Color::white());
    white.drawImage(*solid(4, 4, {0, 1, 0, 1}), {0, 0, 4, 4}, 0.5);
    expectNear(white.makeImage()->rgbaAt(0, 0), {127, 255, 127, 255}, "with alpha");

    // Fill is source-over too: a clear fill changes nothing.
    white.fill({0, 0, 4, 4}, Color::clear());
    expectNear(white.makeImage()->rgbaAt(3, 3), {127, 255, 127, 255}, "clear fill");
}

TEST(ImageContext, DrawImageScalesIntoTheRectOnly) {
    // A 2x2 picture at scale 2 (1 x 1 pt) drawn into a 2 x 2 pt rect at (1, 1) of a scale-1
    // 4 x 4 context: every pixel is the picture's single colour.
    auto green = solid(2, 2, {0, 1, 0, 1}, 2);
    ASSERT_EQ(green->size(), (Size{1, 1}));
    ImageContext ctx({4, 4}, 1);
    ctx.drawImage(*green, {1, 1, 2, 2});
    auto out = ctx.makeImage();
    EXPECT_EQ(out->rgbaAt(1, 1), (Rgba{0, 255, 0, 255}));
    EXPECT_EQ(out->rgbaAt(2, 2), (Rgba{0, 255, 0, 255}));
    EXPECT_EQ(out->rgbaAt(0, 0), (Rgba{0, 0, 0, 0}));
    EXPECT_EQ(out->rgbaAt(3, 3), (Rgba{0, 0, 0, 0}));

    // A 1:1 draw copies pixels exactly, even odd ones.
    std::vector<std::uint32_t> px = {0x80402010u, 0xff010203u, 0x01010000u, 0u};
    auto odd = Image::fromPixels(2, 2, px);
    ImageContext copy({2, 2}, 1);
    copy.drawImage(*odd, {0, 0, 2, 2});
    EXPECT_EQ(copy.makeImage()->pixels(), px);
}

TEST(ImageContext, CairoDrawsInPoints) {
    ImageContext ctx({10, 10}, 3);
    cairo_t* cr = ctx.cairo();
    ASSERT_EQ(cairo_status(cr), CAIRO_STATUS_SUCCESS);
    cairo_set_source_rgb(cr, 0, 0, 1);
    cairo_rectangle(cr, 5, 5, 5, 5);
    cairo_fill(cr);
    auto img = ctx.makeImage();
    EXPECT_EQ(img->rgbaAt(29, 29), (Rgba{0, 0, 255, 255}));
    EXPECT_EQ(img->rgbaAt(14, 14), (Rgba{0, 0, 0, 0}));
    EXPECT_EQ(img->rgbaAt(15, 15), (Rgba{0, 0, 255, 255}));
}

TEST(ImageContext, DegenerateSizesGiveEmptyPictures) {
    for (Size s : {Size{0, 0}, Size{-5, 10}, Size{1e9, 1}}) {
        ImageContext ctx(s, 1);
        ctx.fill({0, 0, 10, 10}, Color::red());  // must not crash
        auto img = ctx.makeImage();
        ASSERT_NE(img, nullptr);
        EXPECT_EQ(img->pixels().size(), 0u);
    }
}

}  // namespace
}  // namespace sorvan::gfx

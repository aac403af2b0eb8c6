#include "tile_painter.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "sorvan/platform/graphics/image_context.hpp"
#include "tile_cache.hpp"

namespace sorvan::server {
namespace {

// Bangkok's old town at zoom 15, and its neighbours.
constexpr int kZ = 15;
constexpr std::int64_t kX = 25530, kY = 15116;

std::shared_ptr<gfx::Image> decoded(const std::string& style, int z, std::int64_t x,
                                    std::int64_t y) {
    auto bytes = tilePNG(style, z, x, y);
    if (!bytes) {
        return nullptr;
    }
    return gfx::Image::fromData(
        std::span(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size()));
}

double meanDifference(const gfx::Image& a, const gfx::Image& b) {
    double sum = 0;
    for (int y = 0; y < a.pixelHeight(); ++y) {
        for (int x = 0; x < a.pixelWidth(); ++x) {
            auto p = a.rgbaAt(x, y), q = b.rgbaAt(x, y);
            for (int c = 0; c < 4; ++c) {
                sum += std::abs(int(p[c]) - int(q[c]));
            }
        }
    }
    return sum / (a.pixelWidth() * a.pixelHeight() * 4.0);
}

double transparentShare(const gfx::Image& img) {
    int clear = 0;
    for (auto p : img.pixels()) {
        clear += (p >> 24) == 0;
    }
    return double(clear) / static_cast<double>(img.pixels().size());
}

TEST(TilePainter, TilesAre256PixelPNGsThatDifferByStyle) {
    auto normal = decoded("normal", kZ, kX, kY);
    ASSERT_NE(normal, nullptr);
    EXPECT_EQ(normal->pixelWidth(), 256);
    EXPECT_EQ(normal->pixelHeight(), 256);
    EXPECT_TRUE(normal->isOpaque());
    for (const char* style :
         {"gray", "thaichote", "hydro", "politicalwhite", "osm", "no-such-style"}) {
        auto other = decoded(style, kZ, kX, kY);
        ASSERT_NE(other, nullptr) << style;
        EXPECT_TRUE(other->isOpaque()) << style;
        EXPECT_GT(meanDifference(*normal, *other), 1.0) << style;
    }
    // The English variant differs in its labels only (on a tile two east, which has some).
    double english =
        meanDifference(*decoded("normal", kZ, kX + 2, kY), *decoded("normal-en", kZ, kX + 2, kY));
    EXPECT_GT(english, 0.0);
    EXPECT_LT(english, 1.0);
    // Gray is gray.
    auto gray = decoded("gray", kZ, kX, kY);
    int coloured = 0;
    for (int y = 0; y < 256; ++y) {
        for (int x = 0; x < 256; ++x) {
            auto p = gray->rgbaAt(x, y);
            coloured += std::abs(p[0] - p[1]) > 3 || std::abs(p[1] - p[2]) > 3;
        }
    }
    EXPECT_EQ(coloured, 0);
}

TEST(TilePainter, OverlayStylesAreTransparentWithSomethingOnThem) {
    for (const char* style : {"icons", "iconstransp", "icons-en", "trafficoverlay"}) {
        auto img = decoded(style, kZ, kX, kY);
        ASSERT_NE(img, nullptr) << style;
        double share = transparentShare(*img);
        EXPECT_GT(share, 0.6) << style;
        EXPECT_LT(share, 0.995) << style;
    }
}

TEST(TilePainter, NeighbouringTilesLineUp) {
    // Painting two neighbours separately and the box that covers both at the same resolution
    // gives the same pixels, so every shared edge matches.
    for (auto [dx, dy] : {std::pair{1, 0}, std::pair{0, 1}}) {
        for (const char* style : {"normal", "thaichote", "trafficoverlay", "politicalwhite"}) {
            MapBox a = tileBox(kZ, kX, kY), b = tileBox(kZ, kX + dx, kY + dy);
            MapBox both{MapBox::SRS::Mercator3857, std::min(a.minX, b.minX),
                        std::min(a.minY, b.minY), std::max(a.maxX, b.maxX),
                        std::max(a.maxY, b.maxY)};
            auto first = paintMap(style, a, 256, 256);
            auto second = paintMap(style, b, 256, 256);
            auto whole = paintMap(style, both, 256 + 256 * dx, 256 + 256 * dy);
            ASSERT_TRUE(first && second && whole);
            // Premultiplied components: straight colours of nearly clear pixels say little.
            auto component = [](const gfx::Image& img, int x, int y, int c) {
                return int(
                    (img.pixels()[static_cast<std::size_t>(y) * img.pixelWidth() + x] >> (8 * c)) &
                    0xff);
            };
            int worst = 0;
            for (int y = 0; y < 256; ++y) {
                for (int x = 0; x < 256; ++x) {
                    for (int c = 0; c < 4; ++c) {
                        worst = std::max(
                            {worst,
                             std::abs(component(*first, x, y, c) - component(*whole, x, y, c)),
                             std::abs(component(*second, x, y, c) -
                                      component(*whole, x + 256 * dx, y + 256 * dy, c))});
                    }
                }
            }
            EXPECT_LE(worst, 8) << style << " dx " << dx << " dy " << dy;
        }
    }
}

TEST(TilePainter, GeographicBoxesAndBadSizes) {
    MapBox deg{MapBox::SRS::Geographic4326, 100.45, 13.70, 100.55, 13.80};
    auto img = paintMap("normal", deg, 300, 200);
    ASSERT_NE(img, nullptr);
    EXPECT_EQ(img->pixelWidth(), 300);
    EXPECT_TRUE(img->isOpaque());
    // The same place in metres looks alike (the two projections differ little here).
    MapBox metres{MapBox::SRS::Mercator3857, 11181826, 1544563, 11192958, 1556033};
    auto m = paintMap("normal", metres, 300, 200);
    ASSERT_NE(m, nullptr);
    EXPECT_LT(meanDifference(*img, *m), 40);

    EXPECT_EQ(paintMap("normal", deg, 0, 10), nullptr);
    EXPECT_EQ(paintMap("normal", deg, 10, 9000), nullptr);
    EXPECT_EQ(paintMap("normal", {MapBox::SRS::Mercator3857, 5, 5, 5, 6}, 10, 10), nullptr);
}

TEST(TilePainter, RepeatedTilesComeFromTheCache) {
    auto first = tilePNG("hydro", 12, 3191, 1889);
    auto second = tilePNG("hydro", 12, 3191, 1889);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first.get(), second.get());
    // Painting is deterministic even without the cache.
    EXPECT_EQ(paintTile("hydro", 12, 3191, 1889)->pixels(),
              gfx::Image::fromData(
                  std::span(reinterpret_cast<const std::uint8_t*>(first->data()), first->size()))
                  ->pixels());
}

TEST(TilePainter, LowAndDeepZoomsPaint) {
    for (auto [z, x, y] : {std::tuple{0, 0, 0}, std::tuple{1, 1, 0}, std::tuple{4, 12, 7},
                           std::tuple{20, 816938, 483722}}) {
        auto img = paintTile("normal", z, x, y);
        ASSERT_NE(img, nullptr) << z;
        EXPECT_EQ(img->pixelWidth(), 256);
    }
}

TEST(TileQuery, RecoversZoomColumnAndRowFromTheImageId) {
    // mode 5 in English, x 3, y 5, z 3: res 8, n 43.
    auto a = parseTileQuery("c=1&proj=epsg3857&mode=normal-en&res=8&imgid=39708641927&key=K&HD=1");
    ASSERT_TRUE(a.has_value());
    EXPECT_EQ(*a, (TileAddress{"normal-en", 3, 3, 5}));
    // Zoom 0 sends res 0.
    EXPECT_EQ(*parseTileQuery("mode=gray&res=0&imgid=0"), (TileAddress{"gray", 0, 0, 0}));
    // The deepest tile of zoom 20, whose id is above 2^53.
    double n = (std::exp2(20) - 1) * std::exp2(20) + (std::exp2(20) - 2);
    char query[128];
    std::snprintf(query, sizeof query, "mode=osm&res=1048576&imgid=%.0f", n * 923456789.0);
    EXPECT_EQ(*parseTileQuery(query), (TileAddress{"osm", 20, 1048574, 1048575}));
    // Percent-escapes in the mode; a missing mode is empty.
    EXPECT_EQ(parseTileQuery("mode=normal%2Den&res=2&imgid=923456789")->mode, "normal-en");
    EXPECT_EQ(parseTileQuery("res=2&imgid=923456789")->mode, "");

    for (const char* bad :
         {"", "mode=normal", "res=8", "imgid=5", "res=x&imgid=1", "res=8&imgid=1e",
          "res=-2&imgid=0", "res=8&imgid=-923456789", "res=99999999999&imgid=0"}) {
        EXPECT_FALSE(parseTileQuery(bad).has_value()) << bad;
    }
}

}  // namespace
}  // namespace sorvan::server

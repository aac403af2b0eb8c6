// The drawn-tile cache on its own: when a drawn tile is current, which draw wins, stand-ins
// and what a frame keeps.
#include "map/drawn_tile_cache.hpp"

#include <cairo.h>
#include <gtest/gtest.h>

namespace sorvan::map::detail {
namespace {

const auto* const kRenderer = reinterpret_cast<const OverlayRenderer*>(0x10);
const auto* const kOther = reinterpret_cast<const OverlayRenderer*>(0x20);

// A drawn tile of side pixels (4 * side * side bytes).
DrawResult drawnOf(int side, bool opaque = true) {
    DrawResult r;
    r.surface.reset(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, side, side),
                    cairo_surface_destroy);
    r.opaque = opaque;
    r.empty = false;
    return r;
}

TEST(DrawnTileCache, ANewerDrawIsNeverReplacedByAnOlderOne) {
    DrawnTileCache cache;
    DrawKey key{kRenderer, 12, 3190, 1890};
    cache.beginFrame();
    DrawnTile& d = cache.touch(key);
    EXPECT_FALSE(DrawnTileCache::isCurrent(d, 0, 0)) << "never drawn";
    EXPECT_TRUE(DrawnTileCache::beginDraw(d, 1, 5));
    EXPECT_FALSE(DrawnTileCache::beginDraw(d, 1, 5)) << "that draw is already in flight";
    EXPECT_TRUE(DrawnTileCache::beginDraw(d, 2, 5)) << "a setNeedsDisplay since: draw again";

    // The draw of generation 2 lands first, then the older one: the newer stays, and the
    // older one does not clear the pending mark of the newer.
    EXPECT_TRUE(cache.install(key, drawnOf(8), 2, 5));
    EXPECT_TRUE(DrawnTileCache::isCurrent(*cache.find(key), 2, 5));
    EXPECT_FALSE(cache.find(key)->pending);
    EXPECT_TRUE(cache.install(key, drawnOf(4), 1, 5));
    EXPECT_EQ(cairo_image_surface_get_width(cache.find(key)->drawn.surface.get()), 8);
    EXPECT_EQ(cache.find(key)->bytes, 8u * 8 * 4);
    // New data (a higher version) replaces it; a draw with no surface shows nothing.
    EXPECT_TRUE(cache.install(key, DrawResult{}, 2, 6));
    const DrawnTile* now = cache.find(key);
    EXPECT_TRUE(now->valid);
    EXPECT_TRUE(now->drawn.empty);
    EXPECT_EQ(now->bytes, 0u);

    // A draw for a tile the cache let go of is dropped.
    cache.forget(kRenderer);
    EXPECT_FALSE(cache.install(key, drawnOf(8), 3, 6));
    EXPECT_EQ(cache.find(key), nullptr);
}

TEST(DrawnTileCache, StandInsComeFromUpToFourLevelsUpOverTheSameGround) {
    DrawnTileCache cache;
    cache.beginFrame();
    // Level 10 tile (5, 9) lies in level 8 tile (1, 2) and level 5 tile (0, 0).
    DrawKey key{kRenderer, 10, 5, 9};
    int up = 0;
    EXPECT_EQ(cache.standIn(key, 4, up), nullptr);
    cache.touch({kRenderer, 5, 0, 0});
    cache.install({kRenderer, 5, 0, 0}, drawnOf(4), 0, 0);
    EXPECT_EQ(cache.standIn(key, 4, up), nullptr) << "five levels up is too coarse";
    cache.touch({kRenderer, 8, 1, 2});
    EXPECT_EQ(cache.standIn(key, 4, up), nullptr) << "shown but never drawn";
    cache.touch({kRenderer, 8, 2, 2});
    cache.install({kRenderer, 8, 2, 2}, drawnOf(4), 0, 0);
    cache.touch({kOther, 8, 1, 2});
    cache.install({kOther, 8, 1, 2}, drawnOf(4), 0, 0);
    EXPECT_EQ(cache.standIn(key, 4, up), nullptr) << "a neighbour or another renderer's";
    cache.install({kRenderer, 8, 1, 2}, drawnOf(4), 0, 0);
    EXPECT_EQ(cache.standIn(key, 4, up), cache.find({kRenderer, 8, 1, 2}));
    EXPECT_EQ(up, 2);
    cache.touch({kRenderer, 9, 2, 4});
    cache.install({kRenderer, 9, 2, 4}, drawnOf(4), 0, 0);
    EXPECT_EQ(cache.standIn(key, 4, up), cache.find({kRenderer, 9, 2, 4}));
    EXPECT_EQ(up, 1) << "the nearest level first";
    EXPECT_EQ(cache.standIn({kRenderer, 0, 0, 0}, 4, up), nullptr);
}

TEST(DrawnTileCache, AFrameKeepsItsTilesAndTheMostRecentOthersWithinTheBudget) {
    constexpr std::size_t kTile = 16 * 16 * 4;
    DrawnTileCache cache(2 * kTile);
    auto show = [&](std::int64_t x) {
        DrawKey key{kRenderer, 3, x, 0};
        cache.touch(key);
        cache.install(key, drawnOf(16), 0, 0);
    };
    // Frames 1 to 4 show tiles 0 to 3, one each; frame 5 shows tiles 4 to 7.
    for (std::int64_t x = 0; x < 4; ++x) {
        cache.beginFrame();
        show(x);
        cache.trim();
    }
    EXPECT_EQ(cache.size(), 3u) << "the frame's tile and two others";
    EXPECT_EQ(cache.find({kRenderer, 3, 0, 0}), nullptr);
    cache.beginFrame();
    // Tile 1 has a draw in flight: it is not let go even though it is the oldest.
    DrawnTileCache::beginDraw(cache.touch({kRenderer, 3, 1, 0}), 1, 0);
    cache.beginFrame();
    for (std::int64_t x = 4; x < 8; ++x)
        show(x);
    cache.trim();
    EXPECT_EQ(cache.bytes(), 4 * kTile + kTile + 2 * kTile - kTile)
        << "the four shown over the budget, the pending one, the newest other";
    for (std::int64_t x = 4; x < 8; ++x)
        EXPECT_NE(cache.find({kRenderer, 3, x, 0}), nullptr) << x;
    EXPECT_NE(cache.find({kRenderer, 3, 1, 0}), nullptr);
    EXPECT_NE(cache.find({kRenderer, 3, 3, 0}), nullptr);
    EXPECT_EQ(cache.find({kRenderer, 3, 2, 0}), nullptr);

    cache.clear();
    EXPECT_EQ(cache.size(), 0u);
}

}  // namespace
}  // namespace sorvan::map::detail

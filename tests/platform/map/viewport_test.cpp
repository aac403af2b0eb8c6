// The camera arithmetic on its own: ranges, wrapping, conversions and level choice.
#include "map/viewport.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace sorvan::map::detail {
namespace {

constexpr Coordinate kBangkok{13.7563, 100.5018};

// A camera showing 256-pixel tiles of level z at one tile pixel per device pixel at scale 2.
Camera atLevel(int z, MapPoint center, double heading = 0) {
    return {center, 128.0 * std::exp2(z) / kMapWorldSize, heading};
}

TEST(Viewport, CamerasAreBroughtIntoRange) {
    Viewport v({400, 300});
    EXPECT_DOUBLE_EQ(v.camera().zoom, 400 / kMapWorldSize) << "starts on the world's width";

    Camera c = v.normalized({{-10, -5}, 1e9, -90});
    EXPECT_DOUBLE_EQ(c.center.x, kMapWorldSize - 10) << "wraps west of the antimeridian";
    EXPECT_DOUBLE_EQ(c.center.y, 0) << "stops at the top of the world";
    EXPECT_DOUBLE_EQ(c.zoom, v.maxZoom());
    EXPECT_DOUBLE_EQ(std::log2(400 / (400 / c.zoom)) + 20, Viewport::kMaxZoomLevel);
    EXPECT_DOUBLE_EQ(c.heading, 270);
    c = v.normalized({{kMapWorldSize * 2.5, kMapWorldSize + 1}, 0, 720.5});
    EXPECT_DOUBLE_EQ(c.center.x, kMapWorldSize / 2);
    EXPECT_DOUBLE_EQ(c.center.y, kMapWorldSize);
    EXPECT_DOUBLE_EQ(c.zoom, v.minZoom());
    EXPECT_DOUBLE_EQ(c.heading, 0.5);
    EXPECT_DOUBLE_EQ(v.normalized({{}, 1, -1e-300}).heading, 0) << "never 360";

    // Moving where it stands, or to a spot that normalises there, is no move.
    EXPECT_FALSE(v.moveTo(v.camera()));
    EXPECT_TRUE(v.moveTo(atLevel(10, mapPointForCoordinate(kBangkok))));
    Camera same = v.camera();
    same.heading += 360;
    EXPECT_FALSE(v.moveTo(same));

    // A wider view cannot zoom out as far: the camera follows.
    v.moveTo({v.camera().center, v.minZoom(), 0});
    EXPECT_FALSE(v.setSize({400, 300}));
    EXPECT_TRUE(v.setSize({800, 300}));
    EXPECT_DOUBLE_EQ(v.camera().zoom, 800 / kMapWorldSize);

    EXPECT_FALSE(v.setScale(2.4)) << "rounds to the scale it has";
    EXPECT_TRUE(v.setScale(7));
    EXPECT_EQ(v.scale(), 3);
    EXPECT_TRUE(v.setScale(0.2));
    EXPECT_EQ(v.scale(), 1);
}

TEST(Viewport, ConvertsBothWaysRotatedAndAcrossTheAntimeridian) {
    Viewport v({400, 300});
    MapPoint c = mapPointForCoordinate(kBangkok);
    v.moveTo(atLevel(12, c, 33));
    Projection project = v.projection();
    for (gfx::Point p : {gfx::Point{0, 0}, gfx::Point{399, 17}, gfx::Point{123, 290}}) {
        MapPoint m = v.mapFromPoint(p);
        gfx::Point back = v.pointFromMap(m);
        EXPECT_NEAR(back.x, p.x, 1e-6);
        EXPECT_NEAR(back.y, p.y, 1e-6);
        gfx::Point fast = project(m);
        EXPECT_EQ(fast.x, back.x) << "the frame's projection is the same arithmetic";
        EXPECT_EQ(fast.y, back.y);
    }
    // Facing east, a point east of the centre is above it.
    v.moveTo(atLevel(12, c, 90));
    gfx::Point east = v.pointFromMap({c.x + 1000, c.y});
    EXPECT_NEAR(east.x, 200, 1e-9);
    EXPECT_LT(east.y, 150);
    // A quarter turn swaps what the rotated view covers.
    MapRect covered = v.coveredRect();
    MapRect visible = v.visibleRect();
    EXPECT_NEAR(covered.size.width, visible.size.height, 1e-6);
    EXPECT_NEAR(covered.size.height, visible.size.width, 1e-6);

    // Near the antimeridian the shorter way round is taken, and mapFromPoint stays unwrapped.
    v.moveTo(atLevel(4, {10, kMapWorldSize / 2}));
    gfx::Point west = v.pointFromMap({kMapWorldSize - 10, kMapWorldSize / 2});
    EXPECT_LT(west.x, 200);
    EXPECT_GT(west.x, 199);
    EXPECT_LT(v.mapFromPoint({0, 150}).x, 0);
    EXPECT_LT(v.coveredRect().minX(), 0);
}

// How regions fit the view and where zooms and pans leave the map is pinned through the map
// view's own conversions; here, what only the viewport decides.
TEST(Viewport, DegenerateRegionsKeepTheZoomAndComputedCamerasWaitToBeApplied) {
    Viewport v({400, 300});
    v.moveTo(v.showing({kBangkok, {0.05, 0.05}}));
    double zoom = v.camera().zoom;
    EXPECT_DOUBLE_EQ(v.showing(CoordinateRegion{kBangkok, {0, 0}}).zoom, zoom);

    MapPoint centre = v.camera().center;
    Camera zoomed = v.zoomed(2, {40, 30});
    Camera panned = v.panned(30, -20);
    Camera turned = v.rotated(-30);
    EXPECT_EQ(v.camera().zoom, zoom);
    EXPECT_EQ(v.camera().center.x, centre.x);
    EXPECT_NE(panned.center.x, centre.x);
    EXPECT_DOUBLE_EQ(v.normalized(turned).heading, 330);
    v.moveTo(zoomed);
    EXPECT_DOUBLE_EQ(v.camera().zoom, zoom * 2);
}

TEST(Viewport, TileLevelIsTheNearestToTheTilesOwnSize) {
    Viewport v({400, 300});
    MapPoint c = mapPointForCoordinate(kBangkok);
    v.moveTo(atLevel(10, c));
    EXPECT_EQ(v.tileLevel(256), 10);
    EXPECT_EQ(v.tileLevel(512), 9) << "512-pixel tiles cover twice the points";
    v.moveTo(v.zoomed(std::exp2(0.45), {200, 150}));
    EXPECT_EQ(v.tileLevel(256), 10);
    v.moveTo(v.zoomed(std::exp2(0.1), {200, 150}));
    EXPECT_EQ(v.tileLevel(256), 11);
    v.moveTo({c, v.minZoom(), 0});
    EXPECT_EQ(v.tileLevel(256), 2) << "400 points of world: about three 128-point tiles";
}

}  // namespace
}  // namespace sorvan::map::detail

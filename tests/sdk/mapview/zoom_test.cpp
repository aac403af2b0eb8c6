#include <cmath>
#include <limits>

#include "map_view_fixture.hpp"

namespace sorvan::test {
namespace {

constexpr map::Coordinate kBangkok{13.7563, 100.5018};

// Lets an animated change finish.
void settle(SorvanMapView& view, double expectedZoom) {
    dispatch::RunLoop::main().runUntil(
        [&] { return std::abs(view.zoomLevel() - expectedZoom) < 0.05; }, dispatch::Duration(5));
}

TEST_F(MapViewTest, SetZoomLevelIgnoresTwentyOneAndAbove) {
    showAt(kBangkok, 12.0);
    map::MapRect before = view_->visibleMapRect();
    for (double z : {21.0, 25.0, std::numeric_limits<double>::quiet_NaN()}) {
        view_->setZoomLevel(z);
        dispatch::RunLoop::main().runUntil([] { return false; }, dispatch::Duration(0.05));
        EXPECT_EQ(view_->visibleMapRect(), before) << z;
    }
    view_->setZoomLevel(20.9);
    settle(*view_, 20.9);
    EXPECT_NEAR(view_->zoomLevel(), 20.9, 0.05);
    EXPECT_NEAR(view_->centerCoordinate().latitude, kBangkok.latitude, 1e-4);
}

TEST_F(MapViewTest, SetZoomLevelAtWorldScaleIgnoresZeroAndBelow) {
    view_->setRegion({{0, 0}, {170, 360}});
    ASSERT_GE(view_->region().span.latitudeDelta, 90.0);
    map::MapRect before = view_->visibleMapRect();
    for (double z : {0.0, -1.0}) {
        view_->setZoomLevel(z);
        dispatch::RunLoop::main().runUntil([] { return false; }, dispatch::Duration(0.05));
        EXPECT_EQ(view_->visibleMapRect(), before) << z;
    }
    view_->setZoomLevel(3.0);
    settle(*view_, 3.0);
    EXPECT_NEAR(view_->zoomLevel(), 3.0, 0.05);
}

TEST_F(MapViewTest, CoordinateSpanUsesBaseTwentyOne) {
    // 512 points at zoom 1 cover the whole world: 2^21 * 2^-1 * 512 = 2^29 pixel units.
    view_->setCenterCoordinate({0, 0});
    map::CoordinateSpan span = view_->coordinateSpanWithZoomLevel(1.0);
    EXPECT_DOUBLE_EQ(span.longitudeDelta, 360.0);
    EXPECT_NEAR(span.latitudeDelta, 2 * 85.05112877980659, 1e-9);
    span = view_->coordinateSpanWithZoomLevel(2.0);
    EXPECT_DOUBLE_EQ(span.longitudeDelta, 180.0);
    // The same zoom as zoomLevel() reports for the same view.
    showAt(kBangkok, 15.0);
    span = view_->coordinateSpanWithZoomLevel(15.0);
    EXPECT_NEAR(span.longitudeDelta, view_->region().span.longitudeDelta, 1e-6);
}

TEST_F(MapViewTest, RegionChangeRoundsHalvesUpAndBouncesTwentyOne) {
    showAt(kBangkok, 20.49);
    map::MapRect before = view_->visibleMapRect();
    view_->regionDidChangeAnimated(*view_, false);
    EXPECT_EQ(globals::currentZoom(), 20);
    dispatch::RunLoop::main().runUntil([] { return false; }, dispatch::Duration(0.05));
    EXPECT_EQ(view_->visibleMapRect(), before);

    showAt(kBangkok, 20.5);
    view_->regionDidChangeAnimated(*view_, false);
    EXPECT_EQ(globals::currentZoom(), 21);
    // The bounce to 20 changes currentZoom only through the region change it causes.
    settle(*view_, 20.0);
    EXPECT_NEAR(view_->zoomLevel(), 20.0, 0.05);
    dispatch::RunLoop::main().runUntil([] { return globals::currentZoom() == 20; },
                                       dispatch::Duration(2));
    EXPECT_EQ(globals::currentZoom(), 20);

    showAt(kBangkok, 9.5);
    view_->regionDidChangeAnimated(*view_, false);
    EXPECT_EQ(globals::currentZoom(), 10);
}

TEST_F(MapViewTest, RegionChangeOfAZeroWidthViewIsHarmless) {
    // The zoom of a view with no width is not a number (or minus infinity); converting it to
    // the integer zoom must saturate rather than be undefined.
    auto flat = SorvanMapView::create({0, 0, 0, 100});
    double zoom = flat->zoomLevel();
    ASSERT_FALSE(std::isfinite(zoom));
    flat->regionDidChangeAnimated(*flat, false);
    EXPECT_EQ(globals::currentZoom(),
              std::isnan(zoom) ? 0 : std::numeric_limits<std::int32_t>::min());
}

}  // namespace
}  // namespace sorvan::test

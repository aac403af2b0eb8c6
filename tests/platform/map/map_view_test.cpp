#include "sorvan/platform/map/map_view.hpp"

#include <gtest/gtest.h>

#include <cmath>

#include "sorvan/platform/location/replay_location_source.hpp"
#include "sorvan/platform/ui/controls.hpp"
#include "support/engine_fixtures.hpp"

namespace sorvan::map {
namespace {

using test::pumpMainQueue;
using test::RecordingDelegate;

constexpr Coordinate kBangkok{13.7563, 100.5018};

LocationFix fix(Coordinate c) {
    LocationFix f;
    f.coordinate = c;
    return f;
}

struct Fixture {
    std::shared_ptr<MapView> view = std::make_shared<MapView>(gfx::Rect{0, 0, 400, 300});
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    Fixture() {
        view->setDelegate(delegate);
        pumpMainQueue(0);
        delegate->regionChanges.clear();
    }
};

TEST(MapView, ViewportGeometryFollowsRegionZoomAndHeading) {
    Fixture f;
    f.view->setRegion({kBangkok, {0.05, 0.05}});
    // The region fits: at least the asked span, and the view's aspect ratio.
    CoordinateRegion r = f.view->region();
    EXPECT_NEAR(r.center.latitude, kBangkok.latitude, 1e-9);
    EXPECT_NEAR(r.center.longitude, kBangkok.longitude, 1e-9);
    EXPECT_GE(r.span.latitudeDelta, 0.05 - 1e-9);
    // Latitude degrees are longer on the Mercator plane than longitude degrees here.
    double stretch = 1 / std::cos(kBangkok.latitude * M_PI / 180);
    EXPECT_NEAR(r.span.longitudeDelta, 0.05 * 400 / 300 * stretch, 1e-4);
    CoordinateRegion fits = f.view->regionThatFits({kBangkok, {0.05, 0.05}});
    EXPECT_NEAR(fits.span.longitudeDelta, r.span.longitudeDelta, 1e-9);

    MapRect visible = f.view->visibleMapRect();
    EXPECT_NEAR(visible.size.width / visible.size.height, 400.0 / 300.0, 1e-9);
    MapPoint c = mapPointForCoordinate(kBangkok);
    EXPECT_NEAR(visible.origin.x + visible.size.width / 2, c.x, 1e-3);

    gfx::Point p = f.view->convertCoordinateToPoint(kBangkok, f.view.get());
    EXPECT_NEAR(p.x, 200, 1e-6);
    EXPECT_NEAR(p.y, 150, 1e-6);
    Coordinate east{kBangkok.latitude, kBangkok.longitude + 0.01};
    gfx::Point pe = f.view->convertCoordinateToPoint(east, nullptr);
    EXPECT_GT(pe.x, 200);
    EXPECT_NEAR(pe.y, 150, 1e-6);

    // Facing east, east is up; facing south, it is on the left.
    f.view->setCameraHeading(90);
    pe = f.view->convertCoordinateToPoint(east, nullptr);
    EXPECT_NEAR(pe.x, 200, 1e-6);
    EXPECT_LT(pe.y, 150);
    f.view->setCameraHeading(-180);
    EXPECT_DOUBLE_EQ(f.view->cameraHeading(), 180);
    pe = f.view->convertCoordinateToPoint(east, nullptr);
    EXPECT_LT(pe.x, 200);

    // Points and coordinates convert back and forth, rotated too.
    f.view->setCameraHeading(33);
    for (gfx::Point q : {gfx::Point{0, 0}, gfx::Point{399, 17}, gfx::Point{123, 290}}) {
        Coordinate k = f.view->convertPointToCoordinate(q, f.view.get());
        gfx::Point back = f.view->convertCoordinateToPoint(k, f.view.get());
        EXPECT_NEAR(back.x, q.x, 1e-5);
        EXPECT_NEAR(back.y, q.y, 1e-5);
    }

    // Subviews convert through their frames.
    auto child = std::make_shared<ui::View>(gfx::Rect{50, 60, 10, 10});
    f.view->addSubview(child);
    gfx::Point inChild = f.view->convertCoordinateToPoint(f.view->centerCoordinate(), child.get());
    EXPECT_NEAR(inChild.x, 150, 1e-6);
    EXPECT_NEAR(inChild.y, 90, 1e-6);
}

TEST(MapView, ZoomScaleIsBoundsWidthOverVisibleWidth) {
    Fixture f;
    test::showLevel(*f.view, 10, mapPointForCoordinate(kBangkok));
    MapRect v = f.view->visibleMapRect();
    double zoomLevel = std::log2(400 / v.size.width) + 20;
    // 256-pixel tiles at level 10 on a 2x display: zoom level 10 in the 256-point sense - 1.
    EXPECT_NEAR(zoomLevel, 9, 1e-9);

    f.view->zoomBy(2, {200, 150});
    EXPECT_NEAR(std::log2(400 / f.view->visibleMapRect().size.width) + 20, 10, 1e-9);
    // Zooming about a point keeps the map under it.
    Coordinate under = f.view->convertPointToCoordinate({40, 30}, nullptr);
    f.view->zoomBy(3, {40, 30});
    gfx::Point still = f.view->convertCoordinateToPoint(under, nullptr);
    EXPECT_NEAR(still.x, 40, 1e-6);
    EXPECT_NEAR(still.y, 30, 1e-6);
    // Zoom stops at the deepest level and at the whole world.
    f.view->zoomBy(1e9, {200, 150});
    EXPECT_NEAR(std::log2(400 / f.view->visibleMapRect().size.width) + 20, 22, 1e-9);
    f.view->zoomBy(1e-12, {200, 150});
    EXPECT_NEAR(f.view->visibleMapRect().size.width, kMapWorldSize, 1e-3);

    // A pan moves the content with the finger, in any heading.
    test::showLevel(*f.view, 12, mapPointForCoordinate(kBangkok));
    f.view->setCameraHeading(90);
    Coordinate before = f.view->convertPointToCoordinate({200, 150}, nullptr);
    f.view->panBy(30, -20);
    gfx::Point moved = f.view->convertCoordinateToPoint(before, nullptr);
    EXPECT_NEAR(moved.x, 230, 1e-6);
    EXPECT_NEAR(moved.y, 130, 1e-6);
}

TEST(MapView, PostsOneRegionChangePerCompletedChangeOnTheMainQueue) {
    Fixture f;
    f.view->setRegion({kBangkok, {0.1, 0.1}}, true);
    f.view->setCenterCoordinate({13.8, 100.6});
    f.view->panBy(10, 0);
    f.view->zoomBy(2, {0, 0});
    f.view->rotateBy(15);
    EXPECT_TRUE(f.delegate->regionChanges.empty()) << "delivered later, on the main queue";
    pumpMainQueue();
    EXPECT_EQ(f.delegate->regionChanges, (std::vector<bool>{true, false, false, false, false}));

    // A change that changes nothing is no change.
    f.delegate->regionChanges.clear();
    f.view->setCenterCoordinate(f.view->centerCoordinate());
    f.view->rotateBy(0);
    f.view->panBy(0, 0);
    pumpMainQueue();
    EXPECT_TRUE(f.delegate->regionChanges.empty());

    // Nothing is delivered for a view that is gone.
    f.view->panBy(5, 5);
    f.view.reset();
    pumpMainQueue();
    EXPECT_TRUE(f.delegate->regionChanges.empty());
}

class TopInsertingMap : public MapView {
  public:
    using MapView::MapView;
    // Like a subclass that stacks everything at the bottom but still uses the base behaviour.
    void addOverlay(const std::shared_ptr<Overlay>& overlay) override {
        ++added;
        if (overlays().empty())
            baseAddOverlay(overlay);
        else
            insertOverlayAtIndex(overlay, 0);
    }
    void removeOverlays(const std::vector<std::shared_ptr<Overlay>>& list) override {
        ++removed;
        baseRemoveOverlays(list);
    }
    int added = 0, removed = 0;
};

TEST(MapView, AsksForARendererWhenAnOverlayIsAddedAndKeepsIt) {
    Fixture f;
    auto a = std::make_shared<test::GeneratedTileOverlay>();
    auto b = std::make_shared<test::GeneratedTileOverlay>();
    auto c = std::make_shared<Polyline>(std::vector<MapPoint>{{0, 0}, {10, 10}});
    f.delegate->makeRenderer =
        [](const std::shared_ptr<Overlay>& o) -> std::shared_ptr<OverlayRenderer> {
        if (auto t = std::dynamic_pointer_cast<TileOverlay>(o))
            return std::make_shared<TileOverlayRenderer>(t);
        return nullptr;  // a null renderer draws nothing
    };
    f.view->addOverlay(a);
    ASSERT_EQ(f.delegate->rendererRequests.size(), 1u) << "asked synchronously";
    EXPECT_EQ(f.delegate->overlaysWhenAsked, 1u);
    auto ra = f.view->rendererForOverlay(a);
    ASSERT_TRUE(ra);
    EXPECT_EQ(ra->overlay(), a);
    EXPECT_EQ(ra->mapView(), f.view);

    f.view->addOverlay(c);
    EXPECT_EQ(f.view->rendererForOverlay(c), nullptr);
    f.view->insertOverlayAbove(b, a);
    EXPECT_EQ(f.view->overlays(), (std::vector<std::shared_ptr<Overlay>>{a, b, c}));
    f.view->insertOverlayAtIndex(b, 0);  // already on the map: no change, no second renderer
    EXPECT_EQ(f.view->overlays(), (std::vector<std::shared_ptr<Overlay>>{a, b, c}));
    EXPECT_EQ(f.delegate->rendererRequests.size(), 3u);
    EXPECT_EQ(f.view->rendererForOverlay(a), ra) << "kept, not asked again";

    std::weak_ptr<OverlayRenderer> weak = ra;
    ra.reset();
    f.view->removeOverlays({a, c});
    EXPECT_EQ(f.view->overlays(), (std::vector<std::shared_ptr<Overlay>>{b}));
    EXPECT_EQ(f.view->rendererForOverlay(a), nullptr);
    pumpMainQueue();
    EXPECT_TRUE(weak.expired()) << "the map released the renderer of a removed overlay";
    EXPECT_EQ(f.view->rendererForOverlay(std::make_shared<Overlay>()), nullptr);

    // Subclasses override addOverlay/removeOverlays and call the base behaviour.
    auto sub = std::make_shared<TopInsertingMap>(gfx::Rect{0, 0, 100, 100});
    sub->setDelegate(f.delegate);
    sub->addOverlay(a);
    sub->addOverlay(b);
    EXPECT_EQ(sub->overlays(), (std::vector<std::shared_ptr<Overlay>>{b, a}));
    sub->removeOverlay(a);  // the single removal is the base behaviour, not the list override
    EXPECT_EQ(sub->removed, 0);
    sub->removeOverlays({b});
    EXPECT_EQ(sub->removed, 1);
    EXPECT_TRUE(sub->overlays().empty());
}

TEST(MapView, AsksForAnnotationViewsOnceWhenFirstOnScreen) {
    Fixture f;
    f.view->setRegion({kBangkok, {0.05, 0.05}});
    auto near = std::make_shared<PointAnnotation>(kBangkok, "here");
    auto far = std::make_shared<PointAnnotation>(Coordinate{48.85, 2.35}, "far");
    auto image = gfx::Image::fromPixels(4, 4, std::vector<std::uint32_t>(16, 0xff0000ff), 2.0);
    f.delegate->makeView = [&](const std::shared_ptr<Annotation>& a) {
        auto v = std::make_shared<AnnotationView>(a);
        v->setImage(image);
        return v;
    };
    f.view->addAnnotations({near, far, near});
    EXPECT_EQ(f.view->annotations().size(), 2u);
    EXPECT_EQ(f.view->viewForAnnotation(near), nullptr) << "made on the main queue, later";
    pumpMainQueue();
    ASSERT_EQ(f.delegate->viewRequests, (std::vector<const Annotation*>{near.get()}));
    auto v = f.view->viewForAnnotation(near);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->annotation(), near);
    EXPECT_EQ(v->frame().size, (gfx::Size{2, 2})) << "image size in points";
    EXPECT_EQ(f.view->viewForAnnotation(far), nullptr);

    f.view->setCenterCoordinate(far->coordinate());
    f.view->render(std::chrono::seconds(1));
    EXPECT_EQ(f.delegate->viewRequests.size(), 2u);
    f.view->setCenterCoordinate(kBangkok);
    f.view->render(std::chrono::seconds(1));
    EXPECT_EQ(f.delegate->viewRequests.size(), 2u) << "views are kept";
    EXPECT_EQ(f.view->viewForAnnotation(near), v);

    f.view->removeAnnotation(near);
    EXPECT_EQ(f.view->viewForAnnotation(near), nullptr);
    EXPECT_EQ(f.view->annotations().size(), 1u);
}

TEST(MapView, AnnotationWithoutViewGetsAPinAndRemovalDuringTheAskIsHonoured) {
    Fixture f;
    f.view->setRegion({kBangkok, {0.05, 0.05}});
    auto plain = std::make_shared<PointAnnotation>(kBangkok);
    auto stale = std::make_shared<PointAnnotation>(kBangkok);
    f.delegate->makeView =
        [&](const std::shared_ptr<Annotation>& a) -> std::shared_ptr<AnnotationView> {
        if (a == stale) {
            f.view->removeAnnotation(a);  // as a delegate dropping an outdated annotation
            return std::make_shared<AnnotationView>(a);
        }
        return nullptr;
    };
    f.view->addAnnotations({plain, stale});
    pumpMainQueue();
    EXPECT_TRUE(std::dynamic_pointer_cast<PinAnnotationView>(f.view->viewForAnnotation(plain)));
    EXPECT_EQ(f.view->viewForAnnotation(stale), nullptr);
    EXPECT_EQ(f.view->annotations(), (std::vector<std::shared_ptr<Annotation>>{plain}));
}

TEST(MapView, TapSelectsTheTopmostViewAndTheDelegateMayUndoIt) {
    Fixture f;
    f.view->setRegion({kBangkok, {0.05, 0.05}});
    auto low = std::make_shared<PointAnnotation>(kBangkok);
    auto high = std::make_shared<PointAnnotation>(kBangkok);
    auto other =
        std::make_shared<PointAnnotation>(Coordinate{kBangkok.latitude + 0.01, kBangkok.longitude});
    f.delegate->makeView = [&](const std::shared_ptr<Annotation>& a) {
        auto v = std::make_shared<AnnotationView>(a);
        v->setFrame({0, 0, 20, 20});
        if (a == high)
            v->setZPosition(5);
        return v;
    };
    f.view->addAnnotations({high, low, other});
    pumpMainQueue();
    f.view->tapAt({205, 150});
    ASSERT_EQ(f.view->selectedAnnotations(), (std::vector<std::shared_ptr<Annotation>>{high}));
    ASSERT_EQ(f.delegate->selected.size(), 1u);
    EXPECT_EQ(f.delegate->selected[0], f.view->viewForAnnotation(high));
    EXPECT_TRUE(f.view->viewForAnnotation(high)->isSelected());

    // Selecting another deselects the first; a tap on bare map deselects.
    gfx::Point o = f.view->convertCoordinateToPoint(other->coordinate(), nullptr);
    f.view->tapAt(o);
    EXPECT_EQ(f.view->selectedAnnotations(), (std::vector<std::shared_ptr<Annotation>>{other}));
    EXPECT_EQ(f.delegate->deselected.size(), 1u);
    EXPECT_FALSE(f.view->viewForAnnotation(high)->isSelected());
    f.view->tapAt({5, 5});
    EXPECT_TRUE(f.view->selectedAnnotations().empty());

    // Hidden views are not hit; a delegate that deselects at once leaves nothing selected.
    f.view->viewForAnnotation(high)->setHidden(true);
    f.delegate->onSelect = [](MapView& map, const std::shared_ptr<AnnotationView>& v) {
        map.deselectAnnotation(v->annotation(), true);
    };
    f.view->tapAt({200, 150});
    EXPECT_EQ(f.delegate->selected.back(), f.view->viewForAnnotation(low));
    EXPECT_TRUE(f.view->selectedAnnotations().empty());
    EXPECT_FALSE(f.view->viewForAnnotation(low)->isSelected());
}

TEST(MapView, TapOnAButtonSubviewSendsItsAction) {
    Fixture f;
    auto button = std::make_shared<ui::Button>(gfx::Rect{10, 260, 100, 16});
    int taps = 0;
    button->addTarget([&] { ++taps; }, ui::ControlEvent::TouchUpInside);
    f.view->addSubview(button);
    f.view->tapAt({50, 268});
    EXPECT_EQ(taps, 1);
    button->setHidden(true);
    f.view->tapAt({50, 268});
    EXPECT_EQ(taps, 1);
}

TEST(MapView, UserLocationFollowsTheSourceAndGetsTheDefaultDot) {
    Fixture f;
    f.view->setRegion({kBangkok, {0.05, 0.05}});
    auto source = std::make_shared<location::ReplayLocationSource>(
        std::vector<LocationFix>{fix(kBangkok), fix({13.76, 100.51})}, std::chrono::milliseconds(5),
        std::vector<HeadingFix>{{10, 45, 5}, {10, -1, 0}});
    f.view->setLocationSource(source);
    pumpMainQueue();
    EXPECT_TRUE(f.view->annotations().empty()) << "not shown until asked for";
    f.view->setShowsUserLocation(true);
    dispatch::RunLoop::main().runUntil(
        [&] {
            return f.view->userLocation()->coordinate() == Coordinate{13.76, 100.51};
        },
        std::chrono::seconds(2));
    pumpMainQueue();
    auto user = f.view->userLocation();
    EXPECT_TRUE(user->isUpdating());
    EXPECT_EQ(user->heading(), std::nullopt) << "the second heading has no accuracy";
    auto all = f.view->annotations();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0], user);
    auto dot = f.view->viewForAnnotation(user);
    ASSERT_TRUE(dot);
    EXPECT_FALSE(std::dynamic_pointer_cast<PinAnnotationView>(dot));
    EXPECT_EQ(f.delegate->viewRequests, (std::vector<const Annotation*>{user.get()}));

    f.view->setShowsUserLocation(false);
    EXPECT_TRUE(f.view->annotations().empty());
    EXPECT_EQ(f.view->viewForAnnotation(user), nullptr);
}

TEST(MapView, ScreenScaleIgnoresValuesBeyondThree) {
    Fixture f;
    EXPECT_EQ(f.view->screenScale(), 2);
    f.view->setScreenScale(3);
    f.view->setScreenScale(7);
    EXPECT_EQ(f.view->screenScale(), 3);
}

}  // namespace
}  // namespace sorvan::map

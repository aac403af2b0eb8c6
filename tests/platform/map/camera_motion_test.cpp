// Animated region changes and kinetic panning of the map view, stepped on a manual clock.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iterator>
#include <memory>
#include <tuple>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "support/engine_fixtures.hpp"

namespace sorvan::map {
namespace {

using test::RecordingDelegate;

constexpr Coordinate kBangkok{13.7563, 100.5018};

struct Fixture {
    std::shared_ptr<dispatch::ManualClock> clock = std::make_shared<dispatch::ManualClock>();
    std::shared_ptr<MapView> view = std::make_shared<MapView>(gfx::Rect{0, 0, 400, 300});
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    int frames = 0;

    Fixture() {
        view->setDelegate(delegate);
        view->setNeedsDisplayCallback([this] { ++frames; });
        test::showLevel(*view, 12, mapPointForCoordinate(kBangkok));
        dispatch::RunLoop::main().drain();
        dispatch::RunLoop::main().setClock(clock);
        delegate->regionWillChanges.clear();
        delegate->regionChanges.clear();
        frames = 0;
    }
    ~Fixture() { dispatch::RunLoop::main().setClock(nullptr); }

    // Moves the clock on in frame-sized steps, running what falls due.
    void advance(double seconds) {
        for (double t = 0; t < seconds; t += 1.0 / 120) {
            clock->advance(dispatch::Duration(std::min(1.0 / 120, seconds - t)));
            dispatch::RunLoop::main().drain();
        }
    }
};

using Change = std::function<void(MapView&, bool animated)>;

// Where the camera stands: the unrotated visible rect and the heading.
using State = std::tuple<double, double, double, double, double>;
State state(const MapView& v) {
    MapRect r = v.visibleMapRect();
    return {r.origin.x, r.origin.y, r.size.width, r.size.height, v.cameraHeading()};
}
double midX(const MapRect& r) {
    return r.origin.x + r.size.width / 2;
}
double midY(const MapRect& r) {
    return r.origin.y + r.size.height / 2;
}

TEST(CameraMotion, AnimatedChangesEndExactlyOnTheJumpsTargetWithOneCallback) {
    const Change changes[] = {
        [](MapView& v, bool a) {
            v.setRegion({{13.80, 100.55}, {0.2, 0.2}}, a);
        },
        [](MapView& v, bool a) {
            v.setCenterCoordinate({13.70, 100.40}, a);
        },
        [](MapView& v, bool a) {
            MapPoint p = mapPointForCoordinate({13.9, 100.7});
            v.setVisibleMapRect({{p.x - 3000, p.y - 2000}, {6000, 4000}}, a);
        },
        [](MapView& v, bool a) { v.setCameraHeading(300, a); },  // the short way, through 0
        [](MapView& v, bool a) {
            v.zoomBy(4, {50, 40}, a);
        },
        // Across the antimeridian: the short way round, not across the whole world.
        [](MapView& v, bool a) {
            v.setCenterCoordinate({13.7, -179.9}, a);
        },
    };
    for (std::size_t i = 0; i < std::size(changes); ++i) {
        SCOPED_TRACE(i);
        const Change& change = changes[i];
        Fixture jump;
        change(*jump.view, false);
        EXPECT_FALSE(jump.view->isAnimatingCamera()) << "a jump stays immediate";
        jump.advance(0.05);
        EXPECT_EQ(jump.delegate->regionChanges, (std::vector<bool>{false}));

        Fixture f;
        const State start = state(*f.view);
        const MapRect startRect = f.view->visibleMapRect();
        Coordinate fixed = f.view->convertPointToCoordinate({50, 40}, nullptr);
        change(*f.view, true);
        EXPECT_TRUE(f.view->isAnimatingCamera());
        EXPECT_EQ(state(*f.view), start) << "nothing moves before the first frame";
        f.advance(0.1);
        EXPECT_EQ(f.delegate->regionWillChanges, (std::vector<bool>{true}));
        EXPECT_TRUE(f.delegate->regionChanges.empty()) << "no callback on the way";
        EXPECT_NE(state(*f.view), start);
        EXPECT_NE(state(*f.view), state(*jump.view));
        // The short way: never half the world away from where it started.
        double dx = std::abs(midX(f.view->visibleMapRect()) - midX(startRect));
        EXPECT_LT(std::min(dx, kMapWorldSize - dx), kMapWorldSize / 4);
        double heading = f.view->cameraHeading();
        EXPECT_TRUE(heading == 0 || heading > 300) << heading;
        if (i == 4) {
            gfx::Point p = f.view->convertCoordinateToPoint(fixed, nullptr);
            EXPECT_NEAR(p.x, 50, 1e-6) << "the zoom's point stays put on the way";
            EXPECT_NEAR(p.y, 40, 1e-6);
        }
        f.advance(0.3);
        EXPECT_FALSE(f.view->isAnimatingCamera());
        EXPECT_EQ(state(*f.view), state(*jump.view));
        EXPECT_EQ(f.delegate->regionChanges, (std::vector<bool>{true}));
        EXPECT_GE(f.frames, 10) << "frames are asked for all the way";
        f.advance(1);
        EXPECT_EQ(f.delegate->regionChanges.size(), 1u);
    }
}

TEST(CameraMotion, InterruptionsReportOnceAndRenderWaitsForNoAnimation) {
    // A new change ends the running animation where it stands, and reports it once.
    Fixture f;
    f.view->setRegion({{13.9, 100.7}, {0.5, 0.5}}, true);
    f.advance(0.1);
    // Asking again for where it is going is no new change (a delegate may, on every change).
    f.view->setRegion({{13.9, 100.7}, {0.5, 0.5}}, true);
    EXPECT_TRUE(f.view->isAnimatingCamera());
    f.advance(0.02);
    MapRect partway = f.view->visibleMapRect();
    f.view->setCameraHeading(45, true);
    EXPECT_EQ(f.view->visibleMapRect(), partway);
    f.advance(0.1);
    f.view->panBy(10, 0);  // a gesture
    EXPECT_FALSE(f.view->isAnimatingCamera());
    f.advance(1);
    EXPECT_EQ(f.delegate->regionWillChanges, (std::vector<bool>{true, true, false}));
    EXPECT_EQ(f.delegate->regionChanges, (std::vector<bool>{true, true, false}));

    // A fling slows to a stop on its own, having carried the map tau * (v - stop) points.
    f.view->setCameraHeading(0);
    f.advance(0.05);
    f.delegate->regionChanges.clear();
    const MapRect before = f.view->visibleMapRect();
    const double zoom = f.view->bounds().size.width / before.size.width;
    f.view->fling(1000, 0);
    f.advance(0.5);
    EXPECT_TRUE(f.view->isAnimatingCamera());
    f.advance(2);
    EXPECT_FALSE(f.view->isAnimatingCamera());
    EXPECT_EQ(f.delegate->regionChanges, (std::vector<bool>{true}));
    EXPECT_NEAR((midX(before) - midX(f.view->visibleMapRect())) * zoom, 0.325 * (1000 - 15), 1e-6);
    EXPECT_EQ(midY(f.view->visibleMapRect()), midY(before));

    // A tap stops a fling at once; a slow release does not fling at all.
    f.delegate->regionChanges.clear();
    f.view->fling(0, -3000);
    f.advance(0.2);
    MapRect stopped = f.view->visibleMapRect();
    f.view->tapAt({5, 5});
    f.advance(1);
    EXPECT_EQ(f.view->visibleMapRect(), stopped);
    EXPECT_EQ(f.delegate->regionChanges, (std::vector<bool>{true}));
    f.view->fling(10, 5);
    f.view->fling(NAN, 1);
    EXPECT_FALSE(f.view->isAnimatingCamera());

    // A render shows where the animation goes without waiting for it, and reports it once.
    f.delegate->regionChanges.clear();
    MapView jump(f.view->frame());
    jump.setRegion({{13.6, 100.3}, {0.1, 0.1}});
    f.view->setRegion({{13.6, 100.3}, {0.1, 0.1}}, true);
    ASSERT_NE(f.view->render(std::chrono::seconds(1)), nullptr);
    EXPECT_EQ(f.view->visibleMapRect(), jump.visibleMapRect());
    EXPECT_FALSE(f.view->isAnimatingCamera());
    f.advance(0.05);
    EXPECT_EQ(f.delegate->regionChanges, (std::vector<bool>{true}));

    // A view that goes mid-animation takes its timer with it and reports nothing.
    f.delegate->regionChanges.clear();
    f.view->fling(2000, 2000);
    f.advance(0.05);
    f.view.reset();
    f.advance(1);
    EXPECT_TRUE(f.delegate->regionChanges.empty());
    EXPECT_EQ(dispatch::RunLoop::main().pendingCount(), 0u);
}

}  // namespace
}  // namespace sorvan::map

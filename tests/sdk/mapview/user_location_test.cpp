// The user's position drawn by the kit: the shared location controller, the heading rules,
// the drawing and its arrow, and pictures of it on the map.
#include <atomic>
#include <cmath>
#include <numbers>
#include <thread>

#include "SorvanMapSDK/LocationController.hpp"
#include "SorvanMapSDK/SMUserAnnotation.hpp"
#include "map_view_fixture.hpp"
#include "mapview/user_location_heading.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/location/source.hpp"
#include "support/render_compare.hpp"

namespace sorvan::test {
namespace {

constexpr double kDegree = std::numbers::pi / 180;
const map::Coordinate kHere{13.7563, 100.5018};

// The process's shared location source for every test here: the controller is made once per
// process and keeps the source it was made with.
std::shared_ptr<location::ManualSource> testSource() {
    static auto source = [] {
        auto s = location::ManualSource::create("test receiver");
        location::Source::setShared(s);
        return s;
    }();
    return source;
}

location::Heading heading(double trueHeading, double magnetic, double accuracy) {
    location::Heading h;
    h.trueHeading = trueHeading;
    h.magneticHeading = magnetic;
    h.headingAccuracy = accuracy;
    return h;
}

location::Location position(map::Coordinate c) {
    location::Location l;
    l.coordinate = c;
    l.horizontalAccuracy = 5;
    return l;
}

class UserLocationTest : public MapViewTest {
  protected:
    void SetUp() override {
        testSource();
        MapViewTest::SetUp();
        showAt(kHere, 16);
    }

    /// Shows the user at kHere and waits for the view the map makes for it.
    std::shared_ptr<map::AnnotationView> showUser() {
        testSource()->pushLocation(position(kHere));
        view_->setShowsUserLocation(true);
        bool made = dispatch::RunLoop::main().runUntil(
            [&] { return view_->viewForAnnotation(view_->userLocation()) != nullptr; },
            std::chrono::seconds(10));
        return made ? view_->viewForAnnotation(view_->userLocation()) : nullptr;
    }

    static std::shared_ptr<SMUserAnnotation> drawingIn(const map::AnnotationView& view) {
        for (const auto& sub : view.subviews()) {
            if (auto d = std::dynamic_pointer_cast<SMUserAnnotation>(sub)) {
                return d;
            }
        }
        return nullptr;
    }

    static double angleOf(const gfx::AffineTransform& t) { return std::atan2(t.b, t.a); }
};

TEST_F(UserLocationTest, HeadingRulesFollowTheControllerOnlyWhileTheTypeIs1) {
    EXPECT_EQ(globals::currentHeading(), 0.0);
    view_->setUserAnnotationType(1);
    EXPECT_EQ(globals::currentHeading(), -1.0);
    EXPECT_EQ(LocationController::sharedController()->delegate(),
              std::static_pointer_cast<LocationControllerDelegate>(view_));

    struct Rule {
        location::Heading heading;
        double current;
    } rules[] = {
        {heading(30, 40, 5), 30},  // the true heading when it is above 0
        {heading(0, 40, 5), 40},   // true north exactly falls back to magnetic
        {heading(0, 0, 5), 0},     // ... and magnetic north gives 0, which hides the arrow
        {heading(-1, 25, 5), 25},  // true north unknown
        {heading(30, 40, 0), -1},  // accuracy 0 or below: no heading
        {heading(30, 40, -1), -1}, {heading(350, 10, 0.5), 350},
    };
    for (const Rule& r : rules) {
        SCOPED_TRACE(r.heading.description());
        view_->locationControllerDidUpdateHeading(r.heading);
        EXPECT_EQ(globals::currentHeading(), r.current);
    }

    // Through the controller's manager, on the main queue.
    testSource()->pushHeading(heading(123, 124, 5));
    ASSERT_TRUE(dispatch::RunLoop::main().runUntil([] { return globals::currentHeading() == 123; },
                                                   std::chrono::seconds(5)));

    // Type 0 after 1: the view stays the delegate, and headings are ignored.
    view_->setUserAnnotationType(0);
    EXPECT_EQ(LocationController::sharedController()->delegate(),
              std::static_pointer_cast<LocationControllerDelegate>(view_));
    view_->locationControllerDidUpdateHeading(heading(200, 201, 5));
    testSource()->pushHeading(heading(250, 251, 5));
    dispatch::RunLoop::main().runUntil([] { return false; }, std::chrono::milliseconds(100));
    EXPECT_EQ(globals::currentHeading(), 123);
}

TEST_F(UserLocationTest, ControllerIsOneForConcurrentFirstCallsAndStartsItsManager) {
    std::atomic<bool> go{false};
    std::vector<std::shared_ptr<LocationController>> seen(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&, i] {
            while (!go) {
            }
            seen[i] = LocationController::sharedController();
        });
    }
    go = true;
    for (auto& t : threads) {
        t.join();
    }
    for (const auto& c : seen) {
        EXPECT_EQ(c, seen[0]);
    }
    auto manager = seen[0]->locationManager();
    EXPECT_EQ(manager->source(), testSource());
    EXPECT_EQ(manager->headingFilter(), 5.0);
    EXPECT_EQ(manager->distanceFilter(), location::kDistanceFilterNone);
    EXPECT_EQ(manager->desiredAccuracy(), location::kLocationAccuracyBest);
    EXPECT_EQ(location::LocationManager::authorizationStatus(),
              location::AuthorizationStatus::AuthorizedWhenInUse);
    EXPECT_EQ(manager->delegate(),
              std::static_pointer_cast<location::LocationManagerDelegate>(seen[0]));
    EXPECT_EQ(seen[0]->location(), std::nullopt);  // never written by the controller

    // Failures reach the log through the view once it is the delegate.
    view_->setUserAnnotationType(1);
    log::Capture capture;
    testSource()->pushFailure({location::ErrorCode::SourceUnavailable,
                               "lost gpsd at localhost:2947: the connection closed"});
    ASSERT_TRUE(dispatch::RunLoop::main().runUntil([&] { return !capture.lines().empty(); },
                                                   std::chrono::seconds(5)));
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"Get location fail: lost gpsd at localhost:2947: the "
                                       "connection closed"});
}

TEST_F(UserLocationTest, ArrowTurnsAgainstTheCameraInSinglePrecisionKeepingTheSign) {
    struct Case {
        double heading, camera, degrees;
    } cases[] = {
        {350, 10, 340}, {10, 350, -340}, {725, 0, 5}, {-725, 0, -5}, {90, 90, 0},
    };
    for (const Case& c : cases) {
        EXPECT_DOUBLE_EQ(mapview::arrowAngle(c.heading, c.camera), c.degrees * kDegree)
            << c.heading << " against " << c.camera;
    }
    // Narrowed to single precision before anything else.
    EXPECT_EQ(mapview::arrowAngle(0.1, 0), static_cast<double>(0.1f) * std::numbers::pi / 180);
    EXPECT_NE(mapview::arrowAngle(0.1, 0), 0.1 * kDegree);
}

TEST_F(UserLocationTest, TheKitDrawsTheUserOnlyForType1) {
    view_->setUserAnnotationType(0);
    auto plain = showUser();
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(drawingIn(*plain), nullptr);  // the engine's own dot
    view_->setShowsUserLocation(false);

    view_->setUserAnnotationType(1);
    auto view = showUser();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->frame().size, (gfx::Size{70, 70}));
    EXPECT_EQ(view->centerOffset(), (gfx::Point{0, -16}));
    auto drawing = drawingIn(*view);
    ASSERT_NE(drawing, nullptr);
    EXPECT_EQ(drawing->frame(), (gfx::Rect{0, 0, 70, 70}));
    EXPECT_EQ(drawing->subviews().size(), 2u);
    EXPECT_EQ(drawing->subviews()[0], drawing->pin());  // the arrow above the marker
    EXPECT_EQ(drawing->pin()->frame(), (gfx::Rect{0, 0, 70, 70}));
    EXPECT_EQ(drawing->pin()->image(), Bundle::kit().image("marker"));
    EXPECT_EQ(drawing->pin()->autoresizingMask(), 18u);
    EXPECT_EQ(drawing->heading()->image(), Bundle::kit().image("heading"));
    EXPECT_EQ(drawing->heading()->autoresizingMask(), 18u);
    EXPECT_TRUE(drawing->heading()->isHidden());
}

TEST_F(UserLocationTest, PicturesSetBeforeTheDrawingWaitForItAndLaterOnesKeepItsFrames) {
    auto marker = gfx::Image::fromPixels(8, 10, std::vector<std::uint32_t>(80, 0xff0000ff), 1);
    auto arrow = gfx::Image::fromPixels(4, 4, std::vector<std::uint32_t>(16, 0xffff0000), 1);
    view_->setUserAnnotationType(1);
    view_->setUserLocationImage(marker);  // no drawing yet: only stored
    view_->setUserLocationArrow(arrow);
    EXPECT_EQ(view_->userLocationImage(), marker);
    auto view = showUser();
    ASSERT_NE(view, nullptr);
    auto drawing = drawingIn(*view);
    ASSERT_NE(drawing, nullptr);
    EXPECT_EQ(drawing->pin()->image(), marker);
    EXPECT_EQ(drawing->pin()->frame(), (gfx::Rect{19, 15, 32, 40}));
    EXPECT_EQ(drawing->pin()->contentMode(), ui::ContentMode::ScaleAspectFit);
    EXPECT_EQ(drawing->heading()->image(), arrow);
    EXPECT_EQ(drawing->heading()->frame(), (gfx::Rect{0, 0, 70, 70}));
    EXPECT_EQ(drawing->heading()->contentMode(), ui::ContentMode::ScaleAspectFit);

    // On a drawing made with the kit's pictures, a new one changes the picture only.
    view_->setShowsUserLocation(false);
    view_->setUserLocationImage(nullptr);
    view_->setUserLocationArrow(nullptr);
    view = showUser();
    ASSERT_NE(view, nullptr);
    drawing = drawingIn(*view);
    ASSERT_NE(drawing, nullptr);
    view_->setUserLocationImage(marker);
    view_->setUserLocationArrow(arrow);
    EXPECT_EQ(drawing->pin()->image(), marker);
    EXPECT_EQ(drawing->pin()->frame(), (gfx::Rect{0, 0, 70, 70}));
    EXPECT_EQ(drawing->pin()->contentMode(), ui::ContentMode::ScaleToFill);
    EXPECT_EQ(drawing->heading()->image(), arrow);
}

TEST_F(UserLocationTest, ArrowTurnsFromNoRotationInATenthOfASecondAndFollowsTheMap) {
    auto clock = std::make_shared<dispatch::ManualClock>();
    view_->setUserAnnotationType(1);
    auto view = showUser();
    ASSERT_NE(view, nullptr);
    auto drawing = drawingIn(*view);
    ASSERT_NE(drawing, nullptr);
    auto arrow = drawing->heading();
    dispatch::RunLoop::main().setClock(clock);

    view_->locationControllerDidUpdateHeading(heading(90, 91, 5));
    EXPECT_FALSE(arrow->isHidden());
    EXPECT_NEAR(angleOf(arrow->targetTransform()), 90 * kDegree, 1e-6);
    EXPECT_NEAR(angleOf(arrow->transform()), 0, 1e-9);
    clock->advance(std::chrono::milliseconds(50));
    EXPECT_GT(angleOf(arrow->transform()), 10 * kDegree);
    EXPECT_LT(angleOf(arrow->transform()), 80 * kDegree);
    clock->advance(std::chrono::milliseconds(60));
    EXPECT_FALSE(arrow->isAnimating());
    EXPECT_NEAR(angleOf(arrow->transform()), 90 * kDegree, 1e-6);

    // The next turn is to the new angle, not added to the one before.
    view_->locationControllerDidUpdateHeading(heading(100, 101, 5));
    clock->advance(std::chrono::milliseconds(200));
    EXPECT_NEAR(angleOf(arrow->transform()), 100 * kDegree, 1e-6);

    // The map turns (a region change): the arrow turns back by as much.
    view_->setCameraHeading(90);
    dispatch::RunLoop::main().drain();
    clock->advance(std::chrono::milliseconds(200));
    EXPECT_NEAR(angleOf(arrow->transform()), 10 * kDegree, 1e-6);

    // No heading, or north by the magnetic rule: hidden.
    view_->locationControllerDidUpdateHeading(heading(100, 101, 0));
    EXPECT_TRUE(arrow->isHidden());
    view_->locationControllerDidUpdateHeading(heading(120, 121, 5));
    EXPECT_FALSE(arrow->isHidden());
    view_->locationControllerDidUpdateHeading(heading(0, 0, 5));
    EXPECT_TRUE(arrow->isHidden());
    dispatch::RunLoop::main().setClock(nullptr);
}

// The drawing on a map without layers, at a heading of 30 degrees, with the map turned to 0
// and to 90 degrees: the arrow points 30 degrees east of north on the map both times.
TEST_F(UserLocationTest, RendersTheUserAndItsArrowAsTheMapTurns) {
    for (double camera : {0.0, 90.0}) {
        SCOPED_TRACE(camera);
        auto view = SorvanMapView::create({0, 0, 160, 120});
        view->setScreenScale(2);
        map::MapPoint p = map::mapPointForCoordinate(kHere);
        double w = 160 * std::exp2(20.0 - 16), h = 120 * std::exp2(20.0 - 16);
        view->setVisibleMapRect({{p.x - w / 2, p.y - h / 2}, {w, h}});
        view->setCameraHeading(camera);
        view->setUserAnnotationType(1);
        testSource()->pushLocation(position(kHere));
        view->setShowsUserLocation(true);
        ASSERT_TRUE(dispatch::RunLoop::main().runUntil(
            [&] { return view->viewForAnnotation(view->userLocation()) != nullptr; },
            std::chrono::seconds(10)));
        // Another heading first: the controller's 5-degree filter would hold back a second
        // 30 in a row.
        testSource()->pushHeading(heading(200, 201, 5));
        testSource()->pushHeading(heading(30, 31, 5));
        ASSERT_TRUE(dispatch::RunLoop::main().runUntil(
            [&] { return globals::currentHeading() == 30; }, std::chrono::seconds(10)));
        auto drawing = drawingIn(*view->viewForAnnotation(view->userLocation()));
        ASSERT_NE(drawing, nullptr);
        EXPECT_FALSE(drawing->heading()->isHidden());
        auto frame = view->render(std::chrono::seconds(10));
        ASSERT_NE(frame, nullptr);
        EXPECT_TRUE(matchesReference(
            *frame, "user_location_heading_" + std::to_string(static_cast<int>(camera))));
    }
}

}  // namespace
}  // namespace sorvan::test

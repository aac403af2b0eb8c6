// The user's position on the map view: the kit's own drawing with a heading arrow, its
// pictures, and the headings of the shared location controller.
#include <cmath>
#include <mutex>
#include <numbers>

#include "SorvanMapSDK/LocationController.hpp"
#include "SorvanMapSDK/SMUserAnnotation.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "mapview/user_location_heading.hpp"
#include "mapview/view_hooks.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan {

namespace mapview {

double arrowAngle(double heading, double cameraHeading) {
    // Narrowed before the modulo, on purpose: the arrow's angle has always been computed in
    // single precision, and fmodf keeps the sign, so turning the other way round stays a
    // negative angle rather than its positive twin.
    float turn = std::fmod(static_cast<float>(heading - cameraHeading), 360.0f);
    return static_cast<double>(turn) * std::numbers::pi / 180.0;
}

}  // namespace mapview

namespace {

constexpr double kUserViewSize = 70;
const gfx::Rect kPinFrame{19, 15, 32, 40};
// Lifts the drawing so that the marker's point, not its middle, stands on the position.
constexpr gfx::Point kUserCenterOffset{0, -16};
constexpr double kArrowTurnSeconds = 0.1;

// The arrow turns with the map too: after every region change, while the kit draws the user
// and knows a heading.
void followMapRotation() {
    static std::once_flag once;
    std::call_once(once, [] {
        mapview::registerRegionChangeFollower("userLocation", [](SorvanMapView& view) {
            if (view.userAnnotationType() == 1 && globals::currentHeading() != 0.0) {
                view.setUserLocationHeading();
            }
        });
    });
}

}  // namespace

std::shared_ptr<map::AnnotationView> SorvanMapView::userLocationAnnotationView(
    const std::shared_ptr<map::Annotation>& annotation) {
    if (userAnnotationType_ != 1) {
        return nullptr;  // the engine draws its own dot
    }
    auto view = std::make_shared<map::AnnotationView>(annotation);
    auto drawing = SMUserAnnotation::create({0, 0, kUserViewSize, kUserViewSize});
    view->setFrame({0, 0, kUserViewSize, kUserViewSize});
    if (userLocationImage_) {
        drawing->pin()->setFrame(kPinFrame);
        drawing->pin()->setImage(userLocationImage_);
        drawing->pin()->setContentMode(ui::ContentMode::ScaleAspectFit);
    }
    if (userLocationArrow_) {
        drawing->heading()->setImage(userLocationArrow_);
        drawing->heading()->setContentMode(ui::ContentMode::ScaleAspectFit);
    }
    view->addSubview(drawing);
    view->setCenterOffset(kUserCenterOffset);
    return view;
}

std::shared_ptr<SMUserAnnotation> SorvanMapView::userDrawing() const {
    for (const auto& annotation : annotations()) {
        if (!std::dynamic_pointer_cast<map::UserLocation>(annotation)) {
            continue;
        }
        std::shared_ptr<map::AnnotationView> view = viewForAnnotation(annotation);
        if (!view) {
            return nullptr;
        }
        for (const auto& sub : view->subviews()) {
            if (auto drawing = std::dynamic_pointer_cast<SMUserAnnotation>(sub)) {
                return drawing;
            }
        }
        return nullptr;
    }
    return nullptr;
}

void SorvanMapView::setUserAnnotationType(std::int64_t type) {
    userAnnotationType_ = type;
    followMapRotation();
    if (type == 1) {
        LocationController::sharedController()->setDelegate(weakSelf());
        globals::setCurrentHeading(-1);
    }
}

void SorvanMapView::setUserLocationImage(std::shared_ptr<gfx::Image> image) {
    userLocationImage_ = std::move(image);
    if (auto drawing = userDrawing()) {
        drawing->pin()->setImage(userLocationImage_);
    }
}

void SorvanMapView::setUserLocationArrow(std::shared_ptr<gfx::Image> image) {
    userLocationArrow_ = std::move(image);
    if (auto drawing = userDrawing()) {
        drawing->heading()->setImage(userLocationArrow_);
    }
}

void SorvanMapView::setUserLocationHeading() {
    std::shared_ptr<SMUserAnnotation> drawing = userDrawing();
    if (!drawing) {
        return;
    }
    double heading = globals::currentHeading();
    if (heading == 0.0 || heading == -1.0) {
        drawing->heading()->setHidden(true);
        return;
    }
    drawing->heading()->setHidden(false);
    double angle = mapview::arrowAngle(heading, cameraHeading());
    drawing->heading()->animateTransform(gfx::AffineTransform::rotation(angle), kArrowTurnSeconds);
}

void SorvanMapView::locationControllerDidUpdateLocation(const location::Location&) {}

void SorvanMapView::locationControllerDidUpdateHeading(const location::Heading& heading) {
    if (userAnnotationType_ != 1) {
        return;
    }
    double degrees = -1;
    if (heading.headingAccuracy > 0) {
        degrees = heading.trueHeading > 0 ? heading.trueHeading : heading.magneticHeading;
    }
    globals::setCurrentHeading(degrees);
    setUserLocationHeading();
}

void SorvanMapView::locationControllerDidFailWithError(const location::LocationError& error) {
    log::writef("Get location fail: %s", error.description.c_str());
}

}  // namespace sorvan

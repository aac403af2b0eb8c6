#include "render_user.hpp"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cmath>

#include "SorvanMapSDK/LocationController.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "foundation/number_text.hpp"
#include "geodesy_input.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/location/source.hpp"

namespace sorvan::cli {
namespace {

// A compass that reports no accuracy of its own is taken as good to 5 degrees, as the
// location sources take one.
constexpr double kHeadingAccuracy = 5.0;

std::optional<double> degrees(const std::string& text) {
    auto d = text::parseDouble(text);
    if (!d || *d < 0 || *d > 360) {
        return std::nullopt;
    }
    return d;
}

}  // namespace

void declareUserDrawingOptions(CLI::App& app, UserDrawingOptions& o) {
    app.add_option_function<std::string>(
           "--user",
           [&o](const std::string& v) {
               auto at = v.find('@');
               std::string error;
               auto place = parseCoordinate(v.substr(0, at), error);
               std::optional<double> heading;
               if (at != std::string::npos) {
                   heading = degrees(v.substr(at + 1));
               }
               if (!place || (at != std::string::npos && !heading)) {
                   throw CLI::ValidationError(
                       "--user wants LAT,LON or LAT,LON@HEADING (degrees from 0 to 360), got '" +
                       v + "'");
               }
               o.user = place;
               o.heading = heading;
           },
           "draw the user at LAT,LON as the kit does (its marker), with the heading arrow\n"
           "turned to HEADING degrees from north when given (0 is no arrow: the kit takes\n"
           "exactly north as no heading)")
        ->type_name("LAT,LON[@HEADING]");
    app.add_option_function<std::string>(
           "--camera-heading",
           [&o](const std::string& v) {
               o.cameraHeading = degrees(v);
               if (!o.cameraHeading) {
                   throw CLI::ValidationError(
                       "--camera-heading wants degrees from 0 to 360, got '" + v + "'");
               }
           },
           "turn the map so that DEG (clockwise from north) is up")
        ->type_name("DEG");
    app.add_option("--user-image", o.image, "a picture for the user's marker instead of the kit's")
        ->type_name("FILE.png");
    app.add_option("--user-arrow", o.arrow, "a picture for the heading arrow instead of the kit's")
        ->type_name("FILE.png");
}

std::optional<std::string> userDrawingProblem(const UserDrawingOptions& o) {
    if (!o.user && !o.image.empty()) {
        return "--user-image needs --user";
    }
    if (!o.user && !o.arrow.empty()) {
        return "--user-arrow needs --user";
    }
    return std::nullopt;
}

std::optional<std::string> placeUser(SorvanMapView& view, const UserDrawingOptions& o,
                                     double timeout) {
    if (o.cameraHeading) {
        view.setCameraHeading(*o.cameraHeading);
    }
    if (!o.user) {
        return std::nullopt;
    }
    std::shared_ptr<gfx::Image> image, arrow;
    for (auto [path, into, option] : {std::tuple{&o.image, &image, "--user-image"},
                                      std::tuple{&o.arrow, &arrow, "--user-arrow"}}) {
        if (path->empty()) {
            continue;
        }
        *into = gfx::Image::fromFile(*path, view.screenScale());
        if (!*into) {
            return std::string("cannot read ") + option + " '" + *path + "' as a picture";
        }
    }

    // The position (and heading) the command was given is where the location service says
    // the user is, for the map and for the kit's location controller alike.
    auto now = std::chrono::system_clock::now();
    auto source = location::ManualSource::create("the position of --user");
    location::Location l;
    l.coordinate = *o.user;
    l.horizontalAccuracy = 5;
    l.timestamp = now;
    source->pushLocation(l);
    if (o.heading) {
        location::Heading h;
        h.trueHeading = *o.heading;
        h.magneticHeading = *o.heading;
        h.headingAccuracy = kHeadingAccuracy;
        h.timestamp = now;
        source->pushHeading(h);
    }
    location::Source::setShared(source);

    view.setUserAnnotationType(1);
    if (image) {
        view.setUserLocationImage(image);
    }
    if (arrow) {
        view.setUserLocationArrow(arrow);
    }
    view.setShowsUserLocation(true);
    auto manager = LocationController::sharedController()->locationManager();
    bool placed = dispatch::RunLoop::main().runUntil(
        [&] {
            return view.viewForAnnotation(view.userLocation()) != nullptr &&
                   (!o.heading || manager->heading());
        },
        std::chrono::duration<double>(timeout));
    if (!placed) {
        return "the user's position did not reach the map";
    }
    // The heading may have come before the drawing was made: turn its arrow now, as the
    // view's next region change would.
    view.setUserLocationHeading();
    return std::nullopt;
}

}  // namespace sorvan::cli

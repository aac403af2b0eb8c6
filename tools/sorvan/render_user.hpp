// The user's position on a rendered map: `sorvan render --user LAT,LON[@HEADING]` and the
// options that go with it. The kit's own drawing (user annotation type 1) is placed as a map
// view shows it, its arrow turned as the view turns it against the camera's heading.
#pragma once

#include <optional>
#include <string>

#include "sorvan/platform/map/geometry.hpp"

namespace CLI {
class App;
}

namespace sorvan {
class SorvanMapView;
}

namespace sorvan::cli {

struct UserDrawingOptions {
    std::optional<map::Coordinate> user;
    std::optional<double> heading;        // the compass heading at the user, degrees
    std::optional<double> cameraHeading;  // the map turned clockwise, degrees
    std::string image, arrow;             // PNG files replacing the kit's pictures
};

void declareUserDrawingOptions(CLI::App& app, UserDrawingOptions& options);

/// What the options leave to check together; nullopt when they fit.
std::optional<std::string> userDrawingProblem(const UserDrawingOptions& options);

/// Turns the map and puts the user on it, waiting (pumping the main queue, at most timeout
/// seconds) until the drawing is on the map with its arrow turned. Call before any other use
/// of the location service in the process: the position becomes the process's location
/// source. Returns why it failed.
std::optional<std::string> placeUser(SorvanMapView& view, const UserDrawingOptions& options,
                                     double timeout);

}  // namespace sorvan::cli

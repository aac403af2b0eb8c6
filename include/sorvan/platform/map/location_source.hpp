// Where the map's user location comes from: a receiver or a replay. Sources call their
// listener on the main queue.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::map {

struct SORVAN_EXPORT LocationFix {
    Coordinate coordinate;
    double horizontalAccuracy = 5;  // metres; negative = invalid
    std::optional<double> course;   // degrees
};

struct SORVAN_EXPORT HeadingFix {
    double magneticHeading = 0;  // degrees
    double trueHeading = -1;     // degrees; negative = unknown
    double headingAccuracy = 5;  // degrees; 0 or less = unreliable
};

class SORVAN_EXPORT LocationSource {
  public:
    struct Listener {
        std::function<void(const LocationFix&)> didUpdateLocation;
        std::function<void(const HeadingFix&)> didUpdateHeading;
        std::function<void(const std::string& error)> didFail;
    };
    virtual ~LocationSource() = default;
    /// Starts delivering to listener (replacing any earlier one). Main queue.
    virtual void start(Listener listener) = 0;
    virtual void stop() = 0;
};

}  // namespace sorvan::map

#include "location/heading_composer.hpp"

#include <chrono>

namespace sorvan::location {

double normalizedDegrees(double degrees) {
    double d = std::fmod(degrees, 360.0);
    if (d < 0) {
        d += 360.0;
    }
    // fmod of a tiny negative value plus 360 rounds up to 360 itself.
    return d >= 360.0 ? 0.0 : d;
}

Heading HeadingComposer::compassTrue(double trueDegrees, Timestamp at) {
    lastCompass_ = at;
    Heading h;
    h.trueHeading = normalizedDegrees(trueDegrees);
    // Without a declination the magnetic heading is taken as the true one: better than none.
    h.magneticHeading =
        std::isfinite(declination_) ? normalizedDegrees(trueDegrees - declination_) : h.trueHeading;
    h.headingAccuracy = kCompassAccuracy;
    h.timestamp = at;
    return h;
}

Heading HeadingComposer::compassMagnetic(double magneticDegrees, double declination, Timestamp at) {
    lastCompass_ = at;
    double d = std::isfinite(declination) ? declination : declination_;
    Heading h;
    h.magneticHeading = normalizedDegrees(magneticDegrees);
    h.trueHeading = std::isfinite(d) ? normalizedDegrees(magneticDegrees + d) : -1;
    h.headingAccuracy = kCompassAccuracy;
    h.timestamp = at;
    return h;
}

std::optional<Heading> HeadingComposer::course(double courseDegrees, double speed, double accuracy,
                                               Timestamp at) {
    if (!std::isfinite(courseDegrees)) {
        return std::nullopt;
    }
    if (lastCompass_) {
        double since = std::chrono::duration<double>(at - *lastCompass_).count();
        if (std::abs(since) <= kCompassHoldSeconds) {
            return std::nullopt;
        }
    }
    Heading h;
    h.trueHeading = normalizedDegrees(courseDegrees);
    h.magneticHeading = std::isfinite(declination_)
                            ? normalizedDegrees(courseDegrees - declination_)
                            : h.trueHeading;
    if (std::isfinite(speed) && speed < kCourseMinimumSpeed) {
        h.headingAccuracy = -1;
    } else if (std::isfinite(accuracy) && accuracy > 0) {
        h.headingAccuracy = accuracy;
    } else {
        h.headingAccuracy = kCourseAccuracy;
    }
    h.timestamp = at;
    return h;
}

}  // namespace sorvan::location

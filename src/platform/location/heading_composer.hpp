// Turns what receivers say about direction into headings, the same way for every source: a
// compass (true heading sentences, gpsd's attitude reports, magnetic heading sentences) wins;
// while none has spoken for a few seconds, the course over ground stands in, unreliable at
// walking pace and below. Not thread-safe: one per source thread.
#pragma once

#include <cmath>
#include <optional>

#include "sorvan/platform/location/location.hpp"

namespace sorvan::location {

/// The accuracy given to compass headings, which no sentence or report states.
inline constexpr double kCompassAccuracy = 5.0;
/// The accuracy given to headings from the course when the receiver states none.
inline constexpr double kCourseAccuracy = 10.0;
/// Below this speed (metres per second) a course says nothing about the heading.
inline constexpr double kCourseMinimumSpeed = 0.5;
/// How long a compass reading keeps the course from standing in.
inline constexpr double kCompassHoldSeconds = 5.0;

/// Degrees into [0, 360).
double normalizedDegrees(double degrees);

class HeadingComposer {
  public:
    /// The magnetic declination (east positive) where the receiver is; NaN when unknown.
    void setDeclination(double eastDegrees) { declination_ = eastDegrees; }
    double declination() const { return declination_; }

    Heading compassTrue(double trueDegrees, Timestamp at);
    /// declination: the sentence's own, or NaN to use the known one.
    Heading compassMagnetic(double magneticDegrees, double declination, Timestamp at);
    /// A heading from the course; none while a compass spoke within kCompassHoldSeconds.
    /// speed and accuracy may be NaN (unknown).
    std::optional<Heading> course(double courseDegrees, double speed, double accuracy,
                                  Timestamp at);

  private:
    double declination_ = NAN;
    std::optional<Timestamp> lastCompass_;
};

}  // namespace sorvan::location

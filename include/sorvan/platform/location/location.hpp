// What the location service reports: positions, compass headings, failures and the
// application's authorisation, as plain values that may be copied to any thread.
#pragma once

#include <chrono>
#include <string>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::location {

using Timestamp = std::chrono::system_clock::time_point;

/// A position report. A negative accuracy, speed or course means the value is unknown; a
/// negative horizontal accuracy makes the whole report invalid.
struct SORVAN_EXPORT Location {
    map::Coordinate coordinate;
    double altitude = 0;             // metres above mean sea level
    double horizontalAccuracy = -1;  // metres
    double verticalAccuracy = -1;    // metres; negative: the altitude is unknown
    double speed = -1;               // metres per second
    double course = -1;              // degrees clockwise from true north
    Timestamp timestamp;

    /// "<+13.756300,+100.501800> +/- 5.00m (speed 2.57 mps / course 45.00) @ 2024-05-01
    /// 08:18:00 +0000", the form the location log lines print.
    std::string description() const;
    bool operator==(const Location&) const = default;
};

/// A compass report. Degrees clockwise from north, in [0, 360).
struct SORVAN_EXPORT Heading {
    double magneticHeading = 0;
    double trueHeading = -1;      // negative: true north is unknown
    double headingAccuracy = -1;  // degrees of possible error; 0 or less: unreliable
    Timestamp timestamp;

    /// "magneticHeading 40.00 trueHeading 41.30 accuracy 5.00 @ 2024-05-01 08:18:00 +0000".
    std::string description() const;
    bool operator==(const Heading&) const = default;
};

enum class ErrorCode {
    LocationUnknown = 0,    // the source is there but gives no position now (no fix, silent)
    Denied = 1,             // the application is not authorised to use the location
    SourceUnavailable = 2,  // the receiver cannot be reached or went away
    SourceUnreadable = 3,   // a recorded track cannot be read or holds no position
};

struct SORVAN_EXPORT LocationError {
    ErrorCode code = ErrorCode::LocationUnknown;
    std::string description;  // the text failure log lines print
    bool operator==(const LocationError&) const = default;
};

/// The application's authorisation to use the location. Values as hosts know them.
enum class AuthorizationStatus {
    NotDetermined = 0,
    Restricted = 1,
    Denied = 2,
    AuthorizedAlways = 3,
    AuthorizedWhenInUse = 4,
};

/// Desired accuracy "best", and the "no filter" value of the distance and heading filters.
inline constexpr double kLocationAccuracyBest = -1.0;
inline constexpr double kDistanceFilterNone = -1.0;
inline constexpr double kHeadingFilterNone = -1.0;

}  // namespace sorvan::location

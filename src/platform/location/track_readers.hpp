// Readers of recorded tracks: NMEA 0183 logs (RMC, GGA, HDT, HDG) and GPX documents. Both give
// the reports a receiver would have given, each with the moment it was recorded, so a replay
// can keep the recorded pace. Not thread-safe: one reader per replay.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "location/heading_composer.hpp"
#include "sorvan/platform/location/location.hpp"

namespace sorvan::location {

/// One report of a track. `recorded` is unset for reports that carry no time (compass
/// sentences before the first timed sentence); the replay stamps those when it sends them.
struct TrackEvent {
    std::optional<Timestamp> recorded;
    std::variant<Location, Heading> report;
};

/// The accuracy given to positions whose sentence states no dilution of precision.
inline constexpr double kNominalPositionAccuracy = 5.0;

/// Reads an NMEA log line by line. The sentences of one epoch (those sharing a time of day,
/// and the untimed compass sentences that follow them) make one position and their headings,
/// given out when the next epoch begins or at finish(). Checksums, when present, are checked.
class NmeaReader {
  public:
    /// date: the day of positions logged before any RMC sentence gave one.
    explicit NmeaReader(std::chrono::sys_days date);
    /// Reads one line (line ends and trailing blanks are ignored). Appends the reports of an
    /// epoch the line completes to out. Returns why the line is unusable; nullopt for a
    /// usable line, an empty line or a sentence type that carries nothing for us.
    std::optional<std::string> feed(std::string_view line, std::vector<TrackEvent>& out);
    /// Gives out the open epoch.
    void finish(std::vector<TrackEvent>& out);
    /// Positions given out so far.
    std::size_t positions() const { return positions_; }

  private:
    struct Compass {
        bool isTrue = false;
        double degrees = 0;
        double declination = NAN;
    };
    struct Epoch {
        std::optional<double> timeOfDay;
        std::optional<std::chrono::sys_days> date;
        bool hasRMC = false, hasGGA = false;
        std::optional<map::Coordinate> rmcPosition, ggaPosition;
        double speed = NAN, course = NAN, hdop = NAN, altitude = NAN, variation = NAN;
        std::vector<Compass> compass;
        bool empty() const { return !timeOfDay && !hasRMC && !hasGGA && compass.empty(); }
    };

    /// Starts a new epoch for a sentence timed `timeOfDay` unless it belongs to the open one.
    void enter(double timeOfDay, bool isRMC, std::vector<TrackEvent>& out);
    void flush(std::vector<TrackEvent>& out);

    std::chrono::sys_days date_;
    std::optional<double> lastTimeOfDay_;
    Epoch epoch_;
    HeadingComposer composer_;
    std::size_t positions_ = 0;
};

/// A GPX document read whole: its track points (or, without a track, its route points) as
/// positions and headings from the course. Points without a time follow the previous one a
/// second later (the first at `start`). error is set, and nothing is returned, for a document
/// that is not XML or has no track or route points; problems lists points that were skipped.
std::vector<TrackEvent> readGPX(std::string_view document, Timestamp start, std::string& error,
                                std::vector<std::string>& problems);

/// "YYYY-MM-DDThh:mm:ss[.fff][Z|+hh:mm|-hh:mm]" (no zone: UTC).
std::optional<Timestamp> parseISO8601(std::string_view text);

/// Great-circle distance in metres and initial bearing in degrees.
double distanceMeters(map::Coordinate a, map::Coordinate b);
double bearingDegrees(map::Coordinate from, map::Coordinate to);

}  // namespace sorvan::location

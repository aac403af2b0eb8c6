#include "sorvan/platform/location/location.hpp"

#include <cstdio>
#include <ctime>

namespace sorvan::location {
namespace {

std::string utc(Timestamp t) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(t);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &parts);
    return text;
}

}  // namespace

std::string Location::description() const {
    char text[160];
    std::snprintf(text, sizeof text, "<%+.6f,%+.6f> +/- %.2fm (speed %.2f mps / course %.2f) @ ",
                  coordinate.latitude, coordinate.longitude, horizontalAccuracy, speed, course);
    return text + utc(timestamp);
}

std::string Heading::description() const {
    char text[120];
    std::snprintf(text, sizeof text, "magneticHeading %.2f trueHeading %.2f accuracy %.2f @ ",
                  magneticHeading, trueHeading, headingAccuracy);
    return text + utc(timestamp);
}

}  // namespace sorvan::location

#include <algorithm>
#include <cmath>

#include "foundation/number_text.hpp"
#include "location/track_readers.hpp"

namespace sorvan::location {
namespace {

constexpr double kMetresPerSecondPerKnot = 1852.0 / 3600.0;
// A day's worth of seconds; a time of day that drops by more than half of it is the next day.
constexpr double kDay = 86400.0;

std::vector<std::string_view> split(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    std::size_t start = 0;
    for (;;) {
        auto i = s.find(sep, start);
        out.push_back(s.substr(start, i == std::string_view::npos ? i : i - start));
        if (i == std::string_view::npos) {
            return out;
        }
        start = i + 1;
    }
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

// An empty field is "unknown" (NaN); anything else must be a number.
bool optionalNumber(std::string_view field, double& out) {
    if (field.empty()) {
        out = NAN;
        return true;
    }
    auto v = text::parseDouble(field);
    if (!v) {
        return false;
    }
    out = *v;
    return true;
}

// hhmmss or hhmmss.sss.
std::optional<double> timeOfDay(std::string_view f) {
    if (f.size() < 6 ||
        !std::all_of(f.begin(), f.begin() + 6, [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    int h = (f[0] - '0') * 10 + (f[1] - '0');
    int m = (f[2] - '0') * 10 + (f[3] - '0');
    double s = 0;
    if (auto v = text::parseDouble(f.substr(4)); v && *v >= 0 && *v < 61) {
        s = *v;
    } else {
        return std::nullopt;
    }
    if (h > 23 || m > 59) {
        return std::nullopt;
    }
    return h * 3600.0 + m * 60.0 + s;
}

// ddmmyy; years 80 to 99 are the last century.
std::optional<std::chrono::sys_days> dayOf(std::string_view f) {
    if (f.size() != 6 ||
        !std::all_of(f.begin(), f.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    unsigned d = (f[0] - '0') * 10 + (f[1] - '0');
    unsigned m = (f[2] - '0') * 10 + (f[3] - '0');
    int y = (f[4] - '0') * 10 + (f[5] - '0');
    y += y >= 80 ? 1900 : 2000;
    std::chrono::year_month_day ymd{std::chrono::year(y), std::chrono::month(m),
                                    std::chrono::day(d)};
    if (!ymd.ok()) {
        return std::nullopt;
    }
    return std::chrono::sys_days(ymd);
}

// ddmm.mmmm (or dddmm.mmmm) with its hemisphere letter.
std::optional<double> angle(std::string_view value, std::string_view hemisphere, double limit) {
    auto v = text::parseDouble(value);
    if (!v || *v < 0 || hemisphere.size() != 1) {
        return std::nullopt;
    }
    double degrees = std::floor(*v / 100);
    double minutes = *v - degrees * 100;
    if (minutes >= 60) {
        return std::nullopt;
    }
    double a = degrees + minutes / 60;
    char h = hemisphere[0];
    if (h == 'S' || h == 'W') {
        a = -a;
    } else if (h != 'N' && h != 'E') {
        return std::nullopt;
    }
    if (std::abs(a) > limit) {
        return std::nullopt;
    }
    return a;
}

// A value with an E or W letter (east positive); both empty is unknown.
bool signedEastWest(std::string_view value, std::string_view letter, double& out) {
    if (value.empty() && letter.empty()) {
        out = NAN;
        return true;
    }
    auto v = text::parseDouble(value);
    if (!v || (letter != "E" && letter != "W")) {
        return false;
    }
    out = letter == "W" ? -*v : *v;
    return true;
}

std::optional<map::Coordinate> position(const std::vector<std::string_view>& f, std::size_t at) {
    auto lat = angle(f[at], f[at + 1], 90);
    auto lon = angle(f[at + 2], f[at + 3], 180);
    if (!lat || !lon) {
        return std::nullopt;
    }
    return map::Coordinate{*lat, *lon};
}

}  // namespace

NmeaReader::NmeaReader(std::chrono::sys_days date) : date_(date) {}

std::optional<std::string> NmeaReader::feed(std::string_view line, std::vector<TrackEvent>& out) {
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n' || line.back() == ' ' ||
                             line.back() == '\t')) {
        line.remove_suffix(1);
    }
    if (line.empty()) {
        return std::nullopt;
    }
    if (line[0] != '$') {
        return "not an NMEA sentence";
    }
    std::string_view body = line.substr(1);
    if (auto star = body.find('*'); star != std::string_view::npos) {
        std::string_view given = body.substr(star + 1);
        body = body.substr(0, star);
        unsigned sum = 0;
        for (char c : body) {
            sum ^= static_cast<unsigned char>(c);
        }
        int hi = given.size() == 2 ? hexDigit(given[0]) : -1;
        int lo = given.size() == 2 ? hexDigit(given[1]) : -1;
        if (hi < 0 || lo < 0 || static_cast<unsigned>(hi * 16 + lo) != sum) {
            return "bad checksum";
        }
    }
    std::vector<std::string_view> f = split(body, ',');
    if (f[0].size() != 5 || f[0][0] == 'P') {
        return std::nullopt;  // proprietary or unknown: nothing for us
    }
    std::string_view type = f[0].substr(2);

    if (type == "RMC") {
        if (f.size() < 12) {
            return "truncated RMC sentence";
        }
        auto t = timeOfDay(f[1]);
        if (!t) {
            return "bad time in RMC sentence";
        }
        if (f[2] != "A" && f[2] != "V") {
            return "bad status in RMC sentence";
        }
        std::optional<map::Coordinate> p;
        if (f[2] == "A") {
            p = position(f, 3);
            if (!p) {
                return "bad position in RMC sentence";
            }
        }
        double knots = NAN, course = NAN, variation = NAN;
        if (!optionalNumber(f[7], knots) || knots < 0) {
            return "bad speed in RMC sentence";
        }
        if (!optionalNumber(f[8], course)) {
            return "bad course in RMC sentence";
        }
        std::optional<std::chrono::sys_days> day;
        if (!f[9].empty()) {
            day = dayOf(f[9]);
            if (!day) {
                return "bad date in RMC sentence";
            }
        }
        if (!signedEastWest(f[10], f[11], variation)) {
            return "bad magnetic variation in RMC sentence";
        }
        enter(*t, true, out);
        epoch_.hasRMC = true;
        epoch_.rmcPosition = p;
        if (day) {
            epoch_.date = day;
            date_ = *day;
        }
        epoch_.speed = knots * kMetresPerSecondPerKnot;
        epoch_.course = course;
        epoch_.variation = variation;
        return std::nullopt;
    }
    if (type == "GGA") {
        if (f.size() < 15) {
            return "truncated GGA sentence";
        }
        auto t = timeOfDay(f[1]);
        if (!t) {
            return "bad time in GGA sentence";
        }
        auto quality =
            f[6].empty() ? std::optional<std::int64_t>(0) : text::parseInteger(f[6], 0, 9);
        if (!quality) {
            return "bad fix quality in GGA sentence";
        }
        std::optional<map::Coordinate> p;
        if (*quality > 0) {
            p = position(f, 2);
            if (!p) {
                return "bad position in GGA sentence";
            }
        }
        double hdop = NAN, altitude = NAN;
        if (!optionalNumber(f[8], hdop) || hdop < 0) {
            return "bad dilution in GGA sentence";
        }
        if (!optionalNumber(f[9], altitude)) {
            return "bad altitude in GGA sentence";
        }
        enter(*t, false, out);
        epoch_.hasGGA = true;
        epoch_.ggaPosition = p;
        epoch_.hdop = hdop;
        epoch_.altitude = altitude;
        return std::nullopt;
    }
    if (type == "HDT") {
        double degrees = NAN;
        if (f.size() < 3) {
            return "truncated HDT sentence";
        }
        if (!optionalNumber(f[1], degrees) || std::isnan(degrees) || f[2] != "T") {
            return "bad heading in HDT sentence";
        }
        epoch_.compass.push_back({true, degrees, NAN});
        return std::nullopt;
    }
    if (type == "HDG") {
        if (f.size() < 6) {
            return "truncated HDG sentence";
        }
        double sensor = NAN, deviation = NAN, variation = NAN;
        if (!optionalNumber(f[1], sensor) || std::isnan(sensor)) {
            return "bad heading in HDG sentence";
        }
        if (!signedEastWest(f[2], f[3], deviation) || !signedEastWest(f[4], f[5], variation)) {
            return "bad deviation or variation in HDG sentence";
        }
        double magnetic = sensor + (std::isnan(deviation) ? 0.0 : deviation);
        epoch_.compass.push_back({false, magnetic, variation});
        return std::nullopt;
    }
    return std::nullopt;
}

void NmeaReader::enter(double timeOfDay, bool isRMC, std::vector<TrackEvent>& out) {
    bool sameEpoch = epoch_.timeOfDay ? *epoch_.timeOfDay == timeOfDay &&
                                            !(isRMC ? epoch_.hasRMC : epoch_.hasGGA)
                                      : !epoch_.hasRMC && !epoch_.hasGGA;
    if (!sameEpoch) {
        flush(out);
    }
    if (!epoch_.timeOfDay) {
        // A log without dates runs over midnight when its time of day drops by half a day.
        if (lastTimeOfDay_ && *lastTimeOfDay_ - timeOfDay > kDay / 2) {
            date_ += std::chrono::days(1);
        }
        lastTimeOfDay_ = timeOfDay;
        epoch_.timeOfDay = timeOfDay;
    }
}

void NmeaReader::flush(std::vector<TrackEvent>& out) {
    if (epoch_.empty()) {
        return;
    }
    Epoch e = std::move(epoch_);
    epoch_ = Epoch();
    std::optional<Timestamp> at;
    if (e.timeOfDay) {
        std::chrono::sys_days day = e.date ? *e.date : date_;
        at = std::chrono::time_point_cast<Timestamp::duration>(
            day + std::chrono::duration<double>(*e.timeOfDay));
    }
    if (std::isfinite(e.variation)) {
        composer_.setDeclination(e.variation);
    }
    std::optional<map::Coordinate> p = e.ggaPosition ? e.ggaPosition : e.rmcPosition;
    if (p) {
        Location l;
        l.coordinate = *p;
        l.horizontalAccuracy =
            std::isfinite(e.hdop) ? std::max(1.0, e.hdop * 5) : kNominalPositionAccuracy;
        if (std::isfinite(e.altitude)) {
            l.altitude = e.altitude;
            l.verticalAccuracy = l.horizontalAccuracy * 1.5;
        }
        if (std::isfinite(e.speed)) {
            l.speed = e.speed;
        }
        if (std::isfinite(e.course)) {
            l.course = normalizedDegrees(e.course);
        }
        if (at) {
            l.timestamp = *at;
        }
        out.push_back({at, l});
        ++positions_;
    }
    Timestamp stamp = at.value_or(Timestamp());
    for (const Compass& c : e.compass) {
        Heading h = c.isTrue ? composer_.compassTrue(c.degrees, stamp)
                             : composer_.compassMagnetic(c.degrees, c.declination, stamp);
        out.push_back({at, h});
    }
    if (e.compass.empty() && p && at) {
        if (auto h = composer_.course(e.course, e.speed, NAN, *at)) {
            out.push_back({at, *h});
        }
    }
}

void NmeaReader::finish(std::vector<TrackEvent>& out) {
    flush(out);
}

}  // namespace sorvan::location

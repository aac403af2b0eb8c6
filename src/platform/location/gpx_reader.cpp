#include <expat.h>

#include <cmath>
#include <limits>
#include <memory>
#include <numbers>

#include "foundation/number_text.hpp"
#include "location/track_readers.hpp"

namespace sorvan::location {
namespace {

constexpr double kEarthRadius = 6371008.8;  // metres, the mean radius

struct Point {
    map::Coordinate coordinate;
    double elevation = NAN, course = NAN, speed = NAN, hdop = NAN;
    std::optional<Timestamp> time;
};

// Element names without a namespace prefix.
std::string_view localName(const XML_Char* name) {
    std::string_view n(name);
    auto colon = n.rfind(':');
    return colon == std::string_view::npos ? n : n.substr(colon + 1);
}

struct Collector {
    std::vector<std::string> path;  // open elements, outermost first
    std::vector<Point> trackPoints, routePoints;
    std::optional<Point> point;
    bool inRoutePoint = false;
    std::string text;
    std::vector<std::string>& problems;
    XML_Parser parser = nullptr;

    explicit Collector(std::vector<std::string>& p) : problems(p) {}

    bool under(std::string_view parent) const { return !path.empty() && path.back() == parent; }

    void start(std::string_view name, const XML_Char** attributes) {
        bool track = name == "trkpt" && under("trkseg");
        bool route = name == "rtept" && under("rte");
        if ((track || route) && !point) {
            std::optional<double> lat, lon;
            for (int i = 0; attributes[i]; i += 2) {
                std::string_view key = localName(attributes[i]);
                if (key == "lat") {
                    lat = text::parseDouble(attributes[i + 1]);
                } else if (key == "lon") {
                    lon = text::parseDouble(attributes[i + 1]);
                }
            }
            if (lat && lon && std::abs(*lat) <= 90 && std::abs(*lon) <= 180) {
                point = Point();
                point->coordinate = {*lat, *lon};
                inRoutePoint = route;
            } else {
                problems.push_back("point at line " +
                                   std::to_string(XML_GetCurrentLineNumber(parser)) +
                                   " has no usable lat and lon");
            }
        }
        path.emplace_back(name);
        text.clear();
    }

    void end(std::string_view name) {
        if (!path.empty()) {
            path.pop_back();
        }
        if (!point) {
            return;
        }
        bool ofPoint = under(inRoutePoint ? "rtept" : "trkpt");
        auto number = [&](double& into) {
            if (auto v = text::parseDouble(trimmed())) {
                into = *v;
            }
        };
        if (ofPoint && name == "ele") {
            number(point->elevation);
        } else if (ofPoint && name == "course") {
            number(point->course);
        } else if (ofPoint && name == "speed") {
            number(point->speed);
        } else if (ofPoint && name == "hdop") {
            number(point->hdop);
        } else if (ofPoint && name == "time") {
            point->time = parseISO8601(trimmed());
        } else if (name == (inRoutePoint ? "rtept" : "trkpt") &&
                   (path.empty() || path.back() == (inRoutePoint ? "rte" : "trkseg"))) {
            (inRoutePoint ? routePoints : trackPoints).push_back(*point);
            point.reset();
        }
        text.clear();
    }

    std::string_view trimmed() const {
        std::string_view t = text;
        while (!t.empty() && std::isspace(static_cast<unsigned char>(t.front()))) {
            t.remove_prefix(1);
        }
        while (!t.empty() && std::isspace(static_cast<unsigned char>(t.back()))) {
            t.remove_suffix(1);
        }
        return t;
    }
};

struct ParserDeleter {
    void operator()(XML_Parser p) const { XML_ParserFree(p); }
};

int digits(std::string_view s, std::size_t at, std::size_t count) {
    if (at + count > s.size()) {
        return -1;
    }
    int v = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (s[i] < '0' || s[i] > '9') {
            return -1;
        }
        v = v * 10 + (s[i] - '0');
    }
    return v;
}

}  // namespace

std::optional<Timestamp> parseISO8601(std::string_view s) {
    int y = digits(s, 0, 4), mo = digits(s, 5, 2), d = digits(s, 8, 2);
    int h = digits(s, 11, 2), mi = digits(s, 14, 2), se = digits(s, 17, 2);
    if (y < 0 || mo < 0 || d < 0 || h < 0 || mi < 0 || se < 0 || s[4] != '-' || s[7] != '-' ||
        (s[10] != 'T' && s[10] != ' ') || s[13] != ':' || s[16] != ':' || h > 23 || mi > 59 ||
        se > 60) {
        return std::nullopt;
    }
    std::chrono::year_month_day ymd{std::chrono::year(y), std::chrono::month(mo),
                                    std::chrono::day(d)};
    if (!ymd.ok()) {
        return std::nullopt;
    }
    std::size_t at = 19;
    double fraction = 0;
    if (at < s.size() && s[at] == '.') {
        std::size_t end = at + 1;
        while (end < s.size() && s[end] >= '0' && s[end] <= '9') {
            ++end;
        }
        if (end == at + 1) {
            return std::nullopt;
        }
        fraction =
            text::parseDouble(std::string("0") + std::string(s.substr(at, end - at))).value_or(0);
        at = end;
    }
    int offsetMinutes = 0;
    std::string_view zone = s.substr(at);
    if (zone == "Z" || zone.empty()) {
        offsetMinutes = 0;
    } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':') {
        int zh = digits(zone, 1, 2), zm = digits(zone, 4, 2);
        if (zh < 0 || zm < 0 || zh > 23 || zm > 59) {
            return std::nullopt;
        }
        offsetMinutes = (zh * 60 + zm) * (zone[0] == '-' ? -1 : 1);
    } else {
        return std::nullopt;
    }
    auto t = std::chrono::sys_days(ymd) + std::chrono::hours(h) + std::chrono::minutes(mi) +
             std::chrono::seconds(se) - std::chrono::minutes(offsetMinutes);
    return std::chrono::time_point_cast<Timestamp::duration>(
        t + std::chrono::duration<double>(fraction));
}

double distanceMeters(map::Coordinate a, map::Coordinate b) {
    constexpr double r = std::numbers::pi / 180;
    double dLat = (b.latitude - a.latitude) * r, dLon = (b.longitude - a.longitude) * r;
    double h = std::sin(dLat / 2) * std::sin(dLat / 2) +
               std::cos(a.latitude * r) * std::cos(b.latitude * r) * std::sin(dLon / 2) *
                   std::sin(dLon / 2);
    return 2 * kEarthRadius * std::asin(std::min(1.0, std::sqrt(h)));
}

double bearingDegrees(map::Coordinate from, map::Coordinate to) {
    constexpr double r = std::numbers::pi / 180;
    double p1 = from.latitude * r, p2 = to.latitude * r;
    double dLon = (to.longitude - from.longitude) * r;
    double y = std::sin(dLon) * std::cos(p2);
    double x = std::cos(p1) * std::sin(p2) - std::sin(p1) * std::cos(p2) * std::cos(dLon);
    return normalizedDegrees(std::atan2(y, x) / r);
}

std::vector<TrackEvent> readGPX(std::string_view document, Timestamp start, std::string& error,
                                std::vector<std::string>& problems) {
    std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate(nullptr));
    Collector collector(problems);
    collector.parser = parser.get();
    XML_SetUserData(parser.get(), &collector);
    XML_SetElementHandler(
        parser.get(),
        [](void* data, const XML_Char* name, const XML_Char** attributes) {
            static_cast<Collector*>(data)->start(localName(name), attributes);
        },
        [](void* data, const XML_Char* name) {
            static_cast<Collector*>(data)->end(localName(name));
        });
    XML_SetCharacterDataHandler(parser.get(), [](void* data, const XML_Char* s, int length) {
        auto* c = static_cast<Collector*>(data);
        // Only the short texts of a point's own fields are kept.
        if (c->point && c->text.size() < 256) {
            c->text.append(s, static_cast<std::size_t>(length));
        }
    });
    // Fed in slices, since expat takes an int length.
    constexpr std::size_t kSlice = 1 << 20;
    bool ok = true;
    for (std::size_t at = 0; ok && at <= document.size(); at += kSlice) {
        std::string_view slice = document.substr(at, kSlice);
        bool last = at + kSlice >= document.size();
        ok = XML_Parse(parser.get(), slice.data(), static_cast<int>(slice.size()), last) ==
             XML_STATUS_OK;
        if (last) {
            break;
        }
    }
    if (!ok) {
        error = std::string("not XML: ") + XML_ErrorString(XML_GetErrorCode(parser.get())) +
                " at line " + std::to_string(XML_GetCurrentLineNumber(parser.get()));
        return {};
    }
    const std::vector<Point>& points =
        collector.trackPoints.empty() ? collector.routePoints : collector.trackPoints;
    if (points.empty()) {
        error = "no track or route points";
        return {};
    }

    std::vector<TrackEvent> out;
    HeadingComposer composer;
    std::optional<Timestamp> previousTime;
    const Point* previous = nullptr;
    double previousCourse = NAN;
    for (const Point& p : points) {
        Timestamp at = p.time         ? *p.time
                       : previousTime ? *previousTime + std::chrono::seconds(1)
                                      : start;
        Location l;
        l.coordinate = p.coordinate;
        l.horizontalAccuracy =
            std::isfinite(p.hdop) ? std::max(1.0, p.hdop * 5) : kNominalPositionAccuracy;
        if (std::isfinite(p.elevation)) {
            l.altitude = p.elevation;
            l.verticalAccuracy = l.horizontalAccuracy * 1.5;
        }
        double speed = p.speed, course = p.course;
        if (previous) {
            double metres = distanceMeters(previous->coordinate, p.coordinate);
            double seconds = std::chrono::duration<double>(at - *previousTime).count();
            if (!std::isfinite(speed) && seconds > 0) {
                speed = metres / seconds;
            }
            // A point that hardly moved keeps the course it had.
            if (!std::isfinite(course)) {
                course = metres >= 1 ? bearingDegrees(previous->coordinate, p.coordinate)
                                     : previousCourse;
            }
        }
        if (std::isfinite(speed) && speed >= 0) {
            l.speed = speed;
        }
        if (std::isfinite(course)) {
            l.course = normalizedDegrees(course);
        }
        l.timestamp = at;
        out.push_back({at, l});
        if (auto h = composer.course(course, speed, NAN, at)) {
            out.push_back({at, *h});
        }
        previous = &p;
        previousTime = at;
        previousCourse = course;
    }
    return out;
}

}  // namespace sorvan::location

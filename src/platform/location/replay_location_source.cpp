#include "sorvan/platform/location/replay_location_source.hpp"

#include <charconv>
#include <cmath>
#include <fstream>
#include <regex>
#include <sstream>

#include "foundation/number_text.hpp"

namespace sorvan::location {

namespace {

std::vector<std::string_view> split(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    std::size_t start = 0;
    for (;;) {
        auto i = s.find(sep, start);
        out.push_back(s.substr(start, i == std::string_view::npos ? i : i - start));
        if (i == std::string_view::npos)
            return out;
        start = i + 1;
    }
}

std::optional<double> number(std::string_view s) {
    return text::parseDouble(s);
}

// ddmm.mmmm (or dddmm.mmmm) with a hemisphere letter.
std::optional<double> nmeaAngle(std::string_view value, std::string_view hemisphere, double limit) {
    auto v = number(value);
    if (!v || *v < 0 || hemisphere.size() != 1)
        return std::nullopt;
    double degrees = std::floor(*v / 100);
    double minutes = *v - degrees * 100;
    if (minutes >= 60)
        return std::nullopt;
    double angle = degrees + minutes / 60;
    char h = hemisphere[0];
    if (h == 'S' || h == 'W')
        angle = -angle;
    else if (h != 'N' && h != 'E')
        return std::nullopt;
    if (std::abs(angle) > limit)
        return std::nullopt;
    return angle;
}

bool checksumOK(std::string_view sentence) {
    auto star = sentence.find('*');
    if (star == std::string_view::npos)
        return true;  // checksums are optional in NMEA
    unsigned sum = 0;
    for (char c : sentence.substr(1, star - 1))
        sum ^= static_cast<unsigned char>(c);
    auto hex = sentence.substr(star + 1, 2);
    unsigned given = 0;
    auto [p, ec] = std::from_chars(hex.data(), hex.data() + hex.size(), given, 16);
    return ec == std::errc() && p == hex.data() + hex.size() && hex.size() == 2 && given == sum;
}

}  // namespace

ReplayLocationSource::ReplayLocationSource(std::vector<map::LocationFix> fixes,
                                           dispatch::Duration interval,
                                           std::vector<map::HeadingFix> headings)
    : fixes_(std::move(fixes)), headings_(std::move(headings)), interval_(interval) {}

ReplayLocationSource::~ReplayLocationSource() {
    ++*run_;
}

std::vector<map::LocationFix> ReplayLocationSource::parseNMEA(std::string_view text) {
    std::vector<map::LocationFix> out;
    for (std::string_view line : split(text, '\n')) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' '))
            line.remove_suffix(1);
        if (line.size() < 7 || line[0] != '$' || !checksumOK(line))
            continue;
        auto body = line.substr(1, line.find('*') == std::string_view::npos ? std::string_view::npos
                                                                            : line.find('*') - 1);
        auto f = split(body, ',');
        std::string_view type = f[0].size() >= 5 ? f[0].substr(f[0].size() - 3) : "";
        map::LocationFix fix;
        if (type == "RMC" && f.size() >= 9) {
            if (f[2] != "A")
                continue;  // void: the receiver had no fix
            auto lat = nmeaAngle(f[3], f[4], 90), lon = nmeaAngle(f[5], f[6], 180);
            if (!lat || !lon)
                continue;
            fix.coordinate = {*lat, *lon};
            if (auto course = number(f[8]))
                fix.course = *course;
        } else if (type == "GGA" && f.size() >= 9) {
            if (f[6].empty() || f[6] == "0")
                continue;  // quality 0: no fix
            auto lat = nmeaAngle(f[2], f[3], 90), lon = nmeaAngle(f[4], f[5], 180);
            if (!lat || !lon)
                continue;
            fix.coordinate = {*lat, *lon};
            // Horizontal dilution times a typical receiver error, as a rough accuracy.
            if (auto hdop = number(f[8]))
                fix.horizontalAccuracy = std::max(1.0, *hdop * 5);
        } else {
            continue;
        }
        out.push_back(fix);
    }
    return out;
}

std::vector<map::LocationFix> ReplayLocationSource::parseGPX(std::string_view text) {
    std::vector<map::LocationFix> out;
    static const std::regex point(R"(<(?:trkpt|rtept|wpt)\b([^>]*)>)");
    static const std::regex lat(R"(\blat\s*=\s*["']([^"']*)["'])");
    static const std::regex lon(R"(\blon\s*=\s*["']([^"']*)["'])");
    std::string s(text);
    for (auto it = std::sregex_iterator(s.begin(), s.end(), point); it != std::sregex_iterator();
         ++it) {
        std::string attrs = (*it)[1];
        std::smatch a, o;
        if (!std::regex_search(attrs, a, lat) || !std::regex_search(attrs, o, lon))
            continue;
        auto la = number(a[1].str()), lo = number(o[1].str());
        if (!la || !lo || std::abs(*la) > 90 || std::abs(*lo) > 180)
            continue;
        map::LocationFix fix;
        fix.coordinate = {*la, *lo};
        out.push_back(fix);
    }
    return out;
}

std::shared_ptr<ReplayLocationSource> ReplayLocationSource::fromFile(const std::string& path,
                                                                     dispatch::Duration interval,
                                                                     std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error)
            *error = "cannot read " + path;
        return nullptr;
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    std::string text = buffer.str();
    bool gpx = text.find("<gpx") != std::string::npos;
    auto fixes = gpx ? parseGPX(text) : parseNMEA(text);
    if (fixes.empty()) {
        if (error)
            *error = std::string("no valid fix in ") + (gpx ? "GPX" : "NMEA") + " file " + path;
        return nullptr;
    }
    return std::make_shared<ReplayLocationSource>(std::move(fixes), interval);
}

void ReplayLocationSource::start(Listener listener) {
    listener_ = std::move(listener);
    std::uint64_t run = ++*run_;
    if (fixes_.empty())
        return;
    std::weak_ptr<std::uint64_t> token = run_;
    auto* self = this;
    dispatch::RunLoop::main().async([token, self, run] {
        auto t = token.lock();
        if (t && *t == run)
            self->deliver(0, run);
    });
}

void ReplayLocationSource::stop() {
    ++*run_;
}

void ReplayLocationSource::deliver(std::size_t index, std::uint64_t run) {
    if (index >= fixes_.size()) {
        if (!loops_)
            return;
        index = 0;
    }
    // Copy the callbacks: a listener may stop or replace this source.
    Listener l = listener_;
    if (l.didUpdateLocation)
        l.didUpdateLocation(fixes_[index]);
    if (*run_ != run)
        return;
    if (index < headings_.size() && l.didUpdateHeading)
        l.didUpdateHeading(headings_[index]);
    if (*run_ != run)
        return;
    std::weak_ptr<std::uint64_t> token = run_;
    auto* self = this;
    dispatch::RunLoop::main().asyncAfter(interval_, [token, self, index, run] {
        auto t = token.lock();
        if (t && *t == run)
            self->deliver(index + 1, run);
    });
}

}  // namespace sorvan::location

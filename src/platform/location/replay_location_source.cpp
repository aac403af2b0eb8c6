#include "sorvan/platform/location/replay_location_source.hpp"

#include <fstream>
#include <sstream>

#include "location/track_readers.hpp"

namespace sorvan::location {

namespace {

map::LocationFix fixOf(const Location& l) {
    map::LocationFix fix;
    fix.coordinate = l.coordinate;
    fix.horizontalAccuracy = l.horizontalAccuracy;
    if (l.course >= 0) {
        fix.course = l.course;
    }
    return fix;
}

std::vector<map::LocationFix> fixesOf(const std::vector<TrackEvent>& events) {
    std::vector<map::LocationFix> out;
    for (const auto& e : events) {
        if (const Location* l = std::get_if<Location>(&e.report)) {
            out.push_back(fixOf(*l));
        }
    }
    return out;
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
    NmeaReader reader(std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now()));
    std::vector<TrackEvent> events;
    std::size_t start = 0;
    while (start < text.size()) {
        auto end = text.find('\n', start);
        reader.feed(text.substr(start, end == std::string_view::npos ? end : end - start), events);
        if (end == std::string_view::npos) {
            break;
        }
        start = end + 1;
    }
    reader.finish(events);
    return fixesOf(events);
}

std::vector<map::LocationFix> ReplayLocationSource::parseGPX(std::string_view text) {
    std::string error;
    std::vector<std::string> problems;
    return fixesOf(readGPX(text, std::chrono::system_clock::now(), error, problems));
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
    auto first = text.find_first_not_of(" \t\r\n\xEF\xBB\xBF");
    bool gpx = first != std::string::npos && text[first] == '<';
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

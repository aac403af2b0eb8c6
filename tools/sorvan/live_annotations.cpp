#include "live_annotations.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/SMEventAnnotation.hpp"
#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "mapview/live_requests.hpp"
#include "service_cli.hpp"
#include "sorvan/platform/foundation/date_formatter.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

nlohmann::ordered_json orNull(const std::optional<std::string>& text) {
    return text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json(nullptr);
}

std::optional<std::string> localTime(const std::optional<Date>& date) {
    if (!date) {
        return std::nullopt;
    }
    return DateFormatter().stringFromDate(*date);
}

}  // namespace

std::shared_ptr<gfx::Image> renderSettled(SorvanMapView& view, double timeoutSeconds) {
    using Clock = std::chrono::steady_clock;
    // The engine waits at most a century; so does this loop, which keeps the clock from
    // overflowing on an absurd --timeout.
    double seconds = std::isnan(timeoutSeconds) ? 0.0 : timeoutSeconds;
    seconds = std::clamp(seconds, 0.0, 100.0 * 365 * 24 * 3600);
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(seconds));
    auto left = [&] {
        return std::max(std::chrono::duration<double>(deadline - Clock::now()),
                        std::chrono::duration<double>(0));
    };
    // A frame waits for its tiles; the tags a drawn tile asks for, the feed and the icons of
    // the views come after, so the picture is drawn again until nothing is on its way.
    std::shared_ptr<gfx::Image> image = view.render(left());
    while (!liveSettled() && left().count() > 0) {
        dispatch::RunLoop::main().runUntil([] { return liveSettled(); }, left());
        image = view.render(left());
    }
    return image;
}

bool liveSettled() {
    return mapview::liveRequestsInFlight() == 0;
}

LiveFailures::LiveFailures() {
    // The failure lines must reach the command whatever the user chose to see; what the user
    // silenced stays silent.
    if (!log::enabled(log::Level::error)) {
        log::setLevel(log::Level::error);
        echo_ = false;
    }
    log::Sink previous = log::setSink([this](log::Level level, std::string_view line) {
        log::Sink forward;
        {
            std::lock_guard lock(mutex_);
            if (line.starts_with("showTags Error")) {
                tagErrors_.emplace_back(line);
            } else if (line.starts_with("showEvents Error")) {
                eventErrors_.emplace_back(line);
            } else if (line.starts_with("showCameras Error")) {
                cameraErrors_.emplace_back(line);
            }
            if (!echo_) {
                return;
            }
            forward = previous_;
        }
        if (forward) {
            forward(level, line);
        } else {
            std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
        }
    });
    std::lock_guard lock(mutex_);
    previous_ = std::move(previous);
}

LiveFailures::~LiveFailures() {
    log::Sink previous;
    {
        std::lock_guard lock(mutex_);
        previous = previous_;
    }
    log::setSink(std::move(previous));
}

std::optional<std::string> LiveFailures::firstTagError() const {
    std::lock_guard lock(mutex_);
    return tagErrors_.empty() ? std::nullopt : std::optional(tagErrors_.front());
}

std::optional<std::string> LiveFailures::firstEventError() const {
    std::lock_guard lock(mutex_);
    return eventErrors_.empty() ? std::nullopt : std::optional(eventErrors_.front());
}

std::optional<std::string> LiveFailures::firstCameraError() const {
    std::lock_guard lock(mutex_);
    return cameraErrors_.empty() ? std::nullopt : std::optional(cameraErrors_.front());
}

std::size_t LiveFailures::tagErrors() const {
    std::lock_guard lock(mutex_);
    return tagErrors_.size();
}

std::vector<std::shared_ptr<SMTagAnnotation>> tagsOf(const SorvanMapView& view) {
    std::vector<std::shared_ptr<SMTagAnnotation>> tags;
    for (const auto& a : view.annotations()) {
        if (auto t = std::dynamic_pointer_cast<SMTagAnnotation>(a)) {
            tags.push_back(std::move(t));
        }
    }
    // The answers of a view's tiles arrive in any order; a listing should not.
    std::stable_sort(tags.begin(), tags.end(), [](const auto& a, const auto& b) {
        map::Coordinate ca = a->coordinate(), cb = b->coordinate();
        if (ca.latitude != cb.latitude) {
            return ca.latitude > cb.latitude;
        }
        return ca.longitude < cb.longitude;
    });
    return tags;
}

std::vector<std::shared_ptr<SMEventAnnotation>> eventsOf(const SorvanMapView& view) {
    std::vector<std::shared_ptr<SMEventAnnotation>> events;
    for (const auto& a : view.annotations()) {
        if (auto e = std::dynamic_pointer_cast<SMEventAnnotation>(a)) {
            events.push_back(std::move(e));
        }
    }
    return events;
}

nlohmann::ordered_json tagsJSON(const std::vector<std::shared_ptr<SMTagAnnotation>>& tags) {
    auto out = nlohmann::ordered_json::array();
    for (const auto& t : tags) {
        out.push_back({{"poiid", orNull(t->poiid())},
                       {"name", orNull(t->name())},
                       {"type", orNull(t->type())},
                       {"zoom", t->zoom()},
                       {"latitude", t->coordinate().latitude},
                       {"longitude", t->coordinate().longitude}});
    }
    return out;
}

nlohmann::ordered_json eventsJSON(const std::vector<std::shared_ptr<SMEventAnnotation>>& events) {
    auto out = nlohmann::ordered_json::array();
    for (const auto& e : events) {
        out.push_back({{"eventId", orNull(e->eventId())},
                       {"eventTitle", orNull(e->eventTitle())},
                       {"eventDescription", orNull(e->eventDescription())},
                       {"iconName", orNull(e->iconName())},
                       {"start", orNull(localTime(e->start()))},
                       {"stop", orNull(localTime(e->stop()))},
                       {"contributor", orNull(e->contributor())},
                       {"severity", e->severity()},
                       {"showlevel", e->showlevel()},
                       {"type", e->type()},
                       {"latitude", e->coordinate().latitude},
                       {"longitude", e->coordinate().longitude}});
    }
    return out;
}

void printTagTable(const std::vector<std::shared_ptr<SMTagAnnotation>>& tags) {
    if (tags.empty()) {
        std::printf("no tags\n");
        return;
    }
    Table table({"POIID", "NAME", "TYPE", "ZOOM", "LATITUDE", "LONGITUDE"});
    table.setNumeric({3, 4, 5});
    for (const auto& t : tags) {
        table.add({t->poiid().value_or(""), t->name().value_or(""), t->type().value_or(""),
                   std::to_string(t->zoom()), strformat("%.6f", t->coordinate().latitude),
                   strformat("%.6f", t->coordinate().longitude)});
    }
    table.print();
}

void printEventTable(const std::vector<std::shared_ptr<SMEventAnnotation>>& events) {
    if (events.empty()) {
        std::printf("no events\n");
        return;
    }
    Table table({"EVENT", "ICON", "SEVERITY", "SHOWLEVEL", "TYPE", "START", "STOP", "LATITUDE",
                 "LONGITUDE", "CONTRIBUTOR", "TITLE", "DESCRIPTION"});
    table.setNumeric({2, 3, 4, 7, 8});
    for (const auto& e : events) {
        table.add({e->eventId().value_or(""), e->iconName().value_or(""),
                   std::to_string(e->severity()), std::to_string(e->showlevel()),
                   std::to_string(e->type()), localTime(e->start()).value_or("-"),
                   localTime(e->stop()).value_or("-"), strformat("%.6f", e->coordinate().latitude),
                   strformat("%.6f", e->coordinate().longitude), e->contributor().value_or(""),
                   e->eventTitle().value_or(""), e->eventDescription().value_or("")});
    }
    table.print();
}

std::vector<std::shared_ptr<SMCameraAnnotation>> camerasOf(const SorvanMapView& view) {
    std::vector<std::shared_ptr<SMCameraAnnotation>> cameras;
    for (const auto& a : view.annotations()) {
        if (auto c = std::dynamic_pointer_cast<SMCameraAnnotation>(a)) {
            cameras.push_back(std::move(c));
        }
    }
    return cameras;
}

nlohmann::ordered_json camerasJSON(
    const std::vector<std::shared_ptr<SMCameraAnnotation>>& cameras) {
    nlohmann::ordered_json out = nlohmann::ordered_json::array();
    auto address = [](const std::optional<net::URL>& url) {
        return url ? nlohmann::ordered_json(url->absoluteString())
                   : nlohmann::ordered_json(nullptr);
    };
    for (const auto& c : cameras) {
        out.push_back({{"cameraId", orNull(c->cameraId())},
                       {"cameraTitle", orNull(c->cameraTitle())},
                       {"lastUpdate", orNull(localTime(c->lastUpdate()))},
                       {"organization", orNull(c->organization())},
                       {"sponsorText", orNull(c->sponsorText())},
                       {"sponsorImageURL", address(c->sponsorImageURL())},
                       {"url", address(c->url())},
                       {"format", c->format()},
                       {"latitude", c->coordinate().latitude},
                       {"longitude", c->coordinate().longitude}});
    }
    return out;
}

void printCameraTable(const std::vector<std::shared_ptr<SMCameraAnnotation>>& cameras) {
    static const char* const kFormats[] = {"still", "motion", "live"};
    for (const auto& c : cameras) {
        std::int64_t f = c->format();
        std::printf("%-8s %-6s %-19s %10.6f %11.6f  %s\n    %s\n",
                    c->cameraId().value_or("-").c_str(), f >= 0 && f <= 2 ? kFormats[f] : "?",
                    localTime(c->lastUpdate()).value_or("-").c_str(), c->coordinate().latitude,
                    c->coordinate().longitude, c->cameraTitle().value_or("-").c_str(),
                    c->url() ? c->url()->absoluteString().c_str() : "-");
    }
}

}  // namespace sorvan::cli

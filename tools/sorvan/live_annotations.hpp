// What `sorvan tags`, `sorvan events` and `sorvan render` share for live annotations: drawing a
// headless view until every cluster answer, feed and icon has reached the map, noticing the
// kit's failure lines on the way, and the rows of tags and events as tables or JSON.
// Main thread only (the view's thread).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SorvanMapView.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan {
class SMCameraAnnotation;
class SMEventAnnotation;
class SMTagAnnotation;
}  // namespace sorvan

namespace sorvan::cli {

/// Draws until nothing live is on its way (tiles, their cluster answers, the feed, icons) or
/// the timeout passes; returns the last frame.
std::shared_ptr<gfx::Image> renderSettled(SorvanMapView& view, double timeoutSeconds);
/// True when nothing live was still on its way as the last frame was drawn.
bool liveSettled();

/// Keeps the "showTags Error", "showEvents Error" and "showCameras Error" lines the kit writes
/// while it lives, whatever level the log is at, and passes every line on as before (to the
/// previous sink, or to stderr) when the level would have let it through. Thread-safe.
class LiveFailures {
  public:
    LiveFailures();
    ~LiveFailures();
    LiveFailures(const LiveFailures&) = delete;
    LiveFailures& operator=(const LiveFailures&) = delete;
    std::optional<std::string> firstTagError() const;
    std::optional<std::string> firstEventError() const;
    std::optional<std::string> firstCameraError() const;
    std::size_t tagErrors() const;

  private:
    bool echo_ = true;
    log::Sink previous_;
    mutable std::mutex mutex_;
    std::vector<std::string> tagErrors_, eventErrors_, cameraErrors_;
};

/// The tag annotations on the view, north to south, then west to east.
std::vector<std::shared_ptr<SMTagAnnotation>> tagsOf(const SorvanMapView& view);
/// The event annotations on the view, in the order the map holds them (the feed's).
std::vector<std::shared_ptr<SMEventAnnotation>> eventsOf(const SorvanMapView& view);

/// The camera annotations on the view, in the order the map holds them (the feed's).
std::vector<std::shared_ptr<SMCameraAnnotation>> camerasOf(const SorvanMapView& view);
/// {"cameraId", "cameraTitle", "lastUpdate", "organization", "sponsorText", "sponsorImageURL",
/// "url", "format", "latitude", "longitude"} per camera; lastUpdate as local
/// "yyyy-MM-dd HH:mm:ss" or null, unset texts null.
nlohmann::ordered_json camerasJSON(const std::vector<std::shared_ptr<SMCameraAnnotation>>& cameras);
void printCameraTable(const std::vector<std::shared_ptr<SMCameraAnnotation>>& cameras);
/// {"poiid", "name", "type", "zoom", "latitude", "longitude"} per tag (null for unset texts).
nlohmann::ordered_json tagsJSON(const std::vector<std::shared_ptr<SMTagAnnotation>>& tags);
/// {"eventId", "eventTitle", "eventDescription", "iconName", "start", "stop", "contributor",
/// "severity", "showlevel", "type", "latitude", "longitude"} per event; start and stop as
/// local "yyyy-MM-dd HH:mm:ss" or null.
nlohmann::ordered_json eventsJSON(const std::vector<std::shared_ptr<SMEventAnnotation>>& events);
void printTagTable(const std::vector<std::shared_ptr<SMTagAnnotation>>& tags);
void printEventTable(const std::vector<std::shared_ptr<SMEventAnnotation>>& events);

}  // namespace sorvan::cli

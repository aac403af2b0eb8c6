// The live traffic incidents of the embedded event feed: accidents, road works, floods, road
// closures and public events on Bangkok's roads, in Thai and English.
//
// The set is a pure function of time. Time runs in generations of kEventGeneration; each
// generation brings a few new incidents, and each incident lasts a few generations, so a feed
// read one generation later keeps most incidents, has lost some and gained some. Times in the
// feed are Bangkok wall-clock texts ("yyyy-MM-dd HH:mm:ss", UTC+7), as the service writes
// them. Thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sorvan::server {

inline constexpr std::chrono::seconds kEventGeneration{180};

struct FeedEvent {
    std::string eid;
    std::string titleTh, titleEn;
    std::string descriptionTh, descriptionEn;
    std::string icon;         // one of eventIconNames()
    std::string start, stop;  // Bangkok time; stop "" while the end is unknown
    std::string contributor;
    std::int64_t type = 0;
    std::int64_t severity = 0;
    std::int64_t showlevel = 0;
    double latitude = 0, longitude = 0;
};

/// The icon names incidents use ("accident", "construction", "flood", "roadclosed", "event").
const std::vector<std::string_view>& eventIconNames();

/// The incidents live at time now, oldest first.
std::vector<FeedEvent> liveEvents(std::chrono::system_clock::time_point now);

/// The feed's answer: a JSON array of event objects with the members "eid", "title",
/// "title_en", "description", "description_en", "icon", "start", "stop", "contributor",
/// "type", "severity", "showlevel" (a numeric string, as the feed has always sent it),
/// "latitude" and "longitude".
std::string eventFeedJSON(std::chrono::system_clock::time_point now);

/// "yyyy-MM-dd HH:mm:ss" in Bangkok time (UTC+7, no daylight saving).
std::string bangkokTimeText(std::chrono::system_clock::time_point t);

}  // namespace sorvan::server

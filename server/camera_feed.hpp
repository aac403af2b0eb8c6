// The traffic cameras of the embedded camera feed: about thirty cameras along the built-in
// Bangkok roads, each a still picture, a moving picture or a live stream. The set is fixed;
// only "lastupdate" follows the service's clock. Thread-safe.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace sorvan::server {

struct FeedCamera {
    std::string camid;
    std::string title;         // Thai, with the road's name
    std::string organization;  // who runs the camera
    std::string sponsorText;
    std::string overlayFile;  // a banner under "/feed/images/"
    int format = 0;           // 0 still, 1 moving picture, 2 live stream
    double latitude = 0, longitude = 0;
};

/// Every camera, in the feed's order.
const std::vector<FeedCamera>& feedCameras();
/// The banner names "/feed/images/" serves.
const std::vector<std::string>& sponsorBanners();

/// The feed's answer: {"item": [...]}, each item with "camid", "title", "lastupdate",
/// "organization", "sponsertext", "overlay_file", "motion", "imgurl", "vdourl", "hls_url",
/// "latitude" and "longitude". Picture addresses start with origin. Some items say "motion"
/// in lower case or not at all (stills), and some "lastupdate" texts hold a date only, as the
/// real feed does.
std::string cameraFeedJSON(std::chrono::system_clock::time_point now, const std::string& origin);

}  // namespace sorvan::server

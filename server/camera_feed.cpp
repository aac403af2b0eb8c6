#include "camera_feed.hpp"

#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "event_feed.hpp"
#include "road_network.hpp"

namespace sorvan::server {
namespace {

constexpr std::size_t kCameraCount = 30;
constexpr double kCentreLat = 13.75, kCentreLon = 100.53, kReach = 0.25;  // degrees

const char* const kOrganizations[] = {
    "สำนักการจราจรและขนส่ง กรุงเทพมหานคร",
    "กรมทางหลวง",
    "การทางพิเศษแห่งประเทศไทย",
};

const char* const kSponsorTexts[] = {
    "สนับสนุนโดย ธนาคารสายรุ้ง",
    "สนับสนุนโดย น้ำดื่มใสสะอาด",
    "สนับสนุนโดย ประกันภัยทางไกล",
};

std::vector<FeedCamera> buildCameras() {
    const RoadNetwork& roads = RoadNetwork::builtin();
    std::vector<FeedCamera> cameras;
    std::size_t edges = roads.edgeCount();
    // Step through the network with a stride prime to its size, so cameras spread over it.
    std::size_t stride = edges > 37 ? 37 : 1;
    // Cameras watch the city's roads: spots near the centre only.
    for (std::size_t k = 0, i = 0; cameras.size() < kCameraCount && k < edges * 4; ++k) {
        i = (i + stride) % edges;
        RoadSpot spot = roads.spotOnEdge(i, 0.2 + 0.2 * static_cast<double>(k % 4));
        if (spot.ferry || spot.nameTh.empty() || std::abs(spot.at.lat - kCentreLat) > kReach ||
            std::abs(spot.at.lon - kCentreLon) > kReach) {
            continue;
        }
        FeedCamera c;
        std::size_t n = cameras.size();
        char id[16];
        std::snprintf(id, sizeof id, "CAM%03zu", n + 1);
        c.camid = id;
        c.title = spot.nameTh + " (" + spot.nameEn + ")";
        c.organization = kOrganizations[n % 3];
        c.sponsorText = kSponsorTexts[n % 3];
        c.overlayFile = sponsorBanners()[n % sponsorBanners().size()];
        c.format = static_cast<int>(n % 3);
        c.latitude = spot.at.lat;
        c.longitude = spot.at.lon;
        cameras.push_back(std::move(c));
    }
    return cameras;
}

}  // namespace

const std::vector<std::string>& sponsorBanners() {
    static const std::vector<std::string> names = {"sponsor-rainbow.png", "sponsor-water.png",
                                                   "sponsor-insurance.png"};
    return names;
}

const std::vector<FeedCamera>& feedCameras() {
    static const std::vector<FeedCamera> cameras = buildCameras();
    return cameras;
}

std::string cameraFeedJSON(std::chrono::system_clock::time_point now, const std::string& origin) {
    nlohmann::json items = nlohmann::json::array();
    std::string stamp = bangkokTimeText(now);
    for (std::size_t n = 0; n < feedCameras().size(); ++n) {
        const FeedCamera& c = feedCameras()[n];
        nlohmann::json item = {
            {"camid", c.camid},
            {"title", c.title},
            // Some cameras report the day only; readers get no time for them.
            {"lastupdate", n % 7 == 3 ? stamp.substr(0, 10) : stamp},
            {"organization", c.organization},
            {"sponsertext", c.sponsorText},
            {"overlay_file", c.overlayFile},
            {"imgurl", origin + "/cctv/still/" + c.camid + ".jpg"},
            {"vdourl", origin + "/cctv/motion/" + c.camid + ".png"},
            {"latitude", c.latitude},
            {"longitude", c.longitude},
        };
        switch (c.format) {
            case 0:
                // Stills: "N", a lower-case "y" (which is not "Y") or no "motion" at all.
                if (n % 9 == 3) {
                    item["motion"] = "y";
                } else if (n % 9 != 6) {
                    item["motion"] = "N";
                }
                item["hls_url"] = nullptr;
                break;
            case 1:
                item["motion"] = "Y";
                item["hls_url"] = nullptr;
                break;
            default:
                item["motion"] = "Y";
                item["hls_url"] = origin + "/hls/cam-" + c.camid + "/index.m3u8";
                break;
        }
        items.push_back(std::move(item));
    }
    return nlohmann::json{{"item", std::move(items)}}.dump();
}

}  // namespace sorvan::server

#include "cameras/camera_feed.hpp"

#include <optional>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "sorvan/platform/foundation/date_formatter.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cameras {
namespace {

std::optional<std::string> text(const json::Value& item, const char* name) {
    return json::stringValue(json::requireText(json::member(item, name), name));
}

// An address the feed sends that is no URL (spaces, Thai letters unescaped) gives none.
std::optional<net::URL> address(const json::Value& item, const char* name) {
    auto value = text(item, name);
    return value ? net::URL::fromString(*value) : std::nullopt;
}

double number(const json::Value& item, const char* name) {
    return json::doubleValue(json::requireNumeric(json::member(item, name), name));
}

}  // namespace

std::shared_ptr<SMCameraAnnotation> cameraFromItem(const json::Value& item,
                                                   const std::string& imageServer) {
    // A formatter per item: the feed is small and the rule keeps items independent.
    DateFormatter dates("yyyy-MM-dd HH:mm:ss", "en_US");
    auto camera = std::make_shared<SMCameraAnnotation>();
    // Identifiers may come as numbers; their text is the id.
    const json::Value& camid = json::member(item, "camid");
    camera->setCameraId(camid.is_number() ? json::textualForm(camid) : text(item, "camid"));
    camera->setCameraTitle(text(item, "title"));
    if (auto when = text(item, "lastupdate")) {
        camera->setLastUpdate(dates.dateFromString(*when));
    }
    camera->setOrganization(text(item, "organization"));
    camera->setSponsorText(text(item, "sponsertext"));

    // Formatted like any object: an absent file name reads "(null)".
    std::string file = json::textualForm(json::member(item, "overlay_file")).value_or("(null)");
    camera->setSponsorImageURL(
        net::URL::fromString(imageServer + strformat("/feed/images/%s", file.c_str())));

    // Only an exact "Y" means moving pictures; a JSON null "hls_url" means no live stream.
    const json::Value& motion = json::member(item, "motion");
    bool moving = motion.is_string() && motion.get_ref<const std::string&>() == "Y";
    const json::Value& hls = json::member(item, "hls_url");
    if (!moving) {
        camera->setUrl(address(item, "imgurl"));
        camera->setFormat(SMCameraFormatStill);
    } else if (hls.is_null() && !json::isMissing(hls)) {
        camera->setUrl(address(item, "vdourl"));
        camera->setFormat(SMCameraFormatMotion);
    } else {
        // A missing "hls_url" is a stream without an address: the player fails, nothing else.
        camera->setUrl(address(item, "hls_url"));
        camera->setFormat(SMCameraFormatLive);
    }
    camera->setCoordinate({number(item, "latitude"), number(item, "longitude")});
    return camera;
}

std::vector<std::shared_ptr<SMCameraAnnotation>> camerasFromFeed(const json::Value& feed,
                                                                 const std::string& imageServer) {
    std::vector<std::shared_ptr<SMCameraAnnotation>> cameras;
    for (const json::Value& item : json::arrayItems(json::member(feed, "item"))) {
        cameras.push_back(cameraFromItem(item, imageServer));
    }
    return cameras;
}

}  // namespace sorvan::cameras

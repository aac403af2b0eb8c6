// The camera service: the feed "/camera.json", each camera's still "/cctv/still/ID.jpg" and
// moving picture "/cctv/motion/ID.png", and the sponsors' banners "/feed/images/NAME". The
// live streams the feed names are the service's "/hls/" streams.
#include "camera_feed.hpp"
#include "camera_pictures.hpp"
#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {
namespace {

// The camera named by the last part of a path, without its extension; nullptr for no camera.
const FeedCamera* cameraOf(const Request& request, const std::string& prefix,
                           const std::string& extension) {
    std::string rest = request.path.substr(prefix.size());
    if (rest.size() <= extension.size() ||
        rest.compare(rest.size() - extension.size(), extension.size(), extension) != 0) {
        return nullptr;
    }
    rest.resize(rest.size() - extension.size());
    for (const FeedCamera& c : feedCameras()) {
        if (c.camid == rest) {
            return &c;
        }
    }
    return nullptr;
}

Response picture(std::string type, std::string bytes) {
    Response r;
    r.contentType = std::move(type);
    r.body = std::move(bytes);
    // Pictures change with the clock: nothing may keep them.
    r.headers.emplace_back("Cache-Control", "no-store");
    return r;
}

}  // namespace

void installCameraRoutes(EmbeddedService& service) {
    service.route("/camera.json", [&service](const Request& request) {
        // Picture addresses point back at whatever address the client reached us by.
        auto host = request.headers.find("host");
        std::string origin =
            host != request.headers.end() ? "http://" + host->second : service.origin();
        return Response::json(cameraFeedJSON(service.now(), origin));
    });
    service.route("/cctv/still/", [&service](const Request& request) {
        const FeedCamera* camera = cameraOf(request, "/cctv/still/", ".jpg");
        if (!camera) {
            return Response::text(404, "no such camera\n");
        }
        return picture("image/jpeg", cameraStillJPEG(camera->camid, service.now()));
    });
    service.route("/cctv/motion/", [&service](const Request& request) {
        const FeedCamera* camera = cameraOf(request, "/cctv/motion/", ".png");
        if (!camera) {
            return Response::text(404, "no such camera\n");
        }
        return picture("image/png", cameraMotionAPNG(camera->camid, service.now()));
    });
    service.route("/feed/images/", [](const Request& request) {
        auto banner = sponsorBannerPNG(request.path.substr(std::string("/feed/images/").size()));
        if (!banner) {
            return Response::text(404, "no such banner\n");
        }
        return Response::png(std::move(*banner));
    });
}

}  // namespace sorvan::server

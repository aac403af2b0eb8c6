// `sorvan cameras`: the traffic cameras as a map view holds them after one load of the camera
// feed; a table or JSON.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "command.hpp"
#include "live_annotations.hpp"
#include "options.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

struct CamerasOptions {
    double timeout = 60;
    bool json = false;
};

Runner setupCameras(CLI::App& app) {
    app.description(
        "Loads the traffic camera feed once into a map view and prints its cameras as the\n"
        "view holds them, in the feed's order: id, what it shows (still, motion or live),\n"
        "when it was last updated in this computer's time zone (- when the feed gives no\n"
        "time), position and title, and the address of its picture or stream. The feed\n"
        "needs no key.");
    auto o = std::make_shared<CamerasOptions>();
    addNumber(app, "--timeout", o->timeout,
              "how long to wait for the feed, in seconds (default 60)", 0.1, 3600);
    addJsonFlag(app, o->json,
                "print a JSON array of cameras (cameraId, cameraTitle, lastUpdate,\n"
                "organization, sponsorText, sponsorImageURL, url, format, latitude,\n"
                "longitude; lastUpdate as \"yyyy-MM-dd HH:mm:ss\" or null)");
    return [o](const Context& context) -> int {
        LiveFailures failures;
        auto view = SorvanMapView::create({0, 0, 800, 600});
        view->setShowsCameras(true);
        dispatch::RunLoop::main().runUntil([] { return liveSettled(); },
                                           dispatch::Duration(o->timeout));
        if (!liveSettled()) {
            return failure(context.name, "the camera feed did not answer within " +
                                             strformat("%g", o->timeout) + " s (" +
                                             ServiceConfig::current().cameraFeed + ")");
        }
        if (auto first = failures.firstCameraError()) {
            return failure(context.name, "the camera feed failed: " + *first);
        }
        auto cameras = camerasOf(*view);
        if (o->json) {
            std::printf("%s\n", camerasJSON(cameras).dump(2).c_str());
        } else {
            printCameraTable(cameras);
        }
        return kSuccess;
    };
}

const Command::Registration registration{{"cameras", "list the traffic cameras of the camera feed",
                                          "the camera feed failed or did not answer in time",
                                          setupCameras}};

}  // namespace
}  // namespace sorvan::cli

// The map view's traffic cameras: loading the camera feed, adding and removing its cameras.
// Main queue only; the feed's answer is read on the URL session's queue and its cameras are
// added on the main queue.
#include <memory>
#include <stdexcept>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "cameras/camera_feed.hpp"
#include "mapview/live_feed.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan {
namespace {

void logCameraError(const std::string& description) {
    log::error("showCameras Error: %s", description.c_str());
}

// On the main queue: puts a feed's cameras on the map, unless the layer went off meanwhile.
void addCameras(std::weak_ptr<SorvanMapView> self,
                std::vector<std::shared_ptr<SMCameraAnnotation>> cameras) {
    dispatch::RunLoop::main().async([self = std::move(self), token = mapview::beginLiveRequest(),
                                     cameras = std::move(cameras)] {
        auto view = self.lock();
        if (!view) {
            return;
        }
        // Switched off while the feed was on its way: it brings nothing, and whatever
        // another load put on the map goes too.
        if (!view->showsCameras()) {
            view->unloadCamera();
            return;
        }
        // Cameras already on the map stay: a second load shows each camera twice.
        std::vector<std::shared_ptr<map::Annotation>> added(cameras.begin(), cameras.end());
        view->addAnnotations(added);
    });
}

}  // namespace

void SorvanMapView::setShowsCameras(bool shows) {
    showsCameras_ = shows;
    if (shows) {
        loadCamera();
    } else {
        unloadCamera();
    }
}

void SorvanMapView::showCameras() {
    setShowsCameras(true);
}

void SorvanMapView::removeCameras() {
    setShowsCameras(false);
}

void SorvanMapView::loadCamera() {
    ServiceConfig config = ServiceConfig::current();
    std::weak_ptr<SorvanMapView> self = weakSelf();
    mapview::fetchFeed(config.cameraFeed, logCameraError,
                       [self, imageServer = config.cameraImageServer](json::Value feed) {
                           std::vector<std::shared_ptr<SMCameraAnnotation>> cameras;
                           try {
                               cameras = cameras::camerasFromFeed(feed, imageServer);
                           } catch (const json::StructureError& e) {
                               logCameraError(e.reason());
                               return;
                           } catch (const std::exception& e) {
                               logCameraError(e.what());
                               return;
                           }
                           addCameras(self, std::move(cameras));
                       });
}

void SorvanMapView::unloadCamera() {
    mapview::removeAnnotationsOf<SMCameraAnnotation>(weakSelf());
}

}  // namespace sorvan

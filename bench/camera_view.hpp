// The SDK's camera view for bench_media: a live camera built by getVDOViewFromCameraData,
// sized as a host would size it, with the sponsor banner of the same service.
#pragma once

#include <memory>
#include <string>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"

inline std::shared_ptr<sorvan::ui::View> makeCameraView(const std::string& hlsURL) {
    static const std::shared_ptr<sorvan::SorvanMapView> map = sorvan::SorvanMapView::create();
    auto camera = std::make_shared<sorvan::SMCameraAnnotation>();
    camera->setFormat(sorvan::SMCameraFormatLive);
    camera->setUrl(sorvan::net::URL::fromString(hlsURL));
    std::string origin = hlsURL.substr(0, hlsURL.find("/hls/"));
    camera->setSponsorImageURL(
        sorvan::net::URL::fromString(origin + "/feed/images/sponsor-water.png"));
    auto view = map->getVDOViewFromCameraData(camera);
    view->setFrame({0, 0, 640, 360});
    return view;
}

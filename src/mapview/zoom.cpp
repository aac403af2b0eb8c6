// Zoom level of the map view and the region-change handler.
#include <cmath>
#include <cstdint>
#include <limits>

#include "SorvanMapSDK/SMEventAnnotation.hpp"
#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "SorvanMapSDK/SMTileOverlayRenderer.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "mapview/view_hooks.hpp"

namespace sorvan {
namespace {

// Rounds halves away from zero and converts the way the devices the kit was first built for
// convert a double to a 32-bit integer: saturating at the ends, not-a-number giving 0. A view
// of zero width has a zoom of minus infinity, which must not be undefined behaviour here.
std::int32_t roundedZoom(double zoom) {
    double r = std::round(zoom);
    if (std::isnan(r)) {
        return 0;
    }
    if (r >= static_cast<double>(std::numeric_limits<std::int32_t>::max())) {
        return std::numeric_limits<std::int32_t>::max();
    }
    if (r <= static_cast<double>(std::numeric_limits<std::int32_t>::min())) {
        return std::numeric_limits<std::int32_t>::min();
    }
    return static_cast<std::int32_t>(r);
}

}  // namespace

double SorvanMapView::zoomLevel() const {
    return std::log2(bounds().size.width / visibleMapRect().size.width) + 20.0;
}

void SorvanMapView::setZoomLevel(double zoomLevel) {
    double latitudeSpan = region().span.latitudeDelta;
    if (latitudeSpan < 90.0) {
        if (!(zoomLevel < 21.0)) {
            return;
        }
    } else if (!(zoomLevel < 21.0 && storedZoom_ < zoomLevel)) {
        // At world scale (or with no sensible span) the never-written stored zoom, 0, is the
        // floor: a request of 0 or less is ignored.
        return;
    }
    map::CoordinateRegion wanted{centerCoordinate(), coordinateSpanWithZoomLevel(zoomLevel)};
    setRegion(regionThatFits(wanted), true);
}

// The pixel space is 2^29 units wide, twice the engine's map-point world, so the base here is
// 21 where zoomLevel() adds 20; both give the same zoom for the same view.
map::CoordinateSpan SorvanMapView::coordinateSpanWithZoomLevel(double zoomLevel) const {
    map::Coordinate c = centerCoordinate();
    double cx = longitudeToPixelSpaceX(c.longitude);
    double cy = latitudeToPixelSpaceY(c.latitude);
    double w = bounds().size.width;
    double h = bounds().size.height;
    double k = std::pow(2.0, 21.0 - zoomLevel);
    double sw = k * w;
    double sh = k * h;
    double left = cx - sw * 0.5;
    double top = cy - sh * 0.5;
    double longitudeDelta = pixelSpaceXToLongitude(sw + left) - pixelSpaceXToLongitude(left);
    double latitudeDelta = -(pixelSpaceYToLatitude(sh + top) - pixelSpaceYToLatitude(top));
    return {latitudeDelta, longitudeDelta};
}

void SorvanMapView::regionDidChangeAnimated(map::MapView& /*mapView*/, bool /*animated*/) {
    std::int32_t zoom = roundedZoom(zoomLevel());
    globals::setCurrentZoom(zoom);
    // The bounce does not touch currentZoom now; the region change it causes does.
    if (zoom >= 21) {
        setZoomLevel(20.0);
    }

    // Tags of other zooms and events above their show level are hidden; the others shown.
    // Annotations whose view was never made are left alone.
    auto bound = globals::tagOverlay();
    bool tagsShown = false;
    if (bound) {
        auto names = bound->tag();
        tagsShown = names && !names->empty();
    }
    if (tagsShown || showsEvents_) {
        for (const auto& annotation : annotations()) {
            std::shared_ptr<map::AnnotationView> view = viewForAnnotation(annotation);
            if (!view) {
                continue;
            }
            if (auto tag = std::dynamic_pointer_cast<SMTagAnnotation>(annotation)) {
                view->setHidden(tag->zoom() != std::int64_t{zoom});
            } else if (auto event = std::dynamic_pointer_cast<SMEventAnnotation>(annotation)) {
                view->setHidden(event->showlevel() > std::int64_t{zoom});
            }
        }
    }

    for (const auto& follower : mapview::regionChangeFollowers()) {
        follower(*this);
    }
}

}  // namespace sorvan

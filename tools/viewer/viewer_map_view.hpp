// The viewer's map: a SorvanMapView that also tells the window when a region change is
// complete and when a camera was clicked, and shows the text of search pins and traffic events
// in callouts, the way an application subclass would. Main queue only.
#pragma once

#include <functional>
#include <memory>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/SMEventAnnotation.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "sorvan/platform/location/map_location_source.hpp"

namespace sorvan::viewer {

class ViewerMapView final : public SorvanMapView {
  public:
    /// A map whose user position comes from source.
    static std::shared_ptr<ViewerMapView> make(gfx::Rect frame,
                                               std::shared_ptr<location::Source> source) {
        initialize();
        std::shared_ptr<ViewerMapView> view(new ViewerMapView(frame));
        view->setDelegate(view);
        view->setLocationSource(std::make_shared<location::MapLocationSource>(std::move(source)));
        return view;
    }

    void setRegionChanged(std::function<void()> callback) { regionChanged_ = std::move(callback); }
    using CameraClicked = std::function<void(const std::shared_ptr<SMCameraAnnotation>&)>;
    void setCameraClicked(CameraClicked callback) { cameraClicked_ = std::move(callback); }

    using map::MapView::viewForAnnotation;

    // Pins and events carry no title of their own: their callouts get the pin's name and
    // address, the event's title and description.
    std::shared_ptr<map::AnnotationView> viewForAnnotation(
        map::MapView& mapView, const std::shared_ptr<map::Annotation>& annotation) override {
        auto view = SorvanMapView::viewForAnnotation(mapView, annotation);
        if (!view) {
            return view;
        }
        if (auto pin = std::dynamic_pointer_cast<SMPinAnnotation>(annotation)) {
            view->setCanShowCallout(true);
            view->setCalloutTitle(pin->name());
            view->setCalloutSubtitle(pin->address());
        } else if (auto event = std::dynamic_pointer_cast<SMEventAnnotation>(annotation)) {
            view->setCanShowCallout(true);
            view->setCalloutTitle(event->eventTitle());
            view->setCalloutSubtitle(event->eventDescription());
        }
        return view;
    }

    // The kit lets go of a selected event at once; the viewer keeps it, for its callout. A
    // clicked camera opens its view.
    void didSelectAnnotationView(map::MapView& mapView,
                                 const std::shared_ptr<map::AnnotationView>& view) override {
        if (view && std::dynamic_pointer_cast<SMEventAnnotation>(view->annotation())) {
            return;
        }
        SorvanMapView::didSelectAnnotationView(mapView, view);
        auto camera =
            view ? std::dynamic_pointer_cast<SMCameraAnnotation>(view->annotation()) : nullptr;
        if (camera) {
            if (auto callback = cameraClicked_) {
                callback(camera);
            }
        }
    }

    // A tap on a callout brings its annotation to the middle of the map.
    void calloutTapped(map::MapView& /*mapView*/,
                       const std::shared_ptr<map::AnnotationView>& view) override {
        if (auto annotation = view ? view->annotation() : nullptr) {
            setCenterCoordinate(annotation->coordinate(), true);
        }
    }

    void regionDidChangeAnimated(map::MapView& mapView, bool animated) override {
        SorvanMapView::regionDidChangeAnimated(mapView, animated);
        if (auto callback = regionChanged_) {
            callback();
        }
    }

  private:
    explicit ViewerMapView(gfx::Rect frame) : SorvanMapView(frame) {}
    std::function<void()> regionChanged_;
    CameraClicked cameraClicked_;
};

}  // namespace sorvan::viewer

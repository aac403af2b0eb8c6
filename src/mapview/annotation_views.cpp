// The map view as its own annotation-view factory: a view per annotation class, icons fetched
// from the icon services and set when they arrive, and the selection rule. Main queue only;
// icon answers arrive on their session's queue and are turned into pictures on the main queue.
#include <memory>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/SMEventAnnotation.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "SorvanMapSDK/SMTileOverlayRenderer.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "mapview/live_requests.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan {
namespace {

constexpr std::int64_t kMapIcon = 0;
constexpr std::int64_t kTrafficIcon = 1;
// Traffic icons are drawn for double-resolution screens whatever the screen.
constexpr double kTrafficIconScale = 2.0;
constexpr double kPinZPosition = 999.0;
// Tags are drawn see-through so that the map under a cluster stays readable.
constexpr double kTagAlpha = 0.5;

// Icons are asked for with a policy that answers from the URL cache whenever it holds the
// address, so each icon crosses the network once until the cache is emptied. One session
// serves every view (a session has a queue of its own; one per icon would be wasteful).
net::URLSession& iconSession() {
    // Never destroyed, like the shared session: completions may still run as the process
    // ends.
    static std::shared_ptr<net::URLSession>* const session = [] {
        net::URLSessionConfiguration configuration =
            net::URLSessionConfiguration::defaultConfiguration();
        configuration.requestCachePolicy = net::CachePolicy::ReturnCacheDataElseLoad;
        return new std::shared_ptr<net::URLSession>(net::URLSession::create(configuration));
    }();
    return **session;
}

}  // namespace

bool SorvanMapView::staysUnselected(const map::Annotation& annotation) {
    // Tags, events and cameras are markers, not things to pick.
    return dynamic_cast<const SMTagAnnotation*>(&annotation) != nullptr ||
           dynamic_cast<const SMEventAnnotation*>(&annotation) != nullptr ||
           dynamic_cast<const SMCameraAnnotation*>(&annotation) != nullptr;
}

std::shared_ptr<map::AnnotationView> SorvanMapView::viewForAnnotation(
    map::MapView& /*mapView*/, const std::shared_ptr<map::Annotation>& annotation) {
    if (!annotation) {
        return nullptr;
    }
    if (std::dynamic_pointer_cast<map::UserLocation>(annotation)) {
        return userLocationAnnotationView(annotation);
    }
    auto view = std::make_shared<map::AnnotationView>(annotation);

    if (auto pin = std::dynamic_pointer_cast<SMPinAnnotation>(annotation)) {
        // The callback keeps the view and the pin until the icon comes, even when the map has
        // dropped them meanwhile (setting the picture then shows nothing).
        getImageFromType(pin->type(), kMapIcon, [view, pin](const auto& image) {
            view->setImage(image);
            // Intended: above 1 for every real latitude, so the pin is opaque.
            view->setAlpha(750.0 - pin->coordinate().latitude);
        });
        return view;
    }

    if (auto tag = std::dynamic_pointer_cast<SMTagAnnotation>(annotation)) {
        auto bound = globals::tagOverlay();
        if (!bound || bound->setId() != tag->setId()) {
            // A tag of an earlier binding (or of none): it goes while its view is asked for.
            removeAnnotation(annotation);
            return view;
        }
        if (auto icon = tag->customIcon()) {
            view->setImage(icon->image());
            view->setCenterOffset(icon->offset());
            view->setAlpha(icon->alpha());
        } else {
            getImageFromType(tag->type(), kMapIcon, [view](const auto& image) {
                view->setImage(image);
                view->setAlpha(kTagAlpha);
            });
        }
        return view;
    }

    if (auto event = std::dynamic_pointer_cast<SMEventAnnotation>(annotation)) {
        getImageFromType(event->iconName(), kTrafficIcon, [view, event](const auto& image) {
            view->setImage(image);
            view->setHidden(event->showlevel() > globals::currentZoom());
        });
        return view;
    }

    if (auto camera = std::dynamic_pointer_cast<SMCameraAnnotation>(annotation)) {
        // Any moving picture, live or not, gets the video sign.
        getImageFromType(camera->format() != 0 ? "video" : "camera", kTrafficIcon,
                         [view](const auto& image) { view->setImage(image); });
        return view;
    }

    auto pin = std::make_shared<map::PinAnnotationView>(annotation);
    pin->setPinTintColor(gfx::Color::red());
    pin->setAnimatesDrop(true);
    pin->setZPosition(kPinZPosition);
    pin->setCanShowCallout(true);
    return pin;
}

void SorvanMapView::didSelectAnnotationView(map::MapView& /*mapView*/,
                                            const std::shared_ptr<map::AnnotationView>& view) {
    if (!view) {
        return;
    }
    if (auto annotation = view->annotation(); annotation && staysUnselected(*annotation)) {
        deselectAnnotation(annotation, true);
    }
}

void SorvanMapView::getImageFromType(const std::optional<std::string>& type, std::int64_t pinType,
                                     SMImageCompletion completion) {
    std::string address;
    double scale = 0;
    const char* fallback = nullptr;
    ServiceConfig config = ServiceConfig::current();
    if (pinType == kTrafficIcon) {
        std::string name = type.value_or("information");
        address = config.trafficIconService +
                  strformat("/sites/all/modules/traffic/images/icon_%s-l.png", name.c_str());
        scale = kTrafficIconScale;
        fallback = "information";
    } else if (pinType == kMapIcon) {
        std::string name = type.value_or("reddot");
        scale = screenScale();
        std::string suffix = scale < 2.0 ? "" : strformat("_%.0fx", scale);
        address = config.iconService +
                  strformat("/tvmap/images/icons%s/%s.png", suffix.c_str(), name.c_str());
        fallback = "reddot";
    } else {
        return;
    }

    auto deliver = [completion = std::move(completion),
                    token = mapview::beginLiveRequest()](std::shared_ptr<gfx::Image> image) {
        dispatch::RunLoop::main().async([completion, token, image = std::move(image)] {
            if (completion) {
                completion(image);
            }
        });
    };
    // An address that is no URL fails like a request that could not be made.
    auto url = net::URL::fromString(address);
    if (!url) {
        deliver(Bundle::kit().image(fallback));
        return;
    }
    iconSession().dataTask(net::URLRequest(*url),
                           [deliver, scale, fallback](const std::optional<net::Data>& data,
                                                      const std::optional<net::HTTPURLResponse>&,
                                                      const std::optional<net::Error>& error) {
                               // The status is not looked at: a body that is no picture gives no
                               // picture.
                               if (error) {
                                   deliver(Bundle::kit().image(fallback));
                               } else {
                                   deliver(data ? gfx::Image::fromData(*data, scale) : nullptr);
                               }
                           });
}

}  // namespace sorvan

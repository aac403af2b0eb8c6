// The public feeds behind the live layers (traffic events, cameras): one way to ask for them and
// one way to take a layer's annotations off the map again.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "SorvanMapSDK/SorvanMapView.hpp"
#include "foundation/json_access.hpp"
#include "mapview/live_requests.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::mapview {

/// Asks for the feed at `address` (public: no key, no locale, the app's Referer) and hands its
/// parsed JSON to `parsed` on the URL session's queue. An unusable address, a failed request
/// or a body that is not JSON goes to `fail` with its description instead; `parsed` is then
/// never called. The request counts as live until `parsed` or `fail` returns.
void fetchFeed(const std::string& address, void (*fail)(const std::string& description),
               std::function<void(json::Value feed)> parsed);

/// Removes, on the main queue, every annotation of kind T from the view, if it still exists.
template <class T>
void removeAnnotationsOf(std::weak_ptr<SorvanMapView> view) {
    dispatch::RunLoop::main().async([view = std::move(view), token = beginLiveRequest()] {
        auto shown = view.lock();
        if (!shown) {
            return;
        }
        std::vector<std::shared_ptr<map::Annotation>> ofKind;
        for (const auto& annotation : shown->annotations()) {
            if (std::dynamic_pointer_cast<T>(annotation)) {
                ofKind.push_back(annotation);
            }
        }
        shown->removeAnnotations(ofKind);
    });
}

}  // namespace sorvan::mapview

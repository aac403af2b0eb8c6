// Where the features that live beside the map view's core (tags, traffic events, the heading
// arrow of the user-location display) join its own operations. The core calls whatever a
// feature registered at the points named below; a feature that was never used registers
// nothing, and the core then does exactly what it does without that feature.
//
// Registration is thread-safe and keyed by feature name (registering again replaces). The
// hooks themselves are called on the main queue, from the operation that names them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sorvan/platform/map/annotation.hpp"

namespace sorvan {
class SorvanMapView;
}

namespace sorvan::mapview {

/// A class of annotations whose views are shown only at some zoom levels, for the
/// region-change handler's walk over the map's annotations.
struct ZoomBoundAnnotations {
    /// Whether the feature needs the walk now (its annotations may be on the map). The walk
    /// happens when any registered feature answers true, and then applies every rule.
    std::function<bool(const SorvanMapView& view)> walkNeeded;
    /// For an annotation of the feature's class: whether its view is hidden at zoom.
    /// nullopt for annotations of other classes.
    std::function<std::optional<bool>(const map::Annotation& annotation, std::int32_t zoom)>
        hiddenAtZoom;
};

void registerZoomBoundAnnotations(const std::string& feature, ZoomBoundAnnotations hooks);

/// Run at the end of every region change, after the annotation walk (the heading arrow turns
/// with the map).
void registerRegionChangeFollower(const std::string& feature,
                                  std::function<void(SorvanMapView& view)> follower);

/// Run at the end of setLanguage, after the tags were re-bound (the event feed reloads in the
/// new language).
void registerLanguageChangeFollower(const std::string& feature,
                                    std::function<void(SorvanMapView& view)> follower);

/// Re-binds the tags shown on a view after its layer stack changed; SorvanMapView::reAddTag
/// runs it. Unset while the tag feature was never used, and then there is nothing to re-bind.
void setTagRebinder(std::function<void(SorvanMapView& view)> rebinder);

// Used by the view.
std::vector<ZoomBoundAnnotations> zoomBoundAnnotations();
std::vector<std::function<void(SorvanMapView&)>> regionChangeFollowers();
std::vector<std::function<void(SorvanMapView&)>> languageChangeFollowers();
std::function<void(SorvanMapView&)> tagRebinder();

}  // namespace sorvan::mapview

// Where features that live beside the map view's core (the heading arrow of the user-location
// display) join its own operations. The core calls whatever a feature registered at the
// points named below; a feature that was never used registers nothing, and the core then does
// exactly what it does without that feature.
//
// Registration is thread-safe and keyed by feature name (registering again replaces). The
// hooks themselves are called on the main queue, from the operation that names them.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace sorvan {
class SorvanMapView;
}

namespace sorvan::mapview {

/// Run at the end of every region change, after the annotation walk (the heading arrow turns
/// with the map).
void registerRegionChangeFollower(const std::string& feature,
                                  std::function<void(SorvanMapView& view)> follower);

// Used by the view.
std::vector<std::function<void(SorvanMapView&)>> regionChangeFollowers();

}  // namespace sorvan::mapview

// The user's position on the map view.
#include "SorvanMapSDK/SorvanMapView.hpp"

namespace sorvan {

std::shared_ptr<map::AnnotationView> SorvanMapView::userLocationAnnotationView(
    const std::shared_ptr<map::Annotation>& /*annotation*/) {
    // The kit has no drawing of its own for the user yet: the engine's default dot stands.
    return nullptr;
}

}  // namespace sorvan

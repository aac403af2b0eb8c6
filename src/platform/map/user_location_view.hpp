// The engine's own drawing of the user's position, used when the delegate gives no view for
// the user-location annotation. Main queue only.
#pragma once

#include "sorvan/platform/map/annotation_view.hpp"

namespace sorvan::map::detail {

/// A blue dot with a white rim on a pale accuracy halo.
class UserLocationView : public AnnotationView {
  public:
    explicit UserLocationView(std::shared_ptr<Annotation> annotation);
    void draw(cairo_t* context, gfx::Rect bounds) override;
};

}  // namespace sorvan::map::detail

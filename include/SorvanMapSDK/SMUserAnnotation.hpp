// SMUserAnnotation: the kit's own drawing of the user's position, placed in the user-location
// annotation view when the map view's userAnnotationType is 1. Two image views fill it: the
// position marker ("pin") and above it the heading arrow ("heading"), which stays hidden until
// a heading is known and which the map view turns.
//
// A view: a shared object, main queue only.
#pragma once

#include <memory>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/ui/controls.hpp"
#include "sorvan/platform/ui/view.hpp"

namespace sorvan {

class SORVAN_EXPORT SMUserAnnotation : public ui::View {
  public:
    /// The marker picture "marker" and the hidden arrow "heading" of the kit's own resources,
    /// each in an image view of 70 x 70 points that grows and shrinks with this view.
    static std::shared_ptr<SMUserAnnotation> create(gfx::Rect frame);

    const std::shared_ptr<ui::ImageView>& heading() const { return heading_; }
    const std::shared_ptr<ui::ImageView>& pin() const { return pin_; }

  protected:
    explicit SMUserAnnotation(gfx::Rect frame) : ui::View(frame) {}

  private:
    std::shared_ptr<ui::ImageView> heading_;
    std::shared_ptr<ui::ImageView> pin_;
};

}  // namespace sorvan

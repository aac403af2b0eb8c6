#include "SorvanMapSDK/SMUserAnnotation.hpp"

#include "sorvan/platform/foundation/bundle.hpp"

namespace sorvan {

std::shared_ptr<SMUserAnnotation> SMUserAnnotation::create(gfx::Rect frame) {
    std::shared_ptr<SMUserAnnotation> view(new SMUserAnnotation(frame));
    const unsigned flexible = ui::kFlexibleWidth | ui::kFlexibleHeight;
    view->pin_ = std::make_shared<ui::ImageView>(Bundle::kit().image("marker"));
    view->pin_->setFrame({0, 0, 70, 70});
    view->addSubview(view->pin_);
    view->pin_->setAutoresizingMask(flexible);
    view->heading_ = std::make_shared<ui::ImageView>(Bundle::kit().image("heading"));
    view->heading_->setFrame({0, 0, 70, 70});
    view->heading_->setAutoresizingMask(flexible);
    view->addSubview(view->heading_);
    view->heading_->setHidden(true);
    return view;
}

}  // namespace sorvan

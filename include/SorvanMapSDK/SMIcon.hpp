// SMIcon: a picture with the opacity and centre offset of the view that shows it. A host hands
// one to a pin (carried only) or to a tag annotation (drawn instead of the fetched icon).
// Value-like shared object; not synchronised: set it up before sharing it between threads.
#pragma once

#include <memory>
#include <utility>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/geometry.hpp"
#include "sorvan/platform/graphics/image.hpp"

namespace sorvan {

class SORVAN_EXPORT SMIcon {
  public:
    /// The only way to make an icon: alpha 1.0 and offset (0, 0).
    explicit SMIcon(std::shared_ptr<gfx::Image> image) : image_(std::move(image)) {}
    static std::shared_ptr<SMIcon> withImage(std::shared_ptr<gfx::Image> image) {
        return std::make_shared<SMIcon>(std::move(image));
    }

    const std::shared_ptr<gfx::Image>& image() const { return image_; }
    void setImage(std::shared_ptr<gfx::Image> image) { image_ = std::move(image); }
    /// Opacity of the view that shows the icon.
    double alpha() const { return alpha_; }
    void setAlpha(double alpha) { alpha_ = alpha; }
    /// Centre offset of the view that shows the icon, in points.
    gfx::Point offset() const { return offset_; }
    void setOffset(gfx::Point offset) { offset_ = offset; }

  private:
    std::shared_ptr<gfx::Image> image_;
    double alpha_ = 1.0;
    gfx::Point offset_{0, 0};
};

}  // namespace sorvan

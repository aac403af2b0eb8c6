// An off-screen drawing surface of a size in points and a scale (pixels per point), over
// cairo. One thread at a time; create one per thread.
#pragma once

#include <memory>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/geometry.hpp"
#include "sorvan/platform/graphics/image.hpp"

typedef struct _cairo cairo_t;

namespace sorvan::gfx {

class SORVAN_EXPORT ImageContext {
  public:
    /// A transparent surface of size * scale pixels (rounded up).
    ImageContext(Size size, double scale = 1.0);
    ~ImageContext();
    ImageContext(const ImageContext&) = delete;
    ImageContext& operator=(const ImageContext&) = delete;

    Size size() const;
    double scale() const;

    void fill(const Rect& rect, const Color& color);
    /// Draws the image scaled into rect, source-over, with an extra opacity.
    void drawImage(const Image& image, const Rect& rect, double alpha = 1.0);
    /// The drawing so far as an image at this context's scale.
    std::shared_ptr<Image> makeImage() const;

    /// The cairo context (user space in points) for drawing beyond the helpers above.
    cairo_t* cairo();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sorvan::gfx

// Paints image pixels straight onto a cairo context's target, for the many small icons of a
// frame: through cairo each one costs a pattern, a path, a clip intersection and two
// composites, several times the cost of blending its pixels. Usable when the target is a
// plain image surface, the context maps user space to device pixels by scale and translation
// only, and the clip is one rectangle on whole device pixels; otherwise the caller draws
// through cairo. What it paints is what cairo would: the same blend, on the same pixels.
//
// Lives for one frame's drawing on the main queue. Between its paints and cairo's, call
// yield() before drawing through cairo; the destructor does so too.
#pragma once

#include <cairo.h>
#include <pixman.h>

#include <cstdint>

#include "foundation/c_handle.hpp"

namespace sorvan::map::detail {

using PixmanImage = CHandle<pixman_image_t, pixman_image_unref>;

/// A pixman image over premultiplied ARGB32 pixels (row stride 4 * width) that outlive it.
PixmanImage pixmanImageOver(const std::uint32_t* pixels, int width, int height);

class DirectBlitter {
  public:
    explicit DirectBlitter(cairo_t* context);
    ~DirectBlitter();
    DirectBlitter(const DirectBlitter&) = delete;
    DirectBlitter& operator=(const DirectBlitter&) = delete;

    bool usable() const { return target_ != nullptr; }
    /// Blends width x height pixels of src from (sx, sy) over the target with their top-left
    /// corner at device pixel (dx, dy), inside the clip, faded by alpha (0..1). REQUIRES:
    /// usable().
    void over(pixman_image_t* src, int sx, int sy, int dx, int dy, int width, int height,
              double alpha = 1.0);
    /// Hands the target back to cairo (it sees the new pixels).
    void yield();

  private:
    cairo_surface_t* surface_ = nullptr;
    PixmanImage target_;
    int offsetX_ = 0, offsetY_ = 0;                          // device pixel -> surface pixel
    int clipX0_ = 0, clipY0_ = 0, clipX1_ = 0, clipY1_ = 0;  // surface pixels, exclusive end
    PixmanImage fade_;  // a solid mask of the last alpha faded with, kept for the next
    std::uint16_t fadeAlpha_ = 0;
    bool painting_ = false;  // the surface holds pixels cairo has not seen yet
};

}  // namespace sorvan::map::detail

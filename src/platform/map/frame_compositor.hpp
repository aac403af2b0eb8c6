// Composes a frame's tiles: the ground, then each layer's drawn tiles bottom first, a coarser
// level's tile standing in for one not drawn yet. Main queue only.
#pragma once

#include "map/drawn_tile_cache.hpp"
#include "map/tile_scheduler.hpp"
#include "map/viewport.hpp"
#include "sorvan/platform/graphics/geometry.hpp"

typedef struct _cairo cairo_t;

namespace sorvan::map::detail {

/// A stand-in may come from at most this many levels up.
inline constexpr int kStandInLevels = 4;

/// Fills the view with the ground colour and paints the plan's drawn tiles over it. The
/// context's user space is the view's points.
void composeTiles(cairo_t* context, const Viewport& viewport, const FramePlan& plan,
                  const DrawnTileCache& drawn, gfx::Color ground);

}  // namespace sorvan::map::detail

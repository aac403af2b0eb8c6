// Composes a frame's tiles: the ground, then each layer's drawn tiles bottom first, a coarser
// level's tile standing in for one not drawn yet; and tells what each tile slot shows, for
// finding what changed between frames. Main queue only.
#pragma once

#include <vector>

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

/// What one tile slot of a frame shows: the surface painted there (the slot's own drawn
/// tile, or a coarser level's standing in for it; null when nothing shows) and the slot's box
/// on the screen, in points. The surface is held, so that a new drawing can never be mistaken
/// for this one by its address.
struct ShownTile {
    SharedSurface surface;
    int levelsUp = 0;
    gfx::Rect box;
};

/// The plan's slots as composeTiles paints them, bottom layer first.
void shownTiles(const Viewport& viewport, const FramePlan& plan, const DrawnTileCache& drawn,
                std::vector<ShownTile>& out);

}  // namespace sorvan::map::detail

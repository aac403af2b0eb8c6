// Drawing one tile of an overlay into a surface of its own, on a draw thread.
#pragma once

#include "map/drawn_tile_cache.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::map::detail {

/// Asks the renderer to draw the tile that key names, covering rect (map points) on a square
/// surface of pixels x pixels, and tells whether the result is opaque or empty. A renderer
/// that has nothing to draw yet (canDrawMapRect) gives an empty result. Called on draw
/// threads, several at once; the renderer must allow that.
DrawResult drawTile(OverlayRenderer& renderer, const DrawKey& key, const MapRect& rect,
                    double zoomScale, int pixels);

}  // namespace sorvan::map::detail

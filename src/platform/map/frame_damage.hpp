// Where a frame differs from the last one drawn, for hosts that keep the map's picture between
// frames and redraw only what changed.
//
// A frame is described by what shows in it: the camera, size and ground, the layers' tile
// slots with the drawing each shows, and the annotation views' footprints. Two descriptions
// are compared piece by piece: a slot showing another drawing, a view that moved, came or
// went. A change in what the views draw, which the layer only counts, makes every view's
// footprint damage. A change of the camera, the size, the layers, or anything the description
// does not hold (the caller says so through invalidate()) makes the whole view damage.
//
// Main queue only.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "map/annotation_layer.hpp"
#include "map/frame_compositor.hpp"
#include "map/viewport.hpp"
#include "sorvan/platform/graphics/geometry.hpp"

namespace sorvan::map::detail {

struct FrameState {
    Camera camera;
    gfx::Size size;
    double scale = 0;
    gfx::Color ground;
    std::vector<std::pair<const void*, std::int64_t>> layers;  // renderer and level, bottom first
    std::vector<ShownTile> tiles;
    std::vector<AnnotationLayer::Footprint> views;
    std::uint64_t viewContent = 0;
    bool viewsAnimating = false;
};

class FrameDamage {
  public:
    /// Beyond this many separate rectangles the damage is drawn as their bounding box: each
    /// rectangle costs a pass over the frame's tiles and views.
    static constexpr std::size_t kMaxRects = 8;

    /// The next comparison finds the whole view changed.
    void invalidate() { whole_ = true; }

    /// Where next differs from the frame last compared: the parts of the view to redraw, in
    /// points on whole device pixels, each inside the view. next becomes the last.
    std::vector<gfx::Rect> compare(FrameState next);

  private:
    std::optional<FrameState> last_;
    bool whole_ = true;
};

}  // namespace sorvan::map::detail

// Decides, frame by frame, which tiles of which overlay are visible at which level, and gets
// them ready: loads each tile of a tile overlay once on the tile threads (into the shared
// TileStore) and has renderers draw tiles on the draw threads (into the DrawnTileCache) when a
// tile first shows at a level, when its data arrives, and after setNeedsDisplay / reloadData.
//
// Loads are queued nearest the view's centre first. A queued load whose tile is no longer in
// the frame (scrolled away, another level, overlay removed) is taken back before it starts, so
// a fast pan does not leave the tile threads busy with tiles nobody sees; the tile is asked for
// again if it comes back into view. A load that has started runs to its end.
//
// Main queue only, except that loads run on the tile threads and draws on the draw threads;
// their results come back through the main queue, where the progress callback tells the map
// view. Destroying the scheduler (on the main queue) joins the threads: a load or draw in
// progress finishes first, and nothing of it reaches the main queue afterwards.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "map/drawn_tile_cache.hpp"
#include "map/tile_store.hpp"
#include "map/viewport.hpp"

namespace sorvan::map {
class Overlay;
class OverlayRenderer;
class TileOverlay;
}  // namespace sorvan::map

namespace sorvan::map::detail {

/// An overlay on the map as the scheduler sees it.
struct LayerSource {
    std::shared_ptr<Overlay> overlay;
    std::shared_ptr<OverlayRenderer> renderer;  // null: the overlay draws nothing
    /// Cleared when the overlay leaves the map, so that its queued loads are skipped.
    std::shared_ptr<std::atomic<bool>> live;
};

/// A tile in a frame: x wrapped into the world, ux as it lies on screen (may be outside the
/// world's columns when the view straddles the antimeridian).
struct TileRef {
    std::int64_t x, y, ux;
};

struct LayerPlan {
    std::shared_ptr<OverlayRenderer> renderer;
    std::int64_t z = 0;
    double tileWidth = 0;  // map points
    int pixels = 0;        // side of a drawn tile's surface
    std::vector<TileRef> tiles;
};

struct FramePlan {
    std::vector<LayerPlan> layers;  // bottom first
    std::size_t pending = 0;        // visible tiles still loading or drawing
    bool replacesContent = false;   // a tile overlay replaces the base map
};

class TileScheduler {
  public:
    /// Tiles of one layer beyond this many in a frame are not shown (a degenerate zoom).
    static constexpr std::size_t kMaxTilesPerLayer = 4096;
    static constexpr std::size_t kDefaultStoreLimit = 64u << 20;

    /// progress is called on the main queue after each finished load or draw.
    TileScheduler(DrawnTileCache& drawn, std::function<void()> progress);
    ~TileScheduler();
    TileScheduler(const TileScheduler&) = delete;
    TileScheduler& operator=(const TileScheduler&) = delete;

    /// Number of tile threads (default 4); takes effect when the threads start, at the first
    /// load.
    void setLoadThreadCount(int count);
    const std::shared_ptr<TileStore>& store() const { return store_; }

    /// Plans a frame of the given layers and starts the loads and draws it lacks. The plan
    /// stays valid until the next call or forget().
    const FramePlan& plan(const Viewport& viewport, const std::vector<LayerSource>& layers);
    /// Lets go of what an overlay that left the map had loaded and drawn.
    void forget(const LayerSource& layer);

  private:
    class WorkerPool;
    struct Token;
    struct LoadTicket;
    struct NewLoad {
        const LayerSource* layer;
        std::shared_ptr<TileOverlay> overlay;
        TileKey key;
        std::uint64_t epoch;
        double distance;  // from the view's centre, map points
    };

    void ensurePools();
    void postLoad(const LayerSource& layer, const std::shared_ptr<TileOverlay>& overlay,
                  TileKey key, std::uint64_t epoch);
    // Takes back the queued loads this frame did not ask for.
    void cancelUnwanted();
    void postDraw(const std::shared_ptr<OverlayRenderer>& renderer, DrawKey key, MapRect rect,
                  double zoomScale, int pixels, std::uint64_t generation, std::uint64_t version);

    DrawnTileCache& drawn_;
    std::shared_ptr<Token> token_;  // held weakly by results on their way to the main queue
    std::shared_ptr<TileStore> store_;
    int loadThreads_ = 4;
    std::unique_ptr<WorkerPool> loadPool_, drawPool_;
    std::uint64_t frame_ = 0;
    // Loads posted and not known to have started, by tile.
    std::unordered_map<TileKey, std::shared_ptr<LoadTicket>, TileKeyHash> queued_;
    std::vector<NewLoad> newLoads_;  // this frame's, kept for its storage
    FramePlan plan_;                 // the last frame's
};

}  // namespace sorvan::map::detail

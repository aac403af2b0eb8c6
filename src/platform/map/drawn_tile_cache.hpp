// Tiles as their renderers last drew them, per renderer and level, kept so that panning and
// re-composing frames re-use them instead of asking the renderer again. A drawn tile is current
// while its renderer's display generation and its data's version are the ones it was drawn at;
// setNeedsDisplay / reloadData bump the one, newly arrived data the other. A level not drawn
// yet borrows a coarser level's tile as a stand-in.
//
// Memory: the tiles shown in the current frame are always kept, and as many recently shown
// others as a byte budget allows, least recently shown going first.
//
// Main queue only; draw threads hand their results back through the main queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "foundation/byte_lru.hpp"

typedef struct _cairo_surface cairo_surface_t;

namespace sorvan::map {
class OverlayRenderer;
}

namespace sorvan::map::detail {

using SharedSurface = std::shared_ptr<cairo_surface_t>;

/// One tile of one renderer: level z, column x (wrapped into the world), row y.
struct DrawKey {
    const OverlayRenderer* renderer = nullptr;
    std::int64_t z = 0, x = 0, y = 0;
    bool operator==(const DrawKey&) const = default;
};

struct DrawKeyHash {
    std::size_t operator()(const DrawKey& k) const noexcept;
};

/// What a draw thread made of one tile.
struct DrawResult {
    SharedSurface surface;  // null: nothing to show
    bool opaque = false;    // every pixel fully covered
    bool empty = true;      // no pixel covered at all
};

struct DrawnTile {
    DrawResult drawn;
    bool valid = false;  // drawn at least once
    std::uint64_t generation = 0, version = 0;
    // The draw in flight, if any.
    bool pending = false;
    std::uint64_t pendingGeneration = 0, pendingVersion = 0;
    std::uint64_t lastFrame = 0;
    std::size_t bytes = 0;
};

class DrawnTileCache {
  public:
    /// Drawn tiles kept beyond the visible ones, in bytes. Their data stays in the tile store,
    /// so one let go costs a redraw, not a load: room for the levels around the current one
    /// and a screen or two of panning is enough, and more than the store itself is waste.
    static constexpr std::size_t kDefaultBudget = 32u << 20;

    explicit DrawnTileCache(std::size_t budgetBeyondVisible = kDefaultBudget);

    /// Starts a frame: tiles touched from now on are this frame's.
    void beginFrame();
    /// The tile as this frame shows it (an undrawn one when new).
    DrawnTile& touch(const DrawKey& key);
    const DrawnTile* find(const DrawKey& key) const;

    /// Whether the tile shows what its renderer would draw at this generation and version.
    static bool isCurrent(const DrawnTile& tile, std::uint64_t generation, std::uint64_t version);
    /// Records a draw about to start; false when that very draw is already in flight.
    static bool beginDraw(DrawnTile& tile, std::uint64_t generation, std::uint64_t version);
    /// Stores a finished draw unless a newer one is already there. False when the tile is no
    /// longer kept (its renderer left the map, or it was let go).
    bool install(const DrawKey& key, DrawResult result, std::uint64_t generation,
                 std::uint64_t version);

    /// The nearest drawn tile of a coarser level that covers key, at most maxLevelsUp levels
    /// up; levelsUp tells how many. Null when there is none.
    const DrawnTile* standIn(const DrawKey& key, int maxLevelsUp, int& levelsUp) const;

    /// Lets go every tile of a renderer.
    void forget(const OverlayRenderer* renderer);
    /// Lets go every tile (the screen scale changed).
    void clear();
    /// Ends a frame: keeps its tiles and as many recent others as the budget allows.
    void trim();

    std::size_t bytes() const { return tiles_.bytes(); }
    std::size_t size() const { return tiles_.size(); }

  private:
    // A tile shown in the current frame, or with a draw in flight, is kept.
    struct InUse {
        const std::uint64_t* frame;
        bool operator()(const DrawnTile& d) const { return d.pending || d.lastFrame == *frame; }
    };

    std::size_t budget_;
    std::uint64_t frame_ = 0;
    std::size_t shownBytes_ = 0;  // of the tiles this frame shows
    // Most recently shown first. Unbounded while a frame is planned; its end sets the limit
    // to what the frame shows plus the budget.
    ByteLru<DrawKey, DrawnTile, DrawKeyHash, InUse> tiles_;
};

}  // namespace sorvan::map::detail

// A tile overlay: square raster tiles addressed by TilePath, loaded on the engine's tile
// threads. Subclasses override loadTileAtPath(); it may block for seconds.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/geometry.hpp"
#include "sorvan/platform/map/overlay.hpp"

namespace sorvan::map {

class SORVAN_EXPORT TileOverlay : public Overlay {
  public:
    /// data: encoded image bytes (empty = no picture); error: set when loading failed.
    using TileResult =
        std::function<void(std::vector<std::uint8_t> data, std::optional<std::string> error)>;

    TileOverlay() = default;
    ~TileOverlay() override = default;

    /// Tile size in pixels of a 2x display (default 256 x 256): a level's tiles cover
    /// tileSize / 2 points whatever the real screen scale.
    gfx::Size tileSize() const { return tileSize_; }
    void setTileSize(gfx::Size s) { tileSize_ = s; }
    std::int64_t minimumZ() const { return minimumZ_; }
    void setMinimumZ(std::int64_t z) { minimumZ_ = z; }
    std::int64_t maximumZ() const { return maximumZ_; }
    void setMaximumZ(std::int64_t z) { maximumZ_ = z; }
    bool canReplaceMapContent() const { return canReplaceMapContent_; }
    void setCanReplaceMapContent(bool v) { canReplaceMapContent_ = v; }

    /// Called on a tile thread; may block. Must call result exactly once. The base class
    /// answers empty data.
    virtual void loadTileAtPath(const TilePath& path, TileResult result);

  private:
    gfx::Size tileSize_{256, 256};
    std::int64_t minimumZ_ = 0, maximumZ_ = 21;
    bool canReplaceMapContent_ = false;
};

}  // namespace sorvan::map

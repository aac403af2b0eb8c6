// The memory cache of loaded tiles, shared by a map view's engine (which loads them on tile
// threads) and the tile renderers (which draw them on draw threads). Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "foundation/byte_lru.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::map {
class Overlay;
}

namespace sorvan::map::detail {

struct TileKey {
    const Overlay* overlay = nullptr;
    std::int64_t z = 0, x = 0, y = 0;
    bool operator==(const TileKey&) const = default;
};

struct TileKeyHash {
    std::size_t operator()(const TileKey& k) const noexcept {
        std::size_t h = std::hash<const void*>()(k.overlay);
        for (std::int64_t v : {k.z, k.x, k.y})
            h = h * 1000003u ^ std::hash<std::int64_t>()(v);
        return h;
    }
};

class TileStore {
  public:
    enum class State { Absent, Loading, Loaded, Failed };
    struct Lookup {
        State state = State::Absent;
        std::shared_ptr<gfx::Image> image;
        std::uint64_t version = 0;  // changes whenever new data is stored for the tile
    };

    explicit TileStore(std::size_t limitBytes) : entries_(limitBytes) {}

    Lookup lookup(const TileKey& key);
    /// Marks an absent tile as loading and returns the epoch to hand back to finishLoad;
    /// 0 when the tile is already loading, loaded or failed (it must not load again).
    std::uint64_t beginLoad(const TileKey& key);
    /// Stores a loaded tile (image may be null: no picture). Ignored when the overlay was
    /// forgotten since beginLoad. Evicts least recently used tiles beyond the limit.
    void finishLoad(const TileKey& key, std::uint64_t epoch, std::shared_ptr<gfx::Image> image,
                    bool failed);
    /// Takes back a load that never started: the tile is absent again (and may be asked for
    /// again). Ignored unless the tile is still loading under that epoch.
    void cancelLoad(const TileKey& key, std::uint64_t epoch);
    /// Drops every tile of an overlay; loads in flight for it are discarded when they finish.
    void forget(const Overlay* overlay);

    std::size_t bytes() const;
    std::size_t limit() const;
    void setLimit(std::size_t bytes);

  private:
    struct Entry {
        State state = State::Loading;
        std::shared_ptr<gfx::Image> image;
        std::uint64_t version = 0, epoch = 0;
    };
    // A tile being loaded stays until its load ends, whatever the limit says.
    struct Loading {
        bool operator()(const Entry& e) const { return e.state == State::Loading; }
    };
    std::uint64_t epochOf(const Overlay* overlay);  // REQUIRES: mutex_ held

    mutable std::mutex mutex_;
    ByteLru<TileKey, Entry, TileKeyHash, Loading> entries_;  // guarded by mutex_
    std::unordered_map<const Overlay*, std::uint64_t> epochs_;
    std::uint64_t counter_ = 0;
};

}  // namespace sorvan::map::detail

#include "map/drawn_tile_cache.hpp"

#include <cairo.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace sorvan::map::detail {

std::size_t DrawKeyHash::operator()(const DrawKey& k) const noexcept {
    std::size_t h = std::hash<const void*>()(k.renderer);
    for (std::int64_t v : {k.z, k.x, k.y})
        h = h * 1000003u ^ std::hash<std::int64_t>()(v);
    return h;
}

DrawnTileCache::DrawnTileCache(std::size_t budgetBeyondVisible) : budget_(budgetBeyondVisible) {}

DrawnTile& DrawnTileCache::touch(const DrawKey& key) {
    DrawnTile& d = tiles_[key];
    d.lastFrame = frame_;
    return d;
}

const DrawnTile* DrawnTileCache::find(const DrawKey& key) const {
    auto it = tiles_.find(key);
    return it == tiles_.end() ? nullptr : &it->second;
}

bool DrawnTileCache::isCurrent(const DrawnTile& d, std::uint64_t generation,
                               std::uint64_t version) {
    return d.valid && d.generation == generation && d.version == version;
}

bool DrawnTileCache::beginDraw(DrawnTile& d, std::uint64_t generation, std::uint64_t version) {
    if (d.pending && d.pendingGeneration == generation && d.pendingVersion == version)
        return false;
    d.pending = true;
    d.pendingGeneration = generation;
    d.pendingVersion = version;
    return true;
}

bool DrawnTileCache::install(const DrawKey& key, DrawResult result, std::uint64_t generation,
                             std::uint64_t version) {
    auto it = tiles_.find(key);
    if (it == tiles_.end())
        return false;
    DrawnTile& d = it->second;
    if (d.pending && d.pendingGeneration == generation && d.pendingVersion == version)
        d.pending = false;
    // Draws may finish out of order: one that is older in display generation or in data never
    // replaces what is there (when neither is older than the other, the next frame draws the
    // tile again anyway).
    if (!d.valid || (generation >= d.generation && version >= d.version)) {
        d.drawn = std::move(result);
        d.drawn.empty = d.drawn.empty || !d.drawn.surface;
        d.valid = true;
        d.generation = generation;
        d.version = version;
        d.bytes =
            d.drawn.surface
                ? static_cast<std::size_t>(cairo_image_surface_get_stride(d.drawn.surface.get())) *
                      cairo_image_surface_get_height(d.drawn.surface.get())
                : 0;
    }
    return true;
}

const DrawnTile* DrawnTileCache::standIn(const DrawKey& key, int maxLevelsUp, int& levelsUp) const {
    for (int up = 1; up <= maxLevelsUp && key.z - up >= 0; ++up) {
        auto parent = tiles_.find({key.renderer, key.z - up, key.x >> up, key.y >> up});
        if (parent == tiles_.end() || !parent->second.valid)
            continue;
        levelsUp = up;
        return &parent->second;
    }
    return nullptr;
}

void DrawnTileCache::forget(const OverlayRenderer* renderer) {
    std::erase_if(tiles_, [renderer](const auto& kv) { return kv.first.renderer == renderer; });
}

void DrawnTileCache::clear() {
    tiles_.clear();
}

std::size_t DrawnTileCache::bytes() const {
    std::size_t total = 0;
    for (auto& [k, d] : tiles_)
        total += d.bytes;
    return total;
}

void DrawnTileCache::trim() {
    std::size_t total = 0;
    std::vector<std::pair<std::uint64_t, DrawKey>> old;
    for (auto& [k, d] : tiles_) {
        total += d.bytes;
        if (d.lastFrame != frame_ && !d.pending)
            old.push_back({d.lastFrame, k});
    }
    std::size_t visible = 0;
    for (auto& [k, d] : tiles_)
        if (d.lastFrame == frame_)
            visible += d.bytes;
    std::size_t budget = visible + budget_;
    if (total <= budget)
        return;
    std::sort(old.begin(), old.end(), [](auto& a, auto& b) { return a.first < b.first; });
    for (auto& [f, k] : old) {
        if (total <= budget)
            break;
        auto it = tiles_.find(k);
        total -= it->second.bytes;
        tiles_.erase(it);
    }
}

}  // namespace sorvan::map::detail

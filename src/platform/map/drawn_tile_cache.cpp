#include "map/drawn_tile_cache.hpp"

#include <cairo.h>

#include <cstdint>
#include <utility>

namespace sorvan::map::detail {

std::size_t DrawKeyHash::operator()(const DrawKey& k) const noexcept {
    std::size_t h = std::hash<const void*>()(k.renderer);
    for (std::int64_t v : {k.z, k.x, k.y})
        h = h * 1000003u ^ std::hash<std::int64_t>()(v);
    return h;
}

DrawnTileCache::DrawnTileCache(std::size_t budgetBeyondVisible)
    : budget_(budgetBeyondVisible), tiles_(SIZE_MAX, InUse{&frame_}) {}

void DrawnTileCache::beginFrame() {
    ++frame_;
    shownBytes_ = 0;
    tiles_.setLimit(SIZE_MAX);
}

DrawnTile& DrawnTileCache::touch(const DrawKey& key) {
    if (DrawnTile* d = tiles_.find(key)) {
        if (d->lastFrame != frame_) {
            d->lastFrame = frame_;
            shownBytes_ += d->bytes;
        }
        return *d;
    }
    DrawnTile fresh;
    fresh.lastFrame = frame_;  // in use from the start: storing it never lets it go
    tiles_.put(key, std::move(fresh), 0);
    return *tiles_.peek(key);
}

const DrawnTile* DrawnTileCache::find(const DrawKey& key) const {
    return tiles_.peek(key);
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
    DrawnTile* found = tiles_.peek(key);
    if (!found)
        return false;
    DrawnTile& d = *found;
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
        std::size_t before = d.bytes;
        d.bytes =
            d.drawn.surface
                ? static_cast<std::size_t>(cairo_image_surface_get_stride(d.drawn.surface.get())) *
                      cairo_image_surface_get_height(d.drawn.surface.get())
                : 0;
        if (d.lastFrame == frame_)
            shownBytes_ = shownBytes_ - before + d.bytes;
        tiles_.resize(key, d.bytes);  // a tile being drawn is in use: it stays
    }
    return true;
}

const DrawnTile* DrawnTileCache::standIn(const DrawKey& key, int maxLevelsUp, int& levelsUp) const {
    for (int up = 1; up <= maxLevelsUp && key.z - up >= 0; ++up) {
        const DrawnTile* parent = tiles_.peek({key.renderer, key.z - up, key.x >> up, key.y >> up});
        if (!parent || !parent->valid)
            continue;
        levelsUp = up;
        return parent;
    }
    return nullptr;
}

void DrawnTileCache::forget(const OverlayRenderer* renderer) {
    tiles_.eraseIf(
        [renderer](const DrawKey& k, const DrawnTile&) { return k.renderer == renderer; });
}

void DrawnTileCache::clear() {
    tiles_.clear();
}

void DrawnTileCache::trim() {
    tiles_.setLimit(shownBytes_ + budget_);
}

}  // namespace sorvan::map::detail

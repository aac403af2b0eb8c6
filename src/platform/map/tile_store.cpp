#include "map/tile_store.hpp"

namespace sorvan::map::detail {

namespace {
std::size_t imageBytes(const gfx::Image* image) {
    // Entries without a picture still cost their bookkeeping.
    return image ? static_cast<std::size_t>(image->pixelWidth()) * image->pixelHeight() * 4 : 64;
}
}  // namespace

std::uint64_t TileStore::epochOf(const Overlay* overlay) {
    auto [it, inserted] = epochs_.try_emplace(overlay, 0);
    if (inserted)
        it->second = ++counter_;
    return it->second;
}

TileStore::Lookup TileStore::lookup(const TileKey& key) {
    std::lock_guard lock(mutex_);
    const Entry* e = entries_.find(key);
    if (!e)
        return {};
    return {e->state, e->image, e->version};
}

std::uint64_t TileStore::beginLoad(const TileKey& key) {
    std::lock_guard lock(mutex_);
    if (entries_.contains(key))
        return 0;
    Entry e;
    e.epoch = epochOf(key.overlay);
    std::uint64_t epoch = e.epoch;
    entries_.put(key, std::move(e), imageBytes(nullptr));
    return epoch;
}

void TileStore::finishLoad(const TileKey& key, std::uint64_t epoch,
                           std::shared_ptr<gfx::Image> image, bool failed) {
    std::lock_guard lock(mutex_);
    const Entry* old = entries_.peek(key);
    if (!old || old->epoch != epoch || old->state != State::Loading)
        return;
    Entry e;
    e.state = failed ? State::Failed : State::Loaded;
    e.image = failed ? nullptr : std::move(image);
    e.epoch = epoch;
    e.version = ++counter_;
    std::size_t bytes = imageBytes(e.image.get());
    entries_.put(key, std::move(e), bytes);
}

void TileStore::cancelLoad(const TileKey& key, std::uint64_t epoch) {
    std::lock_guard lock(mutex_);
    const Entry* e = entries_.peek(key);
    if (e && e->epoch == epoch && e->state == State::Loading)
        entries_.erase(key);
}

void TileStore::forget(const Overlay* overlay) {
    std::lock_guard lock(mutex_);
    entries_.eraseIf([overlay](const TileKey& k, const Entry&) { return k.overlay == overlay; });
    // A fresh epoch: loads still in flight for the old data are dropped when they finish.
    epochs_[overlay] = ++counter_;
}

std::size_t TileStore::bytes() const {
    std::lock_guard lock(mutex_);
    return entries_.bytes();
}

std::size_t TileStore::limit() const {
    std::lock_guard lock(mutex_);
    return entries_.limit();
}

void TileStore::setLimit(std::size_t bytes) {
    std::lock_guard lock(mutex_);
    entries_.setLimit(bytes);
}

}  // namespace sorvan::map::detail

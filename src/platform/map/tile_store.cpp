#include "map/tile_store.hpp"

#include <algorithm>
#include <vector>

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
    auto it = entries_.find(key);
    if (it == entries_.end())
        return {};
    it->second.lastUse = ++clock_;
    return {it->second.state, it->second.image, it->second.version};
}

std::uint64_t TileStore::beginLoad(const TileKey& key) {
    std::lock_guard lock(mutex_);
    auto [it, inserted] = entries_.try_emplace(key);
    if (!inserted)
        return 0;
    it->second.epoch = epochOf(key.overlay);
    it->second.lastUse = ++clock_;
    it->second.bytes = imageBytes(nullptr);
    bytes_ += it->second.bytes;
    return it->second.epoch;
}

void TileStore::finishLoad(const TileKey& key, std::uint64_t epoch,
                           std::shared_ptr<gfx::Image> image, bool failed) {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(key);
    if (it == entries_.end() || it->second.epoch != epoch || it->second.state != State::Loading)
        return;
    Entry& e = it->second;
    bytes_ -= e.bytes;
    e.state = failed ? State::Failed : State::Loaded;
    e.image = failed ? nullptr : std::move(image);
    e.bytes = imageBytes(e.image.get());
    e.version = ++counter_;
    e.lastUse = ++clock_;
    bytes_ += e.bytes;
    evict();
}

void TileStore::cancelLoad(const TileKey& key, std::uint64_t epoch) {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(key);
    if (it == entries_.end() || it->second.epoch != epoch || it->second.state != State::Loading)
        return;
    bytes_ -= it->second.bytes;
    entries_.erase(it);
}

void TileStore::evict() {
    if (bytes_ <= limit_)
        return;
    std::vector<std::pair<std::uint64_t, TileKey>> order;
    for (auto& [k, e] : entries_)
        if (e.state != State::Loading)
            order.push_back({e.lastUse, k});
    std::sort(order.begin(), order.end(), [](auto& a, auto& b) { return a.first < b.first; });
    for (auto& [use, k] : order) {
        if (bytes_ <= limit_)
            break;
        auto it = entries_.find(k);
        bytes_ -= it->second.bytes;
        entries_.erase(it);
    }
}

void TileStore::forget(const Overlay* overlay) {
    std::lock_guard lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (it->first.overlay == overlay) {
            bytes_ -= it->second.bytes;
            it = entries_.erase(it);
        } else {
            ++it;
        }
    }
    // A fresh epoch: loads still in flight for the old data are dropped when they finish.
    epochs_[overlay] = ++counter_;
}

std::size_t TileStore::bytes() const {
    std::lock_guard lock(mutex_);
    return bytes_;
}

std::size_t TileStore::limit() const {
    std::lock_guard lock(mutex_);
    return limit_;
}

void TileStore::setLimit(std::size_t bytes) {
    std::lock_guard lock(mutex_);
    limit_ = bytes;
    evict();
}

}  // namespace sorvan::map::detail

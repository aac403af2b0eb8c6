#include "tiles/tile_cache.hpp"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "sorvan/platform/foundation/defaults.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/foundation/paths.hpp"
#include "tiles/tile_codec.hpp"

namespace sorvan::tiles {
namespace fs = std::filesystem;
namespace {

// Writes bytes to a file of its own beside the target; the caller renames it into place, so
// a reader never sees half a tile and two writers of one name never mix their bytes.
std::optional<std::string> writeTemporary(const std::string& target,
                                          const std::vector<std::uint8_t>& bytes) {
    std::string temporary = paths::temporaryPathFor(target);
    int fd = paths::createPrivateFile(temporary);
    if (fd < 0) {
        return std::nullopt;
    }
    bool ok = true;
    for (std::size_t done = 0; ok && done < bytes.size();) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        ok = n > 0;
        done += ok ? static_cast<std::size_t>(n) : 0;
    }
    ok = ::close(fd) == 0 && ok;
    if (!ok) {
        std::error_code ignored;
        fs::remove(temporary, ignored);
        return std::nullopt;
    }
    return temporary;
}

}  // namespace

TileCache& TileCache::shared() {
    static TileCache* cache = new TileCache();  // never destroyed: tile threads may outlive exit
    return *cache;
}

Defaults& TileCache::defaults() const {
    return defaultsOverride_ ? *defaultsOverride_ : Defaults::standard();
}

void TileCache::open() {
    std::string dir = paths::caches();
    // The platform the kit was made for always has a caches directory; ours may not exist
    // yet in a fresh home, and without it no tile could ever be cached.
    paths::makePrivateDirectory(dir);
    paths::makePrivateDirectory(dir + "/tileCache");

    std::lock_guard lock(mutex_);
    // Every overlay opens the cache; one look through a directory of ten thousand files per
    // process is enough.
    if (swept_ != dir) {
        paths::removeAbandonedTemporaries(dir + "/tileCache");
        swept_ = dir;
    }
    docDir_ = std::move(dir);
    auto stored = defaults().stringArrayForKey(kListKey);
    list_.clear();
    if (stored) {
        list_.assign(std::make_move_iterator(stored->begin()),
                     std::make_move_iterator(stored->end()));
    }
    mirrored_ = true;
}

std::string TileCache::docDir() const {
    std::lock_guard lock(mutex_);
    return docDir_;
}

std::string TileCache::filePath(const std::string& name) const {
    return strformat("%s/tileCache/%s.png", docDir().c_str(), name.c_str());
}

std::shared_ptr<gfx::Image> TileCache::read(const std::string& name) const {
    return gfx::Image::fromFile(filePath(name), 1.0, kLayerImageLimits);
}

void TileCache::store(const std::string& name, const gfx::Image* image) {
    std::string path = filePath(name);
    // Encoding is the expensive part of a download; do it before taking the lock so tile
    // threads only queue up for the cheap steps below.
    std::optional<std::string> temporary;
    if (image) {
        temporary = writeTemporary(path, image->pngData(kCacheFilePNG));
    }

    // The file, the eviction and the name move together: a name is never appended while
    // another thread evicts the file it names half-way, and two threads never evict the same
    // oldest entry. The order of steps is the one existing caches were built with.
    std::lock_guard lock(mutex_);
    if (temporary) {
        std::error_code error;
        fs::rename(*temporary, path, error);
        if (error) {
            fs::remove(*temporary, error);
        }
    }
    Defaults& store = defaults();
    bool evicted = false;
    if (list_.size() >= kEvictAt) {
        std::error_code ignored;
        fs::remove(strformat("%s/tileCache/%s.png", docDir_.c_str(), list_.front().c_str()),
                   ignored);
        list_.pop_front();
        evicted = true;
    }
    list_.push_back(name);
    // Rewriting ten thousand names after every download would make a full cache slow to
    // fill; the mirror changes by the same one-name steps as the list instead.
    if (mirrored_) {
        if (evicted) {
            store.removeFirstOfStringArray(1, kListKey);
        }
        store.appendToStringArray(name, kListKey);
    } else {
        store.setStringArray(std::vector<std::string>(list_.begin(), list_.end()), kListKey);
        mirrored_ = true;
    }
    // Every append above is already a committed transaction: other readers see it and it
    // outlives a crash of the process. Forcing it to disk as well costs a file-system sync,
    // which made each cached download several times slower; a sync now and then bounds
    // what a power cut can take to the last second of names.
    auto now = std::chrono::steady_clock::now();
    if (now - lastSynchronized_ >= std::chrono::seconds(1)) {
        store.synchronize();
        lastSynchronized_ = now;
    }
}

std::vector<std::string> TileCache::tileList() const {
    std::lock_guard lock(mutex_);
    return {list_.begin(), list_.end()};
}

void TileCache::removeStoredList() {
    // Under the lock, so that no download appends to the stored list between its removal and
    // the note that it is gone.
    std::lock_guard lock(mutex_);
    Defaults& store = defaults();
    store.removeObjectForKey(kListKey);
    store.synchronize();
    mirrored_ = false;
}

void TileCache::setDefaultsForTesting(Defaults* defaults) {
    std::lock_guard lock(mutex_);
    defaultsOverride_ = defaults;
}

void TileCache::resetForTesting() {
    std::lock_guard lock(mutex_);
    docDir_.clear();
    list_.clear();
    mirrored_ = true;
    swept_.clear();
}

}  // namespace sorvan::tiles

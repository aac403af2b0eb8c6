// The process-wide tile disk cache: the directory "tileCache/" under the caches directory, and
// "tileList", the names of the files it holds, oldest first, mirrored in the user defaults
// under the same key. Every tile overlay of the process shares it.
//
// Why a class of its own rather than a few globals: the list, the directory and the defaults
// mirror change together (write a file, evict the oldest, append a name) and tile threads do
// this concurrently, so the three must move under one lock. Keeping the lock next to the state
// it guards makes that impossible to get wrong from outside.
//
// Thread-safe: every method may be called from any thread (tile threads write, the main queue
// opens and clears).
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sorvan/platform/graphics/image.hpp"

namespace sorvan {
class Defaults;
}

namespace sorvan::tiles {

class TileCache {
  public:
    /// The number of names at which a new download first evicts the oldest file.
    static constexpr std::size_t kEvictAt = 10001;
    /// The defaults key of the list.
    static constexpr const char* kListKey = "tileList";

    static TileCache& shared();

    /// What an overlay does when it is created: points the cache at the caches directory,
    /// creates "tileCache" in it (both private to the user), reloads the list from the
    /// defaults (or starts it empty) and, the first time in the process, removes the
    /// temporary files of writers that died before renaming them.
    void open();

    /// The caches directory the cache lives in ("" before the first open()).
    std::string docDir() const;
    /// "<docDir>/tileCache/<name>.png"
    std::string filePath(const std::string& name) const;

    /// The picture cached under name; nullptr when there is none or it no longer decodes.
    std::shared_ptr<gfx::Image> read(const std::string& name) const;

    /// Records a download: writes the picture (when there is one) as a PNG under name, evicts
    /// the oldest file when the list holds kEvictAt names or more, then appends name (even
    /// when nothing was written or it is listed already) and persists the change.
    void store(const std::string& name, const gfx::Image* image);

    /// A copy of the list, oldest first.
    std::vector<std::string> tileList() const;

    /// Removes the list from the defaults (clearing the cache directory does) and keeps the
    /// names in memory: the next store() writes the whole remaining list back instead of
    /// appending to a list that no longer exists, so a later process still knows every file
    /// it may have to evict.
    void removeStoredList();

    /// Uses another defaults store (nullptr = the standard one). Tests.
    void setDefaultsForTesting(Defaults* defaults);
    /// Forgets the list and the directory (tests).
    void resetForTesting();

  private:
    TileCache() = default;
    Defaults& defaults() const;

    mutable std::mutex mutex_;
    std::string docDir_;                    // guarded by mutex_
    std::deque<std::string> list_;          // guarded by mutex_
    bool mirrored_ = true;                  // guarded by mutex_: the defaults hold exactly list_
    Defaults* defaultsOverride_ = nullptr;  // guarded by mutex_
    std::chrono::steady_clock::time_point lastSynchronized_;  // guarded by mutex_
    std::string swept_;  // guarded by mutex_: the directory whose abandoned files are gone
};

}  // namespace sorvan::tiles

// The registry of tags already delivered (the process-wide pathOnMap): one entry per
// {"id", "zoom"} pair, so the same item seen from two tiles of one zoom becomes one
// annotation. Ids compare as the service's values do: a number 12 equals 12.0 but not the
// string "12". Lookups take constant time. Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "foundation/json_access.hpp"

namespace sorvan::tags {

class TagRegistry {
  public:
    /// The comparison key of an entry.
    static std::string keyOf(const json::Value& id, std::int64_t zoom);

    bool contains(const std::string& key) const;
    /// Adds the entry; false when an equal one is there already.
    bool insert(const json::Value& id, std::int64_t zoom);
    bool insertKey(const std::string& key, const json::Value& id, std::int64_t zoom);
    std::size_t size() const;
    /// The entries in the order they were added, as {"id": ..., "zoom": ...} objects.
    std::vector<json::Value> entries() const;

  private:
    mutable std::mutex mutex_;
    std::unordered_set<std::string> keys_;
    std::vector<json::Value> entries_;
};

}  // namespace sorvan::tags

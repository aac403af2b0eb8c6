// What the URL session needs of the URL cache beyond its public face: answers handed over and
// back without copying their bodies.
#pragma once

#include <memory>
#include <optional>

#include "sorvan/platform/foundation/url_session.hpp"

namespace sorvan::net {

/// An answer as the cache holds it. Shared by the cache and the completions it is handed to;
/// never changed once made. Both parts are always set: they are optionals only so that a
/// completion can be given them as they are.
struct CacheEntry {
    std::optional<HTTPURLResponse> response;
    std::optional<Data> data;
};

struct URLCacheAccess {
    /// Stores a 200 answer under response.url, taking its parts, and returns the entry made
    /// of them. Anything else is not stored, but is returned all the same.
    static std::shared_ptr<const CacheEntry> store(URLCache& cache, HTTPURLResponse response,
                                                   Data data);
    /// The entry for url, or null.
    static std::shared_ptr<const CacheEntry> lookup(const URLCache& cache, const URL& url);
};

}  // namespace sorvan::net

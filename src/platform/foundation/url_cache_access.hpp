// What the URL session needs of the URL cache beyond its public face: answers handed over and
// back without copying their bodies, and what HTTP says about reusing them.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sorvan/platform/foundation/url_session.hpp"

namespace sorvan::net {

/// An answer as the cache holds it. Shared by the cache and the completions it is handed to;
/// never changed once made. Both parts are always set: they are optionals only so that a
/// completion can be given them as they are.
struct CacheEntry {
    std::optional<HTTPURLResponse> response;
    std::optional<Data> data;
    /// When the answer was received (or last confirmed by the server).
    std::chrono::system_clock::time_point storedAt{};
};

/// How HTTP lets a stored answer be used again without asking the server.
struct Reuse {
    bool fresh = false;  // within its freshness lifetime: used as it is
    // Validators for asking the server whether it changed (empty when it has none).
    std::string etag;
    std::string lastModified;
};

struct URLCacheAccess {
    /// Stores an answer under response.url when HTTP allows it (status 200, no "no-store",
    /// no "Vary: *"), taking its parts, and returns the entry made of them. Anything else is
    /// not stored, but is returned all the same.
    static std::shared_ptr<const CacheEntry> store(URLCache& cache, HTTPURLResponse response,
                                                   Data data);
    /// The entry for url, or null.
    static std::shared_ptr<const CacheEntry> lookup(const URLCache& cache, const URL& url);
    /// Whether entry may be used now, and how to revalidate it. Freshness comes from the
    /// answer's own "Cache-Control: max-age" or "Expires" (no guessing from other headers);
    /// "no-cache" makes it always stale.
    static Reuse reuse(const CacheEntry& entry, std::chrono::system_clock::time_point now);
    /// The entry a "304 Not Modified" answer makes of a stored one, stored in its place: its
    /// body and status, its headers updated by the 304's, confirmed now.
    static std::shared_ptr<const CacheEntry> revalidated(URLCache& cache, const CacheEntry& stored,
                                                         const HTTPURLResponse& notModified);

    // For tests of the backlog of writes. The bytes the cache counts against its backlog cap
    // (bodies plus a fixed allowance per answer), the cap itself, and a task queued on the
    // writer's thread: a task that blocks holds back every write the writer would make, as a
    // busy machine does.
    static std::size_t pendingBytes(const URLCache& cache);
    static std::size_t maxPendingBytes();
    static void onWriter(URLCache& cache, std::function<void()> task);
};

}  // namespace sorvan::net

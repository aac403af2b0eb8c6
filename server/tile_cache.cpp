#include "tile_cache.hpp"

#include <bit>
#include <cmath>
#include <cstdlib>
#include <mutex>

#include "foundation/byte_lru.hpp"
#include "foundation/number_text.hpp"
#include "sorvan/platform/foundation/url.hpp"
#include "tile_painter.hpp"

namespace sorvan::server {
namespace {

std::optional<std::string> item(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        std::size_t amp = query.find('&');
        std::string_view pair = query.substr(0, amp);
        std::size_t eq = pair.find('=');
        if (pair.substr(0, eq) == name) {
            return eq == std::string_view::npos ? std::string()
                                                : net::percentDecode(pair.substr(eq + 1));
        }
        if (amp == std::string_view::npos) {
            break;
        }
        query.remove_prefix(amp + 1);
    }
    return std::nullopt;
}

std::optional<double> number(const std::optional<std::string>& text) {
    return text ? text::parseDouble(*text) : std::nullopt;
}

// Least-recently-used PNG bytes, bounded by their total size. Thread-safe.
class TileCache {
  public:
    explicit TileCache(std::size_t limitBytes) : tiles_(limitBytes) {}

    std::shared_ptr<const std::string> get(const std::string& key) {
        std::lock_guard lock(mutex_);
        auto* hit = tiles_.find(key);
        return hit ? *hit : nullptr;
    }

    void put(const std::string& key, std::shared_ptr<const std::string> bytes) {
        std::lock_guard lock(mutex_);
        if (tiles_.contains(key)) {
            return;  // another thread painted it too
        }
        std::size_t size = bytes->size();
        tiles_.put(key, std::move(bytes), size);
    }

  private:
    std::mutex mutex_;
    ByteLru<std::string, std::shared_ptr<const std::string>> tiles_;  // guarded by mutex_
};

TileCache& cache() {
    static TileCache c(64u << 20);
    return c;
}

}  // namespace

std::optional<TileAddress> parseTileQuery(std::string_view query) {
    auto res = number(item(query, "res"));
    auto imgid = number(item(query, "imgid"));
    if (!res || !imgid || *res < 0 || *imgid < 0 || *res > std::exp2(24)) {
        return std::nullopt;
    }
    TileAddress a;
    a.mode = item(query, "mode").value_or("");
    auto r = static_cast<std::int64_t>(*res);
    // The image id is the tile index times a constant, printed as a rounded double; dividing
    // and rounding recovers the index exactly far beyond the deepest zoom.
    auto n = static_cast<std::int64_t>(std::llround(*imgid / 923456789.0));
    if (r > 0) {
        a.z = static_cast<int>(std::bit_width(static_cast<std::uint64_t>(r))) - 1;
        a.x = n % r;
        a.y = n / r;
    }
    return a;
}

std::shared_ptr<const std::string> tilePNG(const std::string& style, int z, std::int64_t x,
                                           std::int64_t y, bool stamped) {
    std::string key = style + '\n' + std::to_string(z) + '/' + std::to_string(x) + '/' +
                      std::to_string(y) + (stamped ? "+stamp" : "");
    if (auto hit = cache().get(key)) {
        return hit;
    }
    auto image = paintTile(style, z, x, y, stamped);
    if (!image) {
        return nullptr;
    }
    auto png = image->pngData(tilePNGOptions());
    auto bytes = std::make_shared<const std::string>(png.begin(), png.end());
    cache().put(key, bytes);
    return bytes;
}

}  // namespace sorvan::server

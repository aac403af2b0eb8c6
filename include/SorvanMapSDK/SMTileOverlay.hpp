// SMTileOverlay: a tile overlay that stacks several layers (map-server modes, traffic, offline
// pictures, white background, host templates, WMS) and hands the map engine one composed
// 256 x 256 PNG per tile.
//
// Ownership: the map view creates overlays (addSMLayer, addSMLayers, ...) and the engine keeps
// them while they are on the map. The data delegate is held weakly.
//
// Threads: loadTileAtPath() and the fetch helpers run on the engine's tile threads and block
// (network, host lookup, disk). Never call them from the main queue or the URL session's queue.
// The configuration accessors may be called from any thread; a tile load works on a snapshot
// of the layers taken when it starts.
//
// Process-wide effects: creating an overlay overwrites the process-wide service key and box
// domain, creates the "tileCache" directory under the caches directory and reloads the
// "tileList" cache list from the user defaults.
//
//   auto overlay = sorvan::SMTileOverlay::create({sorvan::SMLayerModeNormal,
//                                                 sorvan::SMLayerModeIcons}, key, {}, 2);
//   overlay->setCache(1);  // disk cache on
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "SorvanMapSDK/SMLayer.hpp"
#include "sorvan/platform/export.hpp"
#include "sorvan/platform/foundation/url.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/geometry.hpp"
#include "sorvan/platform/map/tile_overlay.hpp"

namespace sorvan {

class SORVAN_EXPORT SMTileDataDelegate;  // SorvanMapView.hpp
namespace tiles {
struct SORVAN_EXPORT LayerStack;  // a tile load's snapshot of the layers
}

class SORVAN_EXPORT SMTileOverlay : public map::TileOverlay {
  public:
    /// The overlay initializer: layers `modes` (bottom first), the service key (stored
    /// process-wide), the box domain (stored process-wide; nullopt = none) and the language
    /// (2 = English mode names). Sets cache 2 (disk cache off), alpha 1.0, canReplaceMapContent,
    /// a tile size of 512 x 512, zoom range 7..16 when modes hold traffic (16), else maximum 18
    /// when they hold 13 or 14.
    SMTileOverlay(std::vector<std::int64_t> modes, const std::string& key,
                  std::optional<net::URL> domain, std::int64_t language);
    static std::shared_ptr<SMTileOverlay> create(std::vector<std::int64_t> modes,
                                                 const std::string& key,
                                                 std::optional<net::URL> domain,
                                                 std::int64_t language);
    ~SMTileOverlay() override;

    // Layers (parallel lists; entry i describes layer i, bottom first) --------------------
    /// The layer modes; their count is the number of layers.
    std::vector<std::int64_t> mode() const;
    void setMode(std::vector<std::int64_t> modes);
    /// Per layer: the SMTileFormat (mode 21). nullopt = no list (every layer reads 0).
    std::optional<std::vector<std::int64_t>> tileFormat() const;
    /// Per layer: the URL template (mode 21) or the server's mode name (mode 20).
    std::optional<std::vector<std::string>> urlLayer() const;
    /// Per layer: the Referer header of mode 21 requests.
    std::optional<std::vector<std::string>> referer() const;
    /// Replaces the three lists (nullopt stays nullopt). Counts are not checked against
    /// mode(); an entry a list lacks reads as empty or 0.
    void setCustomUrl(std::optional<std::vector<std::string>> urls,
                      std::optional<std::vector<std::int64_t>> formats,
                      std::optional<std::vector<std::string>> referers);
    /// Drops entry `index` of every list the overlay has (a list too short is left alone).
    void removeLayerAtIndex(std::size_t index);

    // Settings ------------------------------------------------------------------------------
    /// Disk cache mode: 2 = neither read nor written; any other value = on.
    std::int64_t cache() const;
    void setCache(std::int64_t mode);
    std::int64_t language() const;
    void setLanguage(std::int64_t language);
    /// Opacity the view gives this overlay's renderer.
    double alpha() const;
    void setAlpha(double alpha);
    /// Receives the raw answers of format-3 layers, on the tile thread that fetched them.
    std::shared_ptr<SMTileDataDelegate> dataDelegate() const;
    void setDataDelegate(std::weak_ptr<SMTileDataDelegate> delegate);

    /// The map-server mode name of a mode in this overlay's language ("" for 17..21 and for
    /// values outside the catalogue).
    std::string modeString(std::int64_t mode) const;

    // Tile loading (tile threads; may block) -------------------------------------------------
    /// Composes every layer into one 256 x 256 PNG and calls result once, before returning,
    /// with that PNG or with empty data when the tile has no picture; the error is never set.
    void loadTileAtPath(const map::TilePath& path, TileResult result) override;
    /// Draws layer `index` and every layer above it over `picture` (nullptr = nothing yet).
    /// nullptr when the tile gets no picture at all.
    std::shared_ptr<gfx::Image> getImageFrom(std::size_t index, std::shared_ptr<gfx::Image> picture,
                                             const map::TilePath& path);
    /// Fetches and decodes one layer tile: a transport error is logged as "TILE ERROR: %s"
    /// and not retried; any status but 200 is asked again at once, three attempts in all;
    /// a 200 answer is decoded (nullptr when it is no image) and, with the disk cache on,
    /// written to it. `attempt` counts from 0.
    std::shared_ptr<gfx::Image> loadImageOn(net::URLRequest& request, std::int64_t attempt);
    /// A blocking fetch over the shared URL session. Returns the body (nullopt after a
    /// transport error) and fills the optional out-parameters. REQUIRES: not called on the
    /// main queue or the session's queue.
    static std::optional<net::Data> sendSynchronousRequest(
        const net::URLRequest& request, std::optional<net::HTTPURLResponse>* response = nullptr,
        std::optional<net::Error>* error = nullptr);

    /// The disk-cache name of an address: SHA-256 of its bytes (up to a zero byte) in
    /// uppercase hex, 30 digits, twelve spaces, 34 digits: 76 characters.
    static std::string SHA256String(std::string_view text);

    /// The address layer `index` of this overlay fetches for a tile (the Referer aside), or
    /// nullopt for layers that fetch nothing or form no address. For tests and diagnostics.
    std::optional<std::string> addressOfLayer(std::size_t index, const map::TilePath& path) const;

  private:
    tiles::LayerStack snapshot() const;
    std::shared_ptr<gfx::Image> walk(const tiles::LayerStack& layers, std::size_t index,
                                     std::shared_ptr<gfx::Image> picture,
                                     const map::TilePath& path);
    void fetchData(const tiles::LayerStack& layers, const std::string& address);
    std::shared_ptr<gfx::Image> fetchImage(const tiles::LayerStack& layers, std::size_t index,
                                           const net::URL& url);
    std::shared_ptr<gfx::Image> load(const net::URLRequest& request, std::int64_t attempt,
                                     std::int64_t cacheMode);

    mutable std::mutex mutex_;
    std::vector<std::int64_t> mode_;
    std::optional<std::vector<std::int64_t>> tileFormat_;
    std::optional<std::vector<std::string>> urlLayer_;
    std::optional<std::vector<std::string>> referer_;
    std::weak_ptr<SMTileDataDelegate> dataDelegate_;
    std::int64_t cache_ = 2;
    std::int64_t language_ = 0;
    double alpha_ = 1.0;
};

}  // namespace sorvan

// The embedded service's map painter: a deterministic synthetic world (coasts, a river through
// a city at Bangkok, road networks, parks, lakes, towns, borders, points of interest) drawn on
// request in one of the map server's styles. Every feature is fixed in world coordinates, so
// neighbouring tiles, and a tile and any box that covers it at the same resolution, line up.
// Thread-safe; painting never touches shared state except the font machinery, which is
// per-thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::server {

/// A box of the world in one of the two reference systems the WMS emulation serves.
struct MapBox {
    enum class SRS { Mercator3857, Geographic4326 } srs = SRS::Mercator3857;
    double minX = 0, minY = 0, maxX = 0, maxY = 0;  // metres (3857) or degrees lon/lat (4326)
};

/// The Web-Mercator box of tile z/x/y (x eastwards, y southwards from the north edge).
MapBox tileBox(int z, std::int64_t x, std::int64_t y);

/// Paints the box into width x height pixels in a style named like the map server's modes
/// ("normal", "normal-en", "gray", "icons", "iconstransp", "trafficoverlay", "thaichote",
/// "politicalwhite", "hydro", "osm", ...); unknown names get a neutral style. A non-empty
/// stamp is written small in the top-left corner. nullptr only for a size of zero or above
/// 8192 pixels a side, or an empty box.
std::shared_ptr<gfx::Image> paintMap(const std::string& style, const MapBox& box, int width,
                                     int height, const std::string& stamp = "");

/// The 256 x 256 tile z/x/y; stamped "style z/x/y" in its corner when asked, so a test or a
/// person can tell tiles apart (a map for looking at goes without).
std::shared_ptr<gfx::Image> paintTile(const std::string& style, int z, std::int64_t x,
                                      std::int64_t y, bool stamped = false);

/// The tile's PNG bytes, from a bounded in-memory cache (64 MB, least recently used out) so
/// repeated requests cost a lookup.
std::shared_ptr<const std::string> tilePNG(const std::string& style, int z, std::int64_t x,
                                           std::int64_t y, bool stamped = false);

/// The PNG setting tiles are encoded with.
gfx::PNGOptions tilePNGOptions();

}  // namespace sorvan::server

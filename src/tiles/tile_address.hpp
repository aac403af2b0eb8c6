// The addresses tile layers fetch, and the names the disk cache files them under. Pure
// functions of their arguments (the overlay supplies base addresses, key and templates), so
// every quirk of the address forms can be checked without a network. Thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::tiles {

/// The tile count per axis the map server is told: 2 << (z - 1) in 32-bit arithmetic, with
/// the shift count taken modulo 32 and the result widened with its sign (0 at z = 0).
std::int64_t resolution(std::int64_t z);

/// The map-server mode name of a layer mode (language 2 = the English names).
std::string modeString(std::int64_t mode, std::int64_t language);

/// "<base>?c=1&proj=epsg3857&mode=...&res=...&imgid=...&key=...&HD=1", nothing escaped.
std::string mapServerAddress(std::string_view base, std::string_view modeName,
                             const map::TilePath& path, std::string_view key);

/// "grayproxy/<z>/grayproxy/ddd/ddd/ddd/ddd/ddd.jpg", relative to the documents directory.
std::string offlineGrayPath(const map::TilePath& path);

/// A WMS 1.1.1 GetMap request for the tile: format 4 = EPSG:4326, anything else = EPSG:3857.
std::string wmsAddress(std::string_view urlTemplate, std::int64_t format,
                       const map::TilePath& path);

/// {x}, {z} and {y} filled in; format 2 counts the row from the south.
std::string xyzAddress(std::string_view urlTemplate, std::int64_t format,
                       const map::TilePath& path);

/// {u}, {v}, {z}, {ux} and {w} filled in (data templates).
std::string dataAddress(std::string_view urlTemplate, const map::TilePath& path);

/// The 76-character disk-cache name of an address.
std::string cacheName(std::string_view address);

}  // namespace sorvan::tiles

// The map server's request form and the encoded-tile cache behind the tile route.
// Thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {

/// What a map-server request names: "mode=...&res=2^z&imgid=n*923456789&key=...&HD=1".
struct TileAddress {
    std::string mode;
    int z = 0;
    std::int64_t x = 0, y = 0;
    bool operator==(const TileAddress&) const = default;
};

/// Reads a raw query string. res 0 (what zoom 0 sends) is tile 0/0/0. nullopt when res or
/// imgid is missing, not a number, negative, or beyond zoom 24.
std::optional<TileAddress> parseTileQuery(std::string_view query);

/// The map-server tile handler, for a test that mounts it under a path of its own (a box
/// domain with a path, say). installMapServerRoutes mounts it at the usual paths. Tiles carry
/// their stamp when the request says "stamp=1" or the service stamps every tile; service may
/// be null (then only the request decides) and otherwise outlives the handler.
Handler mapServerTileHandler(const EmbeddedService* service = nullptr);

/// Whether a tile request is answered with the "mode z/x/y" stamp.
bool wantsStamp(const Request& request, const EmbeddedService* service);

}  // namespace sorvan::server

// Clusters of the catalogue's places, as the clustering service answers them for one map tile.
//
// Places are grouped on a grid fixed to the world at each zoom: cells of kClusterCellPoints
// points of a 256-point tile (a 512-pixel tile at 2x). Every place of a cell whose tags match
// the request joins that cell's cluster, placed at its members' mean position. A tile answers
// the clusters that lie on it or within half a cell of it, so a cluster near an edge is seen
// from both neighbours, with the same id: a lone place keeps its own id, a cluster's id is a
// hash of its members' ids. Pure and thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sorvan::server {

class PlaceCatalogue;
struct Place;

inline constexpr double kClusterTilePoints = 256;
inline constexpr double kClusterCellPoints = 64;

struct ClusterItem {
    std::string id;
    std::string nameTh, nameEn;
    std::string icon;  // "temple.png" for a lone place, "temple_5.png" for five temples or more
    double latitude = 0, longitude = 0;
    std::size_t count = 0;
};

/// The tags a place answers to: its icon's name ("temple") and the groups that name belongs
/// to ("attraction", "food", "transport", ...).
std::vector<std::string> placeTags(const Place& place);

/// The icon name of a cluster of count places (count >= 2) of one category ("temple"), or of
/// several ("poi"): the count is rounded down to 2..9, 10, 20, 50 or 100.
std::string clusterIconName(std::string_view category, std::size_t count);

/// Whether name (without ".png") is an icon the clusters and the catalogue use.
bool isMapIconName(std::string_view name);

/// The clusters of the places matching any of tags, for tile (x, y) at zoom z (2^z tiles a
/// side). No tags match nothing. Ordered north to south, then west to east.
std::vector<ClusterItem> clustersForTile(const PlaceCatalogue& catalogue, int z, std::int64_t x,
                                         std::int64_t y, const std::vector<std::string>& tags);

}  // namespace sorvan::server

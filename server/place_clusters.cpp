#include "place_clusters.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <utility>

#include "place_catalogue.hpp"

namespace sorvan::server {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct Group {
    const char* tag;
    std::vector<std::string_view> categories;
};

// Broad tags a host may ask for instead of one category.
const std::vector<Group>& groups() {
    static const std::vector<Group> all = {
        {"food", {"restaurant", "coffee", "market"}},
        {"shopping", {"mall", "market"}},
        {"attraction", {"temple", "landmark", "museum", "park", "beach", "stadium"}},
        {"transport", {"train", "bus", "airport", "pier"}},
        {"emergency", {"hospital", "police"}},
        {"service", {"bank", "post", "government", "gas", "school"}},
        {"accommodation", {"hotel"}},
    };
    return all;
}

const std::vector<std::string_view>& categories() {
    static const std::vector<std::string_view> all = {
        "airport", "bank",       "beach",  "bus",     "coffee", "gas",  "government", "hospital",
        "hotel",   "landmark",   "mall",   "market",  "museum", "park", "pier",       "police",
        "post",    "restaurant", "school", "stadium", "temple", "train"};
    return all;
}

std::string_view stem(std::string_view icon) {
    auto dot = icon.rfind('.');
    return dot == std::string_view::npos ? icon : icon.substr(0, dot);
}

std::size_t band(std::size_t count) {
    if (count >= 100) {
        return 100;
    }
    if (count >= 50) {
        return 50;
    }
    if (count >= 20) {
        return 20;
    }
    if (count >= 10) {
        return 10;
    }
    return count;
}

std::uint64_t fnv1a(std::string_view text, std::uint64_t h = 1469598103934665603ull) {
    for (unsigned char c : text) {
        h ^= c;
        h *= 1099511628211ull;
    }
    return h;
}

// Position in points on the world at zoom z (256 points a tile), x east, y south.
std::pair<double, double> worldPoints(double latitude, double longitude, double size) {
    double u = (longitude + 180.0) / 360.0;
    double phi = std::clamp(latitude, -85.0511287798, 85.0511287798) * kPi / 180.0;
    double v = (1.0 - std::log(std::tan(phi) + 1.0 / std::cos(phi)) / kPi) / 2.0;
    return {u * size, v * size};
}

}  // namespace

std::vector<std::string> placeTags(const Place& place) {
    std::string_view category = stem(place.icon);
    std::vector<std::string> tags{std::string(category)};
    for (const Group& g : groups()) {
        if (std::find(g.categories.begin(), g.categories.end(), category) != g.categories.end()) {
            tags.emplace_back(g.tag);
        }
    }
    return tags;
}

std::string clusterIconName(std::string_view category, std::size_t count) {
    return std::string(category) + "_" + std::to_string(band(count));
}

bool isMapIconName(std::string_view name) {
    const auto& known = categories();
    if (std::find(known.begin(), known.end(), name) != known.end() || name == "reddot") {
        return true;
    }
    auto underscore = name.rfind('_');
    if (underscore == std::string_view::npos) {
        return false;
    }
    std::string_view category = name.substr(0, underscore);
    std::string_view count = name.substr(underscore + 1);
    bool knownCategory =
        category == "poi" || std::find(known.begin(), known.end(), category) != known.end();
    static const std::vector<std::string_view> bands = {"2", "3", "4",  "5",  "6",  "7",
                                                        "8", "9", "10", "20", "50", "100"};
    return knownCategory && std::find(bands.begin(), bands.end(), count) != bands.end();
}

std::vector<ClusterItem> clustersForTile(const PlaceCatalogue& catalogue, int z, std::int64_t x,
                                         std::int64_t y, const std::vector<std::string>& tags) {
    if (z < 0 || z > 30 || tags.empty()) {
        return {};
    }
    const double size = kClusterTilePoints * std::exp2(z);
    const double margin = kClusterCellPoints / 2;
    const double left = static_cast<double>(x) * kClusterTilePoints - margin;
    const double top = static_cast<double>(y) * kClusterTilePoints - margin;
    const double right = left + kClusterTilePoints + 2 * margin;
    const double bottom = top + kClusterTilePoints + 2 * margin;

    // Only the cells on the tile and the ring around it can hold a cluster that lies within
    // the margin.
    struct Cell {
        std::vector<const Place*> members;
        double sumLat = 0, sumLon = 0;
    };
    std::map<std::pair<std::int64_t, std::int64_t>, Cell> cells;  // (row, column)
    for (const Place& place : catalogue.places()) {
        auto [px, py] = worldPoints(place.latitude, place.longitude, size);
        if (px < left - kClusterCellPoints || px >= right + kClusterCellPoints ||
            py < top - kClusterCellPoints || py >= bottom + kClusterCellPoints) {
            continue;
        }
        std::vector<std::string> own = placeTags(place);
        bool wanted = std::any_of(tags.begin(), tags.end(), [&](const std::string& t) {
            return std::find(own.begin(), own.end(), t) != own.end();
        });
        if (!wanted) {
            continue;
        }
        auto column = static_cast<std::int64_t>(std::floor(px / kClusterCellPoints));
        auto row = static_cast<std::int64_t>(std::floor(py / kClusterCellPoints));
        Cell& cell = cells[{row, column}];
        cell.members.push_back(&place);
        cell.sumLat += place.latitude;
        cell.sumLon += place.longitude;
    }

    std::vector<ClusterItem> items;
    for (auto& [where, cell] : cells) {
        auto n = cell.members.size();
        ClusterItem item;
        item.count = n;
        item.latitude = cell.sumLat / static_cast<double>(n);
        item.longitude = cell.sumLon / static_cast<double>(n);
        auto [px, py] = worldPoints(item.latitude, item.longitude, size);
        if (px < left || px >= right || py < top || py >= bottom) {
            continue;
        }
        std::sort(cell.members.begin(), cell.members.end(),
                  [](const Place* a, const Place* b) { return a->id < b->id; });
        const Place& first = *cell.members.front();
        if (n == 1) {
            item.id = first.id;
            item.nameTh = first.nameTh;
            item.nameEn = first.nameEn;
            item.icon = first.icon;
        } else {
            std::uint64_t h = fnv1a("cluster");
            std::string_view category = stem(first.icon);
            for (const Place* p : cell.members) {
                h = fnv1a(p->id, fnv1a(",", h));
                if (stem(p->icon) != category) {
                    category = "poi";
                }
            }
            char id[24];
            std::snprintf(id, sizeof id, "C%012llx", static_cast<unsigned long long>(h >> 16));
            item.id = id;
            std::string more = std::to_string(n - 1);
            item.nameTh = first.nameTh + " และอีก " + more + " แห่ง";
            item.nameEn = first.nameEn + " and " + more + " more";
            item.icon = clusterIconName(category, n) + ".png";
        }
        items.push_back(std::move(item));
    }
    return items;
}

}  // namespace sorvan::server

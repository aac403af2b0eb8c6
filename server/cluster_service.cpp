// The clustering service: "/ClusterService/json/cluster/epsg3857/{z}/{index}/{lang}" with
// "tag[N]=NAME" query items, answering {"data": [{"id", "name", "icon", "lat", "lon",
// "count"}, ...]} for the tile that z and index name (index = x + 2^z * y).
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "foundation/number_text.hpp"
#include "place_catalogue.hpp"
#include "place_clusters.hpp"
#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {
namespace {

constexpr std::string_view kPrefix = "/ClusterService/json/cluster/epsg3857/";

Response badRequest(const std::string& why) {
    Response r = Response::json(nlohmann::json{{"error", why}}.dump());
    r.status = 400;
    return r;
}

// The tag names in the order of their positions; "tag[3]" before "tag[10]".
std::vector<std::string> requestedTags(const Request& request) {
    std::map<std::int64_t, std::string> byPosition;
    for (const auto& [key, value] : request.queryItems()) {
        if (key.size() < 6 || key.rfind("tag[", 0) != 0 || key.back() != ']') {
            continue;
        }
        auto position = text::parseInteger(std::string_view(key).substr(4, key.size() - 5), 0);
        if (position) {
            byPosition.emplace(*position, value);
        }
    }
    std::vector<std::string> tags;
    for (auto& [position, tag] : byPosition) {
        tags.push_back(std::move(tag));
    }
    return tags;
}

Response cluster(const Request& request) {
    std::string_view rest = std::string_view(request.path).substr(kPrefix.size());
    std::vector<std::string_view> parts;
    while (true) {
        auto slash = rest.find('/');
        parts.push_back(rest.substr(0, slash));
        if (slash == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(slash + 1);
    }
    if (parts.size() != 3) {
        return badRequest("the path wants /{z}/{index}/{lang}");
    }
    auto z = text::parseInteger(parts[0], 0, 30);
    auto index = text::parseInteger(parts[1], 0);
    if (!z || !index) {
        return badRequest("bad zoom or tile index");
    }
    // The client computes the index with 32-bit factors: 2^z, and 0 at zoom 0.
    std::int64_t side = *z == 0 ? 0 : (std::int64_t{1} << *z);
    std::int64_t x = side == 0 ? *index : *index % side;
    std::int64_t y = side == 0 ? 0 : *index / side;
    const bool english = parts[2] == "en";

    auto data = nlohmann::json::array();
    std::int64_t tiles = std::int64_t{1} << *z;
    if (x < tiles && y < tiles) {
        auto items = clustersForTile(PlaceCatalogue::builtin(), static_cast<int>(*z), x, y,
                                     requestedTags(request));
        for (const auto& item : items) {
            data.push_back({{"id", item.id},
                            {"name", english ? item.nameEn : item.nameTh},
                            {"icon", item.icon},
                            {"lat", item.latitude},
                            {"lon", item.longitude},
                            {"count", item.count}});
        }
    }
    return Response::json(nlohmann::json{{"data", std::move(data)}}.dump());
}

}  // namespace

void installClusterRoutes(EmbeddedService& service) {
    service.route(std::string(kPrefix), cluster);
}

}  // namespace sorvan::server

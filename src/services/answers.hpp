// Reading the decoded answers of the search and routing services into the kit's objects: the
// guarded walks of the clients, apart from the network so they can be measured alone.
// Internal; thread-safe (pure apart from the log lines the walks write).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/json_document.hpp"
#include "services/service_client.hpp"

namespace sorvan {
class SMRouteGuide;
class SMRouteResult;
}  // namespace sorvan

namespace sorvan::services {

using Polylines = std::vector<std::shared_ptr<map::Polyline>>;

/// One pin per hit. A fault in the structure is logged as the search's failure (with keyword
/// and position) and ends the walk; the hits before it are returned.
Pins readPins(json::Node root, const std::string& keyword, map::Coordinate position);
/// The "w" of every suggestion, with the same rule for a fault.
Words readWords(json::Node root, const std::string& keyword);

/// The figures and id of a guide answer, and the route object the steps are read from later.
struct RouteHead {
    std::shared_ptr<SMRouteResult> route;
    std::shared_ptr<const json::Document> answer;  // keeps routeJson readable
    json::Node routeJson;                          // an empty object when the answer had no "data"
    std::int64_t id = 0;
};
/// Throws (json::StructureError) for an answer whose route cannot be read.
RouteHead readRouteHead(std::shared_ptr<const json::Document> answer);
/// One polyline per point list. A fault is logged as the path's failure and ends the walk.
Polylines readPolylines(json::Node root, std::int64_t routeId);
/// The steps, with one polyline each when lines holds exactly one per step, none otherwise.
/// Throws for steps of the wrong kind.
std::vector<std::shared_ptr<SMRouteGuide>> joinGuide(json::Node routeJson,
                                                     const std::optional<Polylines>& lines);

}  // namespace sorvan::services

// The road network of the embedded routing service: real Bangkok roads and Thai highways as a
// small graph (data/roads.tsv), planned on with Dijkstra. Each edge's geometry curves gently
// between its two ends, so a route's path reads like a road and not a ruler line.
// Immutable once built; thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvan::server {

struct LatLon {
    double lat = 0, lon = 0;
};

struct RouteRequest {
    LatLon from, to;
    /// "t" quickest, "d" shortest, "c" quickest with expressways weighed down.
    char mode = 't';
    /// Bit 8 allows ferries, bit 16 allows toll roads.
    long type = 25;
};

/// Service turn codes: 0 left, 1 right, 2 bear left, 3 bear right, 4 straight on, 5 onto an
/// expressway, 6 onto a ferry.
struct RouteStep {
    std::string nameTh, nameEn;
    int turn = 4;
    double meters = 0;
    double seconds = 0;
    std::vector<LatLon> points;
};

struct PlannedRoute {
    double fromDistance = 0;  // from the start to the network, metres
    double toDistance = 0;    // from the network to the destination
    std::vector<RouteStep> steps;
};

/// A point on a road of the network, with the road's names.
struct RoadSpot {
    LatLon at;
    std::string nameTh, nameEn;
    bool ferry = false;
};

class RoadNetwork {
  public:
    static const RoadNetwork& builtin();
    /// "node ID LAT LON" and "edge FROM TO KIND SPEED NAME_TH NAME_EN" lines; bad lines are
    /// skipped.
    static RoadNetwork parse(std::string_view tsv);

    /// nullopt when the options leave no way between the two ends (an island without ferries).
    std::optional<PlannedRoute> plan(const RouteRequest& request) const;

    std::size_t nodeCount() const { return nodes_.size(); }
    std::size_t edgeCount() const { return edges_.size(); }
    /// The point a fraction t (0..1) of the way along edge i's geometry. REQUIRES: i <
    /// edgeCount().
    RoadSpot spotOnEdge(std::size_t i, double t) const;

  private:
    struct Edge {
        std::size_t a = 0, b = 0;
        enum class Kind { Road, Toll, Ferry } kind = Kind::Road;
        double speedKmh = 30;
        std::string nameTh, nameEn;
        std::vector<LatLon> points;  // a to b
        double meters = 0;
    };
    struct Adjacent {
        std::size_t edge, to;
    };

    std::size_t nearestNode(LatLon p) const;
    const Edge* nearestEdge(LatLon p, double* meters) const;
    PlannedRoute localRoute(const RouteRequest& request) const;

    std::vector<LatLon> nodes_;
    std::vector<Edge> edges_;
    std::vector<std::vector<Adjacent>> adjacency_;
};

/// A route's identifier: the same request always gets the same positive id.
std::int64_t routeIdFor(std::string_view fromLat, std::string_view fromLon, std::string_view toLat,
                        std::string_view toLon, char mode, long type);

}  // namespace sorvan::server

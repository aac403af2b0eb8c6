#include "road_network.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <queue>

#include "embedded_data.hpp"
#include "place_catalogue.hpp"
#include "tsv.hpp"

namespace sorvan::server {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kMetersPerDegreeLat = 110574.0;
constexpr double kMetersPerDegreeLonAtEquator = 111320.0;
// Beyond this a point is nowhere near a road of the network and gets a generic name.
constexpr double kNamedRoadReach = 3000.0;
constexpr double kLocalSpeedKmh = 25.0;

double meters(LatLon a, LatLon b) {
    return distanceMeters(a.lat, a.lon, b.lat, b.lon);
}

// Compass bearing of a short segment, degrees clockwise from north.
double bearing(LatLon a, LatLon b) {
    double x = (b.lon - a.lon) * std::cos((a.lat + b.lat) / 2 * kPi / 180.0);
    double y = b.lat - a.lat;
    return std::atan2(x, y) * 180.0 / kPi;
}

int turnCode(double before, double after) {
    double delta = std::fmod(after - before + 540.0, 360.0) - 180.0;  // (-180, 180], + = right
    double size = std::fabs(delta);
    if (size < 20) {
        return 4;
    }
    if (size < 60) {
        return delta < 0 ? 2 : 3;
    }
    return delta < 0 ? 0 : 1;
}

// The gently curving line of a road between two junctions: a sideways bow with a small
// S-bend, its size a few percent of the length, bowing to alternate sides edge by edge.
std::vector<LatLon> bowedLine(LatLon a, LatLon b, std::size_t edgeIndex) {
    double length = meters(a, b);
    int segments = std::clamp(static_cast<int>(length / 400.0), 2, 40);
    double cosLat = std::cos((a.lat + b.lat) / 2 * kPi / 180.0);
    double dx = (b.lon - a.lon) * cosLat * kMetersPerDegreeLonAtEquator;
    double dy = (b.lat - a.lat) * kMetersPerDegreeLat;
    double norm = std::hypot(dx, dy);
    double px = norm > 0 ? -dy / norm : 0;
    double py = norm > 0 ? dx / norm : 0;
    double bow = std::min(0.035 * length, 8000.0) * (edgeIndex % 2 == 0 ? 1.0 : -1.0);
    std::vector<LatLon> points;
    points.reserve(segments + 1);
    for (int i = 0; i <= segments; ++i) {
        double t = static_cast<double>(i) / segments;
        double side = bow * (std::sin(kPi * t) + 0.3 * std::sin(2 * kPi * t));
        double x = dx * t + px * side;
        double y = dy * t + py * side;
        points.push_back(
            {a.lat + y / kMetersPerDegreeLat, a.lon + x / (cosLat * kMetersPerDegreeLonAtEquator)});
    }
    points.front() = a;
    points.back() = b;
    return points;
}

double lineMeters(const std::vector<LatLon>& points) {
    double total = 0;
    for (std::size_t i = 1; i < points.size(); ++i) {
        total += meters(points[i - 1], points[i]);
    }
    return total;
}

// Distance from p to segment ab, in metres (flat approximation, fine at road scale).
double segmentMeters(LatLon p, LatLon a, LatLon b) {
    double cosLat = std::cos(p.lat * kPi / 180.0);
    auto toXY = [&](LatLon q) {
        return std::pair{(q.lon - p.lon) * cosLat * kMetersPerDegreeLonAtEquator,
                         (q.lat - p.lat) * kMetersPerDegreeLat};
    };
    auto [ax, ay] = toXY(a);
    auto [bx, by] = toXY(b);
    double vx = bx - ax, vy = by - ay;
    double len2 = vx * vx + vy * vy;
    double t = len2 > 0 ? std::clamp(-(ax * vx + ay * vy) / len2, 0.0, 1.0) : 0.0;
    return std::hypot(ax + t * vx, ay + t * vy);
}

}  // namespace

const RoadNetwork& RoadNetwork::builtin() {
    static const RoadNetwork network = parse(embeddedData("roads.tsv"));
    return network;
}

RoadNetwork RoadNetwork::parse(std::string_view tsv) {
    RoadNetwork network;
    std::map<std::string_view, std::size_t> ids;
    auto rows = tsvRows(tsv);
    for (const auto& f : rows) {
        if (f.size() == 4 && f[0] == "node") {
            auto lat = tsvDouble(f[2]);
            auto lon = tsvDouble(f[3]);
            if (lat && lon && !ids.count(f[1])) {
                ids[f[1]] = network.nodes_.size();
                network.nodes_.push_back({*lat, *lon});
            }
        }
    }
    network.adjacency_.resize(network.nodes_.size());
    for (const auto& f : rows) {
        if (f.size() != 7 || f[0] != "edge") {
            continue;
        }
        auto a = ids.find(f[1]);
        auto b = ids.find(f[2]);
        auto speed = tsvDouble(f[4]);
        if (a == ids.end() || b == ids.end() || a->second == b->second || !speed || *speed <= 0) {
            continue;
        }
        Edge e;
        e.a = a->second;
        e.b = b->second;
        e.kind = f[3] == "toll"    ? Edge::Kind::Toll
                 : f[3] == "ferry" ? Edge::Kind::Ferry
                                   : Edge::Kind::Road;
        e.speedKmh = *speed;
        e.nameTh = f[5];
        e.nameEn = f[6];
        e.points = bowedLine(network.nodes_[e.a], network.nodes_[e.b], network.edges_.size());
        e.meters = lineMeters(e.points);
        std::size_t index = network.edges_.size();
        network.adjacency_[e.a].push_back({index, e.b});
        network.adjacency_[e.b].push_back({index, e.a});
        network.edges_.push_back(std::move(e));
    }
    return network;
}

RoadSpot RoadNetwork::spotOnEdge(std::size_t i, double t) const {
    const Edge& e = edges_.at(i);
    RoadSpot spot{e.points.front(), e.nameTh, e.nameEn, e.kind == Edge::Kind::Ferry};
    if (e.points.size() < 2) {
        return spot;
    }
    double along = std::clamp(t, 0.0, 1.0) * static_cast<double>(e.points.size() - 1);
    auto k = std::min(static_cast<std::size_t>(along), e.points.size() - 2);
    double f = along - static_cast<double>(k);
    spot.at = {e.points[k].lat + (e.points[k + 1].lat - e.points[k].lat) * f,
               e.points[k].lon + (e.points[k + 1].lon - e.points[k].lon) * f};
    return spot;
}

std::size_t RoadNetwork::nearestNode(LatLon p) const {
    std::size_t best = 0;
    double bestMeters = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
        double d = meters(p, nodes_[i]);
        if (d < bestMeters) {
            bestMeters = d;
            best = i;
        }
    }
    return best;
}

const RoadNetwork::Edge* RoadNetwork::nearestEdge(LatLon p, double* distance) const {
    const Edge* best = nullptr;
    double bestMeters = std::numeric_limits<double>::infinity();
    for (const Edge& e : edges_) {
        if (e.kind == Edge::Kind::Ferry) {
            continue;
        }
        for (std::size_t i = 1; i < e.points.size(); ++i) {
            double d = segmentMeters(p, e.points[i - 1], e.points[i]);
            if (d < bestMeters) {
                bestMeters = d;
                best = &e;
            }
        }
    }
    *distance = bestMeters;
    return best;
}

// Two points closer to each other than to the network: an L-shaped way through the streets
// between them, each leg named after the road it runs nearest to.
PlannedRoute RoadNetwork::localRoute(const RouteRequest& request) const {
    PlannedRoute route;
    LatLon corner{request.from.lat, request.to.lon};
    std::vector<std::vector<LatLon>> legs;
    if (meters(request.from, corner) >= 1.0) {
        legs.push_back({request.from, corner});
    }
    if (meters(corner, request.to) >= 1.0) {
        legs.push_back({corner, request.to});
    }
    if (legs.empty()) {
        legs.push_back({request.from, request.to});
    }
    for (const auto& leg : legs) {
        RouteStep step;
        LatLon mid{(leg.front().lat + leg.back().lat) / 2, (leg.front().lon + leg.back().lon) / 2};
        double reach = 0;
        const Edge* near = nearestEdge(mid, &reach);
        if (near && reach <= kNamedRoadReach) {
            step.nameTh = near->nameTh;
            step.nameEn = near->nameEn;
        } else {
            step.nameTh = "ถนนท้องถิ่น";
            step.nameEn = "Local road";
        }
        step.points = leg;
        step.meters = lineMeters(leg);
        step.seconds = step.meters / (kLocalSpeedKmh / 3.6);
        if (!route.steps.empty()) {
            const auto& prev = route.steps.back().points;
            step.turn =
                turnCode(bearing(prev[prev.size() - 2], prev.back()), bearing(leg[0], leg[1]));
        }
        route.steps.push_back(std::move(step));
    }
    return route;
}

std::optional<PlannedRoute> RoadNetwork::plan(const RouteRequest& request) const {
    if (nodes_.empty()) {
        return localRoute(request);
    }
    std::size_t entry = nearestNode(request.from);
    std::size_t exit = nearestNode(request.to);
    double fromMeters = meters(request.from, nodes_[entry]);
    double toMeters = meters(nodes_[exit], request.to);
    if (entry == exit || meters(request.from, request.to) <= fromMeters + toMeters) {
        return localRoute(request);
    }

    const bool ferries = (request.type & 8) != 0;
    const bool tolls = (request.type & 16) != 0;
    auto weight = [&](const Edge& e) {
        if (request.mode == 'd') {
            return e.meters;
        }
        double seconds = e.meters / (e.speedKmh / 3.6);
        return request.mode == 'c' && e.kind == Edge::Kind::Toll ? seconds * 1.5 : seconds;
    };
    std::vector<double> best(nodes_.size(), std::numeric_limits<double>::infinity());
    std::vector<std::optional<Adjacent>> via(nodes_.size());
    using Item = std::pair<double, std::size_t>;
    std::priority_queue<Item, std::vector<Item>, std::greater<>> queue;
    best[entry] = 0;
    queue.push({0, entry});
    while (!queue.empty()) {
        auto [cost, node] = queue.top();
        queue.pop();
        if (node == exit) {
            break;
        }
        if (cost > best[node]) {
            continue;
        }
        for (const Adjacent& adj : adjacency_[node]) {
            const Edge& e = edges_[adj.edge];
            if ((e.kind == Edge::Kind::Ferry && !ferries) ||
                (e.kind == Edge::Kind::Toll && !tolls)) {
                continue;
            }
            double next = cost + weight(e);
            if (next < best[adj.to]) {
                best[adj.to] = next;
                via[adj.to] = Adjacent{adj.edge, node};  // edge used, node it came from
                queue.push({next, adj.to});
            }
        }
    }
    if (!via[exit]) {
        return std::nullopt;
    }

    // Walk back from the exit, then turn the edges into steps of one road each.
    std::vector<std::pair<std::size_t, bool>> path;  // edge, traversed from a to b
    for (std::size_t node = exit; node != entry;) {
        const Adjacent& step = *via[node];
        path.push_back({step.edge, edges_[step.edge].a == step.to});
        node = step.to;
    }
    std::reverse(path.begin(), path.end());

    PlannedRoute route;
    route.fromDistance = fromMeters;
    route.toDistance = toMeters;
    const Edge* previous = nullptr;
    double previousChord = 0;
    for (auto [index, forward] : path) {
        const Edge& e = edges_[index];
        std::vector<LatLon> points = e.points;
        if (!forward) {
            std::reverse(points.begin(), points.end());
        }
        double chord =
            forward ? bearing(nodes_[e.a], nodes_[e.b]) : bearing(nodes_[e.b], nodes_[e.a]);
        bool sameRoad = previous && previous->nameEn == e.nameEn && previous->kind == e.kind;
        if (!sameRoad) {
            RouteStep step;
            step.nameTh = e.nameTh;
            step.nameEn = e.nameEn;
            if (e.kind == Edge::Kind::Ferry) {
                step.turn = 6;
            } else if (e.kind == Edge::Kind::Toll && previous && previous->kind != e.kind) {
                step.turn = 5;
            } else if (previous) {
                // Junction to junction, so a road's bow does not read as a turn.
                step.turn = turnCode(previousChord, chord);
            }
            step.points.push_back(points.front());
            route.steps.push_back(std::move(step));
        }
        RouteStep& step = route.steps.back();
        step.points.insert(step.points.end(), points.begin() + 1, points.end());
        step.meters += e.meters;
        step.seconds += e.meters / (e.speedKmh / 3.6);
        previous = &e;
        previousChord = chord;
    }
    // The ways on and off the network belong to the first and last step's drawing.
    route.steps.front().points.insert(route.steps.front().points.begin(), request.from);
    route.steps.back().points.push_back(request.to);
    return route;
}

std::int64_t routeIdFor(std::string_view fromLat, std::string_view fromLon, std::string_view toLat,
                        std::string_view toLon, char mode, long type) {
    std::uint64_t hash = 14695981039346656037ull;
    auto mix = [&hash](std::string_view s) {
        for (unsigned char c : s) {
            hash = (hash ^ c) * 1099511628211ull;
        }
        hash = (hash ^ '|') * 1099511628211ull;
    };
    mix(fromLat);
    mix(fromLon);
    mix(toLat);
    mix(toLon);
    mix(std::string_view(&mode, 1));
    mix(std::to_string(type));
    auto id = static_cast<std::int64_t>(hash & 0x7fffffff);
    return id == 0 ? 1 : id;
}

}  // namespace sorvan::server

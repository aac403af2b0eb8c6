// The routing service: "/tvroute/json/route/guide" plans a route and names it by an id;
// "/tvroute/json/route/path" gives the same route's geometry for that id.
#include <climits>
#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "foundation/number_text.hpp"
#include "road_network.hpp"
#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {
namespace {

// Routes handed out by the guide, so the path request can draw the same route again.
class RouteBook {
  public:
    void remember(std::int64_t id, const RouteRequest& request) {
        std::lock_guard lock(mutex_);
        routes_[id] = request;
    }
    std::optional<RouteRequest> find(std::int64_t id) const {
        std::lock_guard lock(mutex_);
        auto it = routes_.find(id);
        return it == routes_.end() ? std::nullopt : std::optional(it->second);
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::int64_t, RouteRequest> routes_;
};

std::optional<double> coordinate(const Request& request, const std::string& name) {
    auto text = request.queryItem(name);
    return text ? text::parseDouble(*text) : std::nullopt;
}

Response failure(int status, const std::string& message) {
    Response r = Response::json(
        nlohmann::json{{"error", message}, {"data", nlohmann::json::array()}}.dump());
    r.status = status;
    return r;
}

Response guide(const Request& request, RouteBook& book) {
    auto flat = coordinate(request, "flat");
    auto flon = coordinate(request, "flon");
    auto tlat = coordinate(request, "tlat");
    auto tlon = coordinate(request, "tlon");
    if (!flat || !flon || !tlat || !tlon) {
        return failure(400, "flat, flon, tlat and tlon are required");
    }
    RouteRequest route;
    route.from = {*flat, *flon};
    route.to = {*tlat, *tlon};
    auto mode = request.queryItem("mode").value_or("t");
    route.mode = mode == "d" || mode == "c" ? mode[0] : 't';
    if (auto type = request.queryItem("type")) {
        if (auto value = text::parseInteger(*type, LONG_MIN, LONG_MAX)) {
            route.type = static_cast<long>(*value);
        }
    }
    auto planned = RoadNetwork::builtin().plan(route);
    if (!planned) {
        return failure(200, "no route between the two points with these options");
    }
    const bool english = request.queryItem("locale") == "en";
    std::int64_t id =
        routeIdFor(*request.queryItem("flat"), *request.queryItem("flon"),
                   *request.queryItem("tlat"), *request.queryItem("tlon"), route.mode, route.type);
    book.remember(id, route);

    auto steps = nlohmann::json::array();
    long long meters = 0, seconds = 0;
    for (const auto& step : planned->steps) {
        auto m = std::llround(step.meters);
        auto s = std::llround(step.seconds);
        meters += m;
        seconds += s;
        steps.push_back({{"name", english ? step.nameEn : step.nameTh},
                         {"turn", step.turn},
                         {"distance", m},
                         {"interval", s}});
    }
    // The totals include the ways on and off the network, walked at a driveway's pace.
    double access = planned->fromDistance + planned->toDistance;
    meters += std::llround(access);
    seconds += std::llround(access / (20.0 / 3.6));
    nlohmann::json body = {
        {"data",
         {{{"id", id},
           {"fdistance", std::round(planned->fromDistance * 10) / 10},
           {"tdistance", std::round(planned->toDistance * 10) / 10},
           {"distance", meters},
           {"interval", seconds},
           {"guide", std::move(steps)}}}},
    };
    return Response::json(body.dump());
}

Response path(const Request& request, const RouteBook& book) {
    // An id that is no number names no route.
    std::int64_t id = text::parseInteger(request.queryItem("id").value_or("")).value_or(0);
    auto data = nlohmann::json::array();
    if (auto route = book.find(id)) {
        if (auto planned = RoadNetwork::builtin().plan(*route)) {
            for (const auto& step : planned->steps) {
                auto points = nlohmann::json::array();
                for (const auto& p : step.points) {
                    points.push_back({{"lat", std::round(p.lat * 1e6) / 1e6},
                                      {"lon", std::round(p.lon * 1e6) / 1e6}});
                }
                data.push_back(std::move(points));
            }
        }
    }
    return Response::json(nlohmann::json{{"data", std::move(data)}}.dump());
}

}  // namespace

void installRoutingRoutes(EmbeddedService& service) {
    auto book = std::make_shared<RouteBook>();
    service.route("/tvroute/json/route/guide",
                  [book](const Request& request) { return guide(request, *book); });
    service.route("/tvroute/json/route/path",
                  [book](const Request& request) { return path(request, *book); });
}

}  // namespace sorvan::server

#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "SorvanMapSDK/SMRouteGuide.hpp"
#include "SorvanMapSDK/SMRouteOptions.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "services/answers.hpp"
#include "services/fetch.hpp"
#include "services/service_client.hpp"
#include "services/service_task_access.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::services {
namespace {

constexpr const char* kGuidePath = "/tvroute/json/route/guide";
constexpr const char* kPathPath = "/tvroute/json/route/path";

void logRouteError(map::Coordinate from, map::Coordinate to, const std::string& description) {
    log::writef("route Error (%f,%f,%f,%f): %s", from.latitude, from.longitude, to.latitude,
                to.longitude, description.c_str());
}

void logPathError(std::int64_t routeId, const std::string& description) {
    log::writef("path Error (%ld): %s", static_cast<long>(routeId), description.c_str());
}

// The route is the first element of "data". An answer with no "data" at all reads as an empty
// route (every figure 0, id 0, no steps): an empty object stands in for it, so the reads below
// stay the same for both. A "data" that is present but not a non-empty array, or a route that
// is not an object (a null included), is a fault, raised when the route is read.
json::Node routeOf(const json::Node& root) {
    if (root.isObject() && !root.contains("data")) {
        return json::Document::emptyObject().root();
    }
    // Raises for anything but a non-empty list.
    return json::element(json::member(root, "data"), 0);
}

std::string textOf(const json::Node& v) {
    switch (v.kind()) {
        case json::Kind::String:
            return *json::stringValue(v);
        case json::Kind::Null:
            return std::string();
        default:
            return v.toValue().dump();
    }
}

std::shared_ptr<map::Polyline> polylineOf(const json::Node& step) {
    if (!step.isArray()) {
        throw json::StructureError("a point list of kind " + std::string(step.typeName()) +
                                   " where an array was expected");
    }
    // Each point goes straight to the map point the polyline keeps, as withCoordinates()
    // would make it, without a list of coordinates between.
    std::vector<map::MapPoint> points;
    points.reserve(step.size());
    for (const json::Node point : json::items(step)) {
        const auto [lat, lon] = json::members(point, {"lat", "lon"});
        points.push_back(
            map::mapPointForCoordinate({json::doubleValue(lat), json::doubleValue(lon)}));
    }
    return std::make_shared<map::Polyline>(std::move(points));
}

}  // namespace

RouteHead readRouteHead(std::shared_ptr<const json::Document> answer) {
    RouteHead head;
    head.routeJson = routeOf(answer->root());
    head.answer = std::move(answer);
    head.route = std::make_shared<SMRouteResult>();
    // Read in this order, so that a route with several faults reports the same one.
    const auto [fdistance, tdistance, distance, interval, id] =
        json::members(head.routeJson, {"fdistance", "tdistance", "distance", "interval", "id"});
    head.route->setFDistance(json::doubleValue(fdistance));
    head.route->setTDistance(json::doubleValue(tdistance));
    head.route->setDistance(json::integerValue(distance));
    head.route->setInterval(json::integerValue(interval));
    head.id = json::integerValue(id);
    return head;
}

// Joins the route's steps with the path's polylines. Geometry is used only when there is one
// polyline per step; otherwise every step keeps its empty polyline.
std::vector<std::shared_ptr<SMRouteGuide>> joinGuide(json::Node route,
                                                     const std::optional<Polylines>& lines) {
    std::vector<std::shared_ptr<SMRouteGuide>> guides;
    const auto steps = json::items(json::member(route, "guide"));
    guides.reserve(steps.size());
    bool withGeometry = lines && lines->size() == steps.size();
    std::size_t i = 0;
    for (const json::Node step : steps) {
        const auto [name, distance, interval, turn] =
            json::members(step, {"name", "distance", "interval", "turn"});
        auto guide = std::make_shared<SMRouteGuide>();
        guide->setName(textOf(name));
        guide->setDistance(json::integerValue(distance));
        guide->setInterval(json::integerValue(interval));
        if (withGeometry) {
            guide->setPath((*lines)[i]);
        }
        std::int64_t code = json::integerValue(turn);
        if (code >= 0 && code <= 6) {
            guide->setTurn(SMRouteGuide::turnForServiceCode(code));
        }
        guides.push_back(std::move(guide));
        ++i;
    }
    return guides;
}

Polylines readPolylines(json::Node root, std::int64_t routeId) {
    Polylines polylines;
    try {
        const auto steps = json::items(json::member(root, "data"));
        polylines.reserve(steps.size());
        for (const json::Node step : steps) {
            polylines.push_back(polylineOf(step));
        }
    } catch (const std::exception& e) {
        logPathError(routeId, e.what());
    }
    return polylines;
}

RouteClient::RouteClient(ServiceSettings settings) : settings_(std::move(settings)) {}

const char* RouteClient::modeLetter(std::int64_t mode) {
    switch (mode) {
        case 2:
            return "d";
        case 1:
            return "c";
        default:
            return "t";
    }
}

long RouteClient::typeBits(bool allowedTollway, bool allowedFerry) {
    long type = allowedFerry ? 9 : 1;
    if (allowedTollway) {
        type |= 16;
    }
    return type;
}

std::string RouteClient::guideQuery(map::Coordinate from, map::Coordinate to,
                                    const SMRouteOptions* options) const {
    std::string query =
        strformat("flat=%f&flon=%f&tlat=%f&tlon=%f&locale=%s&key=%s", from.latitude, from.longitude,
                  to.latitude, to.longitude, settings_.locale.c_str(), settings_.key.c_str());
    if (options) {
        query += strformat("&mode=%s&type=%ld", modeLetter(options->mode()),
                           typeBits(options->allowedTollway(), options->allowedFerry()));
    }
    return query;
}

std::shared_ptr<SMServiceTask> RouteClient::routeFrom(map::Coordinate from, map::Coordinate to,
                                                      const SMRouteOptions* options,
                                                      SMRouteResultBlock result) const {
    auto task = ServiceTaskAccess::create();
    auto request = makeRequest(settings_, kGuidePath, guideQuery(from, to, options));
    RouteClient self = *this;
    auto transfer = fetchJSON(
        std::move(request),
        resultHandler(
            task, std::move(result),
            [from, to](const std::string& why) { logRouteError(from, to, why); },
            FailureLog::AfterBlock,
            [self, task, from, to](const Answer& answer, const SMRouteResultBlock& block) {
                RouteHead head;
                try {
                    head = readRouteHead(answer);
                } catch (const std::exception& e) {
                    // A malformed answer gives the caller neither a route nor an error
                    // object, and no path request is made.
                    if (block) {
                        block(nullptr, std::nullopt);
                    }
                    logRouteError(from, to, e.what());
                    return;
                }
                // The path request belongs to the same call: cancelling the route ends it
                // too.
                self.requestPath(task, head.id,
                                 [from, to, head, block](const auto& polylines,
                                                         const std::optional<net::Error>&) {
                                     // A failed path request still yields the route, without
                                     // geometry.
                                     std::vector<std::shared_ptr<SMRouteGuide>> guides;
                                     try {
                                         guides = joinGuide(head.routeJson, polylines);
                                     } catch (const std::exception& e) {
                                         // Steps of the wrong kind after a well-formed route head:
                                         // reported like a malformed answer rather than taking the
                                         // session queue down.
                                         if (block) {
                                             block(nullptr, std::nullopt);
                                         }
                                         logRouteError(from, to, e.what());
                                         return;
                                     }
                                     head.route->setGuide(std::move(guides));
                                     if (block) {
                                         block(head.route, std::nullopt);
                                     }
                                 });
            }));
    ServiceTaskAccess::attach(*task, std::move(transfer));
    return task;
}

std::shared_ptr<SMServiceTask> RouteClient::pathFrom(std::int64_t routeId,
                                                     SMPathResult result) const {
    auto task = ServiceTaskAccess::create();
    requestPath(task, routeId, std::move(result));
    return task;
}

void RouteClient::requestPath(const std::shared_ptr<SMServiceTask>& task, std::int64_t routeId,
                              SMPathResult result) const {
    // The path request carries neither key nor locale.
    auto request =
        makeRequest(settings_, kPathPath, strformat("id=%ld", static_cast<long>(routeId)));
    auto transfer = fetchJSON(
        std::move(request),
        resultHandler(
            task, std::move(result),
            [routeId](const std::string& why) { logPathError(routeId, why); },
            // Logged before the caller hears of it: the reverse of the guide request's order.
            FailureLog::BeforeBlock,
            [routeId](const Answer& answer, const SMPathResult& block) {
                auto polylines = readPolylines(answer->root(), routeId);
                if (block) {
                    block(std::move(polylines), std::nullopt);
                }
            }));
    ServiceTaskAccess::attach(*task, std::move(transfer));
}

}  // namespace sorvan::services

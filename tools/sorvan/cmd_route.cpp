// `sorvan route`: a route between two positions from the routing service: its figures and
// turn-by-turn steps as a table, or everything (with each step's path) as JSON.
#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMRouteGuide.hpp"
#include "SorvanMapSDK/SMRouteOptions.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "command.hpp"
#include "options.hpp"
#include "service_cli.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

// Labels of the turn values as the embedded service uses them.
const char* turnLabel(std::int64_t turn) {
    switch (turn) {
        case 0:
            return "left";
        case 1:
            return "right";
        case 2:
            return "bear left";
        case 3:
            return "bear right";
        case 4:
            return "expressway";
        case 5:
            return "ferry";
        default:
            return "straight on";
    }
}

std::string kilometres(double metres) {
    return strformat("%.1f km", metres / 1000.0);
}

std::string minutes(double seconds) {
    return strformat("%.0f min", seconds / 60.0);
}

void printRoute(const SMRouteResult& route, bool json) {
    if (json) {
        auto guide = nlohmann::ordered_json::array();
        for (const auto& step : route.guide()) {
            auto path = nlohmann::ordered_json::array();
            for (const auto& c : step->path()->coordinates()) {
                // Seven decimals (about a centimetre) hide the round trip through map points.
                path.push_back(
                    {std::round(c.latitude * 1e7) / 1e7, std::round(c.longitude * 1e7) / 1e7});
            }
            guide.push_back({{"name", step->name()},
                             {"turn", step->turn()},
                             {"distance", step->distance()},
                             {"interval", step->interval()},
                             {"path", std::move(path)}});
        }
        nlohmann::ordered_json out = {{"fDistance", route.fDistance()},
                                      {"tDistance", route.tDistance()},
                                      {"distance", route.distance()},
                                      {"interval", route.interval()},
                                      {"guide", std::move(guide)}};
        std::printf("%s\n", out.dump(2).c_str());
        return;
    }
    std::printf("%s, %s (%.0f m to the first road, %.0f m from the last)\n",
                kilometres(static_cast<double>(route.distance())).c_str(),
                minutes(static_cast<double>(route.interval())).c_str(), route.fDistance(),
                route.tDistance());
    Table table({"#", "TURN", "ROAD", "DISTANCE", "TIME", "POINTS"});
    table.setNumeric({0, 3, 4, 5});
    for (std::size_t i = 0; i < route.guide().size(); ++i) {
        const auto& step = *route.guide()[i];
        table.add({std::to_string(i + 1),
                   strformat("%ld %s", static_cast<long>(step.turn()), turnLabel(step.turn())),
                   step.name(), kilometres(static_cast<double>(step.distance())),
                   minutes(static_cast<double>(step.interval())),
                   std::to_string(step.path()->pointCount())});
    }
    table.print();
}

struct RouteOptions {
    ServiceSettings service;
    std::optional<map::Coordinate> from, to;
    std::optional<std::int64_t> mode;
    bool noTollway = false, noFerry = false;
    bool json = false;
};

Runner setupRoute(CLI::App& app) {
    app.description(
        "Asks the routing service for a route and prints its distance and time and one row\n"
        "per step: the turn onto it, the road, its length and time and the points of its path.\n\n"
        "Any option but --lang, --key and --json sends the request with options (mode t and\n"
        "both kinds of road allowed unless changed); without them neither is sent.");
    auto o = std::make_shared<RouteOptions>();
    addCoordinate(app, "FROM", o->from, "where the route starts")->required();
    addCoordinate(app, "TO", o->to, "where it ends")->required();
    addInteger(app, "--mode", o->mode,
               "route mode: 1 and 2 ask for the service's modes c and d, any other number\n"
               "for t (the embedded service: t quickest, d shortest, c quickest while\n"
               "sparing toll roads)");
    app.add_flag("--no-tollway", o->noTollway, "keep off toll roads");
    app.add_flag("--no-ferry", o->noFerry, "keep off ferries");
    addServiceSettings(app, o->service, "language of the road names (default th)");
    addJsonFlag(app, o->json,
                "print the route as JSON: fDistance, tDistance, distance, interval and guide,\n"
                "each step with name, turn, distance, interval and path as [latitude,\n"
                "longitude] pairs");
    return [o](const Context& context) -> int {
        std::shared_ptr<SMRouteOptions> options;
        if (o->mode || o->noTollway || o->noFerry) {
            options = std::make_shared<SMRouteOptions>();
            if (o->mode) {
                options->setMode(*o->mode);
            }
            options->setAllowedTollway(!o->noTollway);
            options->setAllowedFerry(!o->noFerry);
        }
        auto view = serviceView(o->service);
        // A guide that cannot be read is logged as a route error, a path as a path error.
        CallWatch watch({"route Error", "path Error"});
        auto answer = awaitAnswer<std::shared_ptr<SMRouteResult>>(
            [&](auto block) { view->routeFrom(*o->from, *o->to, options, std::move(block)); });
        if (!answer) {
            return failure(context.name, "no answer from the routing service");
        }
        if (auto problem = watch.problem("routing", answer->error, answer->value != nullptr)) {
            return failure(context.name, *problem);
        }
        printRoute(*answer->value, o->json);
        return kSuccess;
    };
}

const Command::Registration registration{
    {"route", "route between two positions, step by step", kServiceFailures, setupRoute}};

}  // namespace
}  // namespace sorvan::cli

// `sorvan route`: a route between two positions from the routing service: its figures and
// turn-by-turn steps as a table, or everything (with each step's path) as JSON.
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
#include "geodesy_input.hpp"
#include "service_cli.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

constexpr const char* kName = "route";

void printRouteHelp() {
    std::printf(
        "usage: sorvan route FROM_LAT,FROM_LON TO_LAT,TO_LON [--mode N] [--no-tollway]\n"
        "                    [--no-ferry] [--lang en|th] [--key KEY] [--json]\n\n"
        "Asks the routing service for a route and prints its distance and time and one row\n"
        "per step: the turn onto it, the road, its length and time and the points of its path.\n\n"
        "options:\n"
        "  --mode N       route mode: 1 and 2 ask for the service's modes c and d, any other\n"
        "                 number for t (the embedded service: t quickest, d shortest,\n"
        "                 c quickest while sparing toll roads)\n"
        "  --no-tollway   keep off toll roads\n"
        "  --no-ferry     keep off ferries\n"
        "  --lang en|th   language of the road names (default th)\n"
        "  --key KEY      the service key (default: $SORVAN_KEY)\n"
        "  --json         print the route as JSON: fDistance, tDistance, distance, interval\n"
        "                 and guide, each step with name, turn, distance, interval and path\n"
        "                 as [latitude, longitude] pairs\n"
        "  -h, --help     show this help\n\n"
        "Any option but --lang, --key and --json sends the request with options (mode t and\n"
        "both kinds of road allowed unless changed); without them neither is sent.\n");
}

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

int runRoute(const std::vector<std::string>& args) {
    ServiceOptions common;
    std::vector<map::Coordinate> ends;
    std::shared_ptr<SMRouteOptions> options;
    auto withOptions = [&] {
        if (!options) {
            options = std::make_shared<SMRouteOptions>();
        }
        return options;
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-h" || arg == "--help") {
            printRouteHelp();
            return 0;
        }
        int taken = takeServiceOption(kName, args, i, common);
        if (taken < 0) {
            return 2;
        }
        if (taken > 0) {
            i += taken - 1;
        } else if (arg == "--no-tollway") {
            withOptions()->setAllowedTollway(false);
        } else if (arg == "--no-ferry") {
            withOptions()->setAllowedFerry(false);
        } else if (arg == "--mode" || arg.rfind("--mode=", 0) == 0) {
            auto value = optionValue(args, i, "--mode");
            auto mode = value ? parseInteger(*value) : std::nullopt;
            if (!mode) {
                return usageError(kName, "--mode takes a whole number");
            }
            withOptions()->setMode(*mode);
        } else if (looksLikeOption(arg)) {
            return usageError(kName, "unknown option '" + arg + "'");
        } else {
            std::string error;
            auto at = parseCoordinate(arg, error);
            if (!at) {
                return usageError(kName, error);
            }
            ends.push_back(*at);
        }
    }
    if (ends.size() != 2) {
        return usageError(kName, "FROM_LAT,FROM_LON and TO_LAT,TO_LON are required");
    }

    auto view = serviceView(common);
    auto answer = awaitAnswer<std::shared_ptr<SMRouteResult>>(
        [&](auto block) { view->routeFrom(ends[0], ends[1], options, std::move(block)); });
    if (!answer) {
        return failure(kName, "no answer from the routing service");
    }
    if (answer->error) {
        return failure(kName, answer->error->localizedDescription);
    }
    if (!answer->value) {
        return failure(kName, "the routing service gave no usable route");
    }
    printRoute(*answer->value, common.json);
    return 0;
}

const Command::Registration registration{
    Command{kName, "route between two positions, step by step", runRoute}};

}  // namespace
}  // namespace sorvan::cli

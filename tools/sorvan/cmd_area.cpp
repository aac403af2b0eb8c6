// `sorvan area`: the area of the polygon through the given points, as the map view computes it.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMGeodesy.hpp"
#include "command.hpp"
#include "geodesy_input.hpp"
#include "options.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

struct AreaOptions {
    std::vector<std::string> points;
    bool json = false;
};

Runner setupArea(CLI::App& app) {
    app.description(
        "Prints the area in square metres, with two decimals, of the polygon through the\n"
        "points in order, closed back to the first point. The points pass through map points\n"
        "as a polygon overlay would, and the area is taken on a sphere of radius 6378137 m,\n"
        "which suits small polygons. One or two points give 0.00.");
    auto o = std::make_shared<AreaOptions>();
    app.add_option("POINTS", o->points,
                   "the corners, LAT,LON each (\"13.75, 100.5\" split by the shell is joined "
                   "back)")
        ->type_name("LAT,LON");
    addJsonFlag(app, o->json,
                "print {\"points\": N, \"area\": SQUARE_METRES} (area to two decimals)");
    return [o](const Context& context) -> int {
        std::vector<map::Coordinate> points;
        std::string error;
        for (const std::string& input : joinCommaSplitArguments(o->points)) {
            const auto coordinate = parseCoordinate(input, error);
            if (!coordinate) {
                return usageError(context.name, error);
            }
            points.push_back(*coordinate);
        }
        if (points.empty()) {
            return usageError(context.name, "no points given");
        }
        const auto polygon = map::Polygon::withCoordinates(points.data(), points.size());
        const std::string area = strformat("%.2f", geodesy::areaOfPolygon(*polygon));
        if (o->json) {
            // The number as the text prints it, so both forms agree to the last digit.
            nlohmann::ordered_json out = {{"points", points.size()},
                                          {"area", nlohmann::ordered_json::parse(area)}};
            std::printf("%s\n", out.dump().c_str());
        } else {
            std::printf("%s\n", area.c_str());
        }
        return kSuccess;
    };
}

const Command::Registration registration{
    {"area", "area in square metres of the polygon through LAT,LON points",
     "the output could not be written", setupArea}};

}  // namespace
}  // namespace sorvan::cli

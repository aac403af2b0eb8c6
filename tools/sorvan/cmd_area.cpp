// `sorvan area`: the area of the polygon through the given points, as the map view computes it.
#include <cstdio>
#include <string>
#include <vector>

#include "SorvanMapSDK/SMGeodesy.hpp"
#include "command.hpp"
#include "geodesy_input.hpp"

namespace sorvan::cli {

namespace {

constexpr const char* kName = "area";

void printAreaHelp() {
    std::printf(
        "usage: sorvan area LAT,LON LAT,LON ...\n\n"
        "Prints the area in square metres, with two decimals, of the polygon through the\n"
        "points in order, closed back to the first point. The points pass through map points\n"
        "as a polygon overlay would, and the area is taken on a sphere of radius 6378137 m,\n"
        "which suits small polygons. One or two points give 0.00.\n\n"
        "options:\n"
        "  -h, --help  show this help\n");
}

int runArea(const std::vector<std::string>& args) {
    std::vector<std::string> positional;
    bool optionsEnded = false;
    for (const std::string& arg : args) {
        if (!optionsEnded && (arg == "-h" || arg == "--help")) {
            printAreaHelp();
            return 0;
        }
        if (!optionsEnded && arg == "--") {
            optionsEnded = true;
        } else if (!optionsEnded && looksLikeOption(arg)) {
            return usageError(kName, "unknown option '" + arg + "'");
        } else {
            positional.push_back(arg);
        }
    }
    std::vector<map::Coordinate> points;
    std::string error;
    for (const std::string& input : joinCommaSplitArguments(positional)) {
        const auto coordinate = parseCoordinate(input, error);
        if (!coordinate) {
            return usageError(kName, error);
        }
        points.push_back(*coordinate);
    }
    if (points.empty()) {
        return usageError(kName, "no points given");
    }
    const auto polygon = map::Polygon::withCoordinates(points.data(), points.size());
    std::printf("%.2f\n", geodesy::areaOfPolygon(*polygon));
    return 0;
}

const Command::Registration registration{
    Command{kName, "area in square metres of the polygon through LAT,LON points", runArea}};

}  // namespace

}  // namespace sorvan::cli

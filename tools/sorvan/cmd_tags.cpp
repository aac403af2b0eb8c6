// `sorvan tags`: the tags the clustering service gives a map view of a place and size, as the
// view collects them from the tiles it draws; a table or JSON.
#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "command.hpp"
#include "foundation/number_text.hpp"
#include "live_annotations.hpp"
#include "options.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

struct TagsOptions {
    std::string names;
    std::optional<map::Coordinate> center;
    double zoom = 0;
    double width = 0, height = 0;
    std::string scale = "1";
    ServiceSettings service;
    double timeout = 60;
    bool json = false;
};

std::vector<std::string> splitNames(const std::string& text) {
    std::vector<std::string> names;
    std::size_t start = 0;
    while (true) {
        std::size_t comma = text.find(',', start);
        names.push_back(text.substr(start, comma - start));
        if (comma == std::string::npos) {
            return names;
        }
        start = comma + 1;
    }
}

Runner setupTags(CLI::App& app) {
    app.description(
        "Shows a map view of the given place and size, binds the tags of the given names to\n"
        "it and prints the tag annotations the view collected from the clustering service\n"
        "for the tiles it drew: id, name, icon type, zoom and position, north to south.\n"
        "Tiles that show only in part are asked too, so tags a little beyond the edges are\n"
        "listed as well.");
    auto o = std::make_shared<TagsOptions>();
    app.add_option("NAMES", o->names, "tag names, comma-separated (e.g. temple,food)")->required();
    addCoordinate(app, "--center", o->center, "centre of the view in degrees")->required();
    addNumber(app, "--zoom", o->zoom, "zoom level, 1 to 20 (fractions allowed)", 1, 20)->required();
    app.add_option_function<std::string>(
           "--size",
           [o](const std::string& v) {
               auto x = v.find('x');
               auto w = x == std::string::npos ? std::nullopt
                                               : text::parseInteger(v.substr(0, x), 1, 8192);
               auto h = x == std::string::npos ? std::nullopt
                                               : text::parseInteger(v.substr(x + 1), 1, 8192);
               if (!w || !h) {
                   throw CLI::ValidationError("--size wants WxH in points, 1 to 8192 each, got '" +
                                              v + "'");
               }
               o->width = static_cast<double>(*w);
               o->height = static_cast<double>(*h);
           },
           "size of the view in points, e.g. 800x600")
        ->type_name("WxH")
        ->required();
    addChoice(app, "--scale", o->scale, {"1", "2", "3"},
              "pixels per point: 1, 2 or 3 (default 1); map icons are asked at this scale");
    addServiceSettings(app, o->service, "language of the tags' names (default th)");
    addNumber(app, "--timeout", o->timeout,
              "how long to wait for the clustering service, in seconds (default 60)", 0.1, 3600);
    addJsonFlag(app, o->json,
                "print a JSON array of tags (poiid, name, type, zoom, latitude, longitude)\n"
                "instead of a table");
    return [o](const Context& context) -> int {
        std::vector<std::string> names = splitNames(o->names);
        LiveFailures failures;
        auto view = SorvanMapView::create({0, 0, o->width, o->height});
        view->setScreenScale(o->scale[0] - '0');
        view->setKey(o->service.effectiveKey());
        view->setLanguage(o->service.language());
        map::MapPoint c = map::mapPointForCoordinate(*o->center);
        double w = o->width * std::exp2(20.0 - o->zoom), h = o->height * std::exp2(20.0 - o->zoom);
        view->setVisibleMapRect({{c.x - w / 2, c.y - h / 2}, {w, h}});
        // Tags ride on a tile layer's drawn tiles; an empty layer fetches no picture for them.
        view->addSMOverlay(SMLayerModeNone);
        view->showTags(names);
        renderSettled(*view, o->timeout);
        if (!liveSettled()) {
            return failure(context.name, "the clustering service did not answer within " +
                                             strformat("%g", o->timeout) + " s (" +
                                             ServiceConfig::current().clusterService + ")");
        }
        if (auto first = failures.firstTagError()) {
            return failure(context.name, std::to_string(failures.tagErrors()) +
                                             " cluster request(s) failed; the first: " + *first);
        }
        auto tags = tagsOf(*view);
        if (o->json) {
            std::printf("%s\n", tagsJSON(tags).dump(2).c_str());
        } else {
            printTagTable(tags);
        }
        return kSuccess;
    };
}

const Command::Registration registration{
    {"tags", "list the clustered places of some tags that a map view of a place collects",
     "a cluster request failed or the clustering service did not answer in time", setupTags}};

}  // namespace
}  // namespace sorvan::cli

// `sorvan render`: draws a map headless through SorvanMapView into a PNG, against the
// configured service (SORVAN_SERVICE_ORIGIN points every service at one origin).
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "command.hpp"
#include "geodesy_input.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::cli {
namespace {

const char* const kName = "render";

// Names a host would read off the layer catalogue; each is also accepted as its number.
struct ModeName {
    const char* name;
    std::int64_t mode;
    const char* what;
};
constexpr ModeName kModes[] = {
    {"base", SMLayerModeBase, "base map"},
    {"gistda_spot5", SMLayerModeGistdaSpot5, "satellite imagery (SPOT 5)"},
    {"gray", SMLayerModeGray, "grey base map"},
    {"hydro", SMLayerModeHydro, "water ways"},
    {"mapquest_osm", SMLayerModeMapquestOsm, "community map, alternative style"},
    {"normal", SMLayerModeNormal, "standard map"},
    {"normalr", SMLayerModeNormalR, "standard map, road emphasis"},
    {"osm_opencycle", SMLayerModeOsmOpencycle, "cycling map"},
    {"osm", SMLayerModeOsm, "community map"},
    {"icons", SMLayerModeIcons, "point-of-interest icons"},
    {"politicalwhite", SMLayerModePoliticalWhite, "political map on white"},
    {"politicalwhitenolabel", SMLayerModePoliticalWhiteNoLabel, "political map, no labels"},
    {"bluemarble_terrain", SMLayerModeBluemarbleTerrain, "terrain"},
    {"thaichote", SMLayerModeThaichote, "satellite imagery"},
    {"thaichote_partner", SMLayerModeThaichotePartner, "satellite imagery, partner server"},
    {"iconstransp", SMLayerModeIconsTransp, "icons on a transparent layer"},
    {"traffic", SMLayerModeTraffic, "live traffic (from zoom 7; deeper than 16 enlarged)"},
    {"offline_gray", SMLayerModeOfflineGray, "grey tiles from the documents folder"},
    {"white", SMLayerModeWhiteBackground, "opaque white under the layers above"},
    {"none", SMLayerModeNone, "nothing"},
};

void printHelp() {
    std::printf(
        "usage: sorvan render --center LAT,LON --zoom Z --size WxH --layers MODE[,MODE...]\n"
        "                     -o FILE [options]\n\n"
        "Draws a map headless through SorvanMapView into a PNG, with the tiles of the\n"
        "configured Sorvan service (point SORVAN_SERVICE_ORIGIN at `sorvan serve` to work\n"
        "offline).\n\n"
        "required:\n"
        "  --center LAT,LON     centre of the map in degrees, e.g. 13.7563,100.5018\n"
        "  --zoom Z             zoom level, 0 to 20 (fractions allowed)\n"
        "  --size WxH           size of the view in points, e.g. 1024x768\n"
        "  --layers MODES       comma-separated layer modes, bottom first (names or numbers,\n"
        "                       see below); layers are stacked into one composed tile layer,\n"
        "                       a traffic layer is drawn on top on its own\n"
        "  -o, --output FILE    the PNG to write\n\n"
        "options:\n"
        "  --scale S            pixels per point: 1, 2 or 3 (default 1); the PNG is\n"
        "                       W*S x H*S pixels\n"
        "  --lang en|th         language of map labels (default th)\n"
        "  --key KEY            the service key (default: $SORVAN_KEY)\n"
        "  --no-cache           neither read nor write the tile disk cache\n"
        "  --wms URL            add a WMS 1.1.1 layer above the others (URL up to the query)\n"
        "  --wms-format 4|5     its projection: 4 = EPSG:4326, 5 = EPSG:3857 (default 5)\n"
        "  --template URL       add an {x}/{y}/{z} template layer above the others\n"
        "  --template-format F  0 or 1 = rows from the north, 2 = TMS rows from the south\n"
        "  --route FROM:TO      draw the route between two positions over the map, e.g.\n"
        "                       13.7563,100.5018:13.7246,100.5294 (asked of the routing\n"
        "                       service; steps are drawn as a blue line)\n"
        "  --search KEYWORD     put a pin on each hit of a search near the centre (asked of\n"
        "                       the search service; at most 10 hits)\n"
        "  --png-level N        zlib level of the PNG, 0 to 9 (default 1: fast, about a\n"
        "                       tenth larger than 6)\n"
        "  --timeout SECONDS    how long to wait for tiles (default 60)\n"
        "  --partial            write the PNG even when some tiles failed\n"
        "  --verbose            print the kit's log lines as they come\n\n"
        "layer modes:\n");
    for (const auto& m : kModes) {
        std::printf("  %2lld  %-22s %s\n", static_cast<long long>(m.mode), m.name, m.what);
    }
    std::printf(
        "      server:NAME            (20) a map-server layer asked for by its mode name\n\n"
        "environment:\n"
        "  SORVAN_SERVICE_ORIGIN  scheme://host:port of the service, e.g. http://127.0.0.1:8080\n"
        "  SORVAN_KEY             the service key, when --key is not given\n"
        "  SORVAN_HOME            where the tile disk cache and preferences live\n\n"
        "exit status: 0 written; 1 tiles failed, timed out or the file could not be written,\n"
        "or the route or search failed; 2 bad arguments\n\n"
        "example:\n"
        "  sorvan render --center 13.7563,100.5018 --zoom 14 --size 1024x768 \\\n"
        "      --layers normal,icons,traffic -o bangkok.png\n"
        "  sorvan render --center 13.74,100.515 --zoom 13 --size 800x600 --layers normal \\\n"
        "      --route 13.7563,100.5018:13.7246,100.5294 --search temple -o route.png\n");
}

std::optional<double> parseNumber(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    errno = 0;
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(v)) {
        return std::nullopt;
    }
    return v;
}

std::optional<std::int64_t> parseInteger(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end != text.c_str() + text.size()) {
        return std::nullopt;
    }
    return v;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        std::size_t at = text.find(separator, start);
        parts.push_back(text.substr(start, at - start));
        if (at == std::string::npos) {
            return parts;
        }
        start = at + 1;
    }
}

// A descriptor's zoom range replaces the overlay's own, so traffic asks for the range the
// traffic service serves (7 to 16) instead of a descriptor's default 1 to 20.
std::shared_ptr<SMLayer> withNaturalRange(std::shared_ptr<SMLayer> layer) {
    if (layer->mode() == SMLayerModeTraffic) {
        layer->setMinZoom(7);
        layer->setMaxZoom(16);
    }
    return layer;
}

std::optional<std::shared_ptr<SMLayer>> parseLayer(const std::string& text, std::string& error) {
    if (text.rfind("server:", 0) == 0) {
        if (text.size() == 7) {
            error = "layer 'server:' needs a mode name, e.g. server:normal";
            return std::nullopt;
        }
        auto layer = SMLayer::create(SMLayerModeServerLayer);
        layer->setSourceLayer(text.substr(7));
        return layer;
    }
    for (const auto& m : kModes) {
        if (text == m.name) {
            return withNaturalRange(SMLayer::create(m.mode));
        }
    }
    if (auto number = parseInteger(text)) {
        if (*number == SMLayerModeServerLayer || *number == SMLayerModeCustom) {
            error = "layer mode " + text + " needs a source: use server:NAME, --template or --wms";
            return std::nullopt;
        }
        if (*number < 0 || *number > SMLayerModeCustom) {
            error = "unknown layer mode " + text + " (modes are 0 to 19, see --help)";
            return std::nullopt;
        }
        return withNaturalRange(SMLayer::create(*number));
    }
    error = "unknown layer mode '" + text + "' (see --help for the names)";
    return std::nullopt;
}

struct Options {
    map::Coordinate center;
    double zoom = 0;
    double width = 0, height = 0;
    double scale = 1;
    std::vector<std::shared_ptr<SMLayer>> layers;
    std::int64_t language = 0;
    std::string key;
    bool noCache = false;
    std::string wms;
    std::int64_t wmsFormat = SMTileFormatWMS3857;
    std::string templateURL;
    std::int64_t templateFormat = SMTileFormatDefault;
    double timeout = 60;
    // A map is flat colour: level 1 is about a tenth larger than level 6 and more than twice
    // as fast to write, and a 2048 x 2048 picture spends more time in the encoder than in
    // fetching its tiles. Hosts that keep the picture long can ask for 9.
    int pngLevel = 1;
    bool partial = false;
    bool verbose = false;
    std::optional<std::pair<map::Coordinate, map::Coordinate>> route;
    std::string search;
    std::string output;
};

// Returns 0 when the arguments are complete, else the usage error's status (printed).
int parseArguments(const std::vector<std::string>& args, Options& o, bool& helpOnly) {
    bool haveCenter = false, haveZoom = false, haveSize = false, haveLayers = false;
    bool haveWmsFormat = false, haveTemplateFormat = false;
    if (const char* key = std::getenv("SORVAN_KEY")) {
        o.key = key;
    }
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size()) {
                return false;
            }
            out = args[++i];
            return true;
        };
        std::string v;
        if (a == "--help" || a == "-h") {
            helpOnly = true;
            return 0;
        }
        if (a == "--no-cache") {
            o.noCache = true;
            continue;
        }
        if (a == "--partial") {
            o.partial = true;
            continue;
        }
        if (a == "--verbose") {
            o.verbose = true;
            continue;
        }
        if (a.rfind("-", 0) != 0) {
            return usageError(kName, "unexpected argument '" + a + "'");
        }
        if (!value(v)) {
            return usageError(kName, "option " + a + " needs a value");
        }
        if (a == "--center") {
            auto parts = split(v, ',');
            auto lat = parts.size() == 2 ? parseNumber(parts[0]) : std::nullopt;
            auto lon = parts.size() == 2 ? parseNumber(parts[1]) : std::nullopt;
            if (!lat || !lon || std::abs(*lat) > 85.05 || std::abs(*lon) > 180) {
                return usageError(kName,
                                  "--center wants LAT,LON in degrees (latitude within "
                                  "+-85.05, longitude within +-180), got '" +
                                      v + "'");
            }
            o.center = {*lat, *lon};
            haveCenter = true;
        } else if (a == "--zoom") {
            auto z = parseNumber(v);
            if (!z || *z < 0 || *z > 20) {
                return usageError(kName, "--zoom wants a number from 0 to 20, got '" + v + "'");
            }
            o.zoom = *z;
            haveZoom = true;
        } else if (a == "--size") {
            auto parts = split(v, 'x');
            auto w = parts.size() == 2 ? parseInteger(parts[0]) : std::nullopt;
            auto h = parts.size() == 2 ? parseInteger(parts[1]) : std::nullopt;
            if (!w || !h || *w < 1 || *h < 1 || *w > 8192 || *h > 8192) {
                return usageError(kName,
                                  "--size wants WxH in points, 1 to 8192 each, got '" + v + "'");
            }
            o.width = static_cast<double>(*w);
            o.height = static_cast<double>(*h);
            haveSize = true;
        } else if (a == "--scale") {
            auto s = parseNumber(v);
            if (!s || (*s != 1 && *s != 2 && *s != 3)) {
                return usageError(kName, "--scale wants 1, 2 or 3, got '" + v + "'");
            }
            o.scale = *s;
        } else if (a == "--layers") {
            o.layers.clear();
            for (const auto& part : split(v, ',')) {
                std::string error;
                auto layer = parseLayer(part, error);
                if (!layer) {
                    return usageError(kName, error);
                }
                o.layers.push_back(*layer);
            }
            haveLayers = true;
        } else if (a == "--lang") {
            if (v != "en" && v != "th") {
                return usageError(kName, "--lang wants en or th, got '" + v + "'");
            }
            o.language = v == "en" ? 2 : 0;
        } else if (a == "--key") {
            o.key = v;
        } else if (a == "--wms") {
            o.wms = v;
        } else if (a == "--wms-format") {
            if (v != "4" && v != "5") {
                return usageError(kName, "--wms-format wants 4 (EPSG:4326) or 5 (EPSG:3857)");
            }
            o.wmsFormat = v == "4" ? SMTileFormatWMS4326 : SMTileFormatWMS3857;
            haveWmsFormat = true;
        } else if (a == "--template") {
            o.templateURL = v;
        } else if (a == "--template-format") {
            if (v != "0" && v != "1" && v != "2") {
                return usageError(kName, "--template-format wants 0, 1 or 2");
            }
            o.templateFormat = v[0] - '0';
            haveTemplateFormat = true;
        } else if (a == "--png-level") {
            auto level = parseInteger(v);
            if (!level || *level < 0 || *level > 9) {
                return usageError(kName, "--png-level wants 0 to 9, got '" + v + "'");
            }
            o.pngLevel = static_cast<int>(*level);
        } else if (a == "--timeout") {
            auto t = parseNumber(v);
            if (!t || *t <= 0) {
                return usageError(kName, "--timeout wants a positive number of seconds");
            }
            o.timeout = *t;
        } else if (a == "--route") {
            auto ends = split(v, ':');
            std::string error;
            auto from = ends.size() == 2 ? parseCoordinate(ends[0], error) : std::nullopt;
            auto to = from ? parseCoordinate(ends[1], error) : std::nullopt;
            if (!to) {
                return usageError(kName, "--route wants FROM_LAT,FROM_LON:TO_LAT,TO_LON, got '" +
                                             v + "'" + (error.empty() ? "" : ": " + error));
            }
            o.route = std::pair{*from, *to};
        } else if (a == "--search") {
            if (v.empty()) {
                return usageError(kName, "--search wants a keyword");
            }
            o.search = v;
        } else if (a == "-o" || a == "--output") {
            o.output = v;
        } else {
            return usageError(kName, "unknown option " + a);
        }
    }
    if (haveWmsFormat && o.wms.empty()) {
        return usageError(kName, "--wms-format needs --wms");
    }
    if (haveTemplateFormat && o.templateURL.empty()) {
        return usageError(kName, "--template-format needs --template");
    }
    if (!haveLayers && (!o.wms.empty() || !o.templateURL.empty())) {
        haveLayers = true;  // a WMS or template layer alone is a map too
    }
    std::string missing;
    for (auto [have, name] : {std::pair{haveCenter, "--center"}, std::pair{haveZoom, "--zoom"},
                              std::pair{haveSize, "--size"}, std::pair{haveLayers, "--layers"},
                              std::pair{!o.output.empty(), "-o"}}) {
        if (!have) {
            missing += missing.empty() ? name : std::string(", ") + name;
        }
    }
    if (!missing.empty()) {
        return usageError(kName, "missing " + missing);
    }
    return 0;
}

// Collects the kit's log lines (tile threads write them too).
class LogCollector {
  public:
    explicit LogCollector(bool echo) : echo_(echo) {
        previous_ = log::setSink([this](std::string_view line) { add(line); });
    }
    ~LogCollector() { log::setSink(std::move(previous_)); }
    LogCollector(const LogCollector&) = delete;
    LogCollector& operator=(const LogCollector&) = delete;

    std::vector<std::string> tileErrors() const {
        std::lock_guard lock(mutex_);
        return tileErrors_;
    }

  private:
    void add(std::string_view line) {
        std::lock_guard lock(mutex_);
        if (line.rfind("TILE ERROR: ", 0) == 0) {
            tileErrors_.emplace_back(line);
        }
        if (echo_) {
            std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
        }
    }

    bool echo_;
    log::Sink previous_;
    mutable std::mutex mutex_;
    std::vector<std::string> tileErrors_;
};

// Tile threads still blocked in a fetch would hold the exit up to the request timeout (60 s);
// the picture is written (atomically) or refused by now, so nothing is lost by not waiting.
int leaveWithoutWaiting(int status) {
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
}

std::string formatSeconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

// The template with {x}, {y} and {z} replaced by 0.
std::string withPlaceholdersFilled(const std::string& urlTemplate) {
    std::string out;
    for (std::size_t i = 0; i < urlTemplate.size(); ++i) {
        std::string_view rest(urlTemplate.data() + i, urlTemplate.size() - i);
        if (rest.starts_with("{x}") || rest.starts_with("{y}") || rest.starts_with("{z}")) {
            out += '0';
            i += 2;
        } else {
            out += urlTemplate[i];
        }
    }
    return out;
}

bool isUniform(const gfx::Image& image) {
    const auto& px = image.pixels();
    for (std::uint32_t p : px) {
        if (p != px.front()) {
            return false;
        }
    }
    return true;
}

// What a service call ended with, read and written on the main queue only.
struct CallOutcome {
    bool done = false;
    std::string error;
    std::size_t added = 0;
};

// Runs the main queue until the call's answer has been put on the map (there, since the map is
// main-queue only and the answer arrives on the session queue), or the timeout passes.
std::optional<std::string> awaitCall(const std::shared_ptr<CallOutcome>& outcome,
                                     const char* service, double timeout) {
    bool done = dispatch::RunLoop::main().runUntil([&] { return outcome->done; },
                                                   dispatch::Duration(timeout));
    if (!done) {
        return std::string("no answer from the ") + service + " service after " +
               formatSeconds(timeout) + " s";
    }
    if (!outcome->error.empty()) {
        return outcome->error;
    }
    return std::nullopt;
}

// Each step's path goes on the map as its own polyline, above the tile layers.
std::optional<std::string> drawRoute(const std::shared_ptr<SorvanMapView>& view,
                                     map::Coordinate from, map::Coordinate to, double timeout,
                                     std::size_t& steps) {
    auto outcome = std::make_shared<CallOutcome>();
    std::weak_ptr<SorvanMapView> weakView = view;
    view->routeFrom(from, to, nullptr, [outcome, weakView](const auto& route, const auto& error) {
        dispatch::RunLoop::main().async([outcome, weakView, route, error] {
            outcome->done = true;
            auto target = weakView.lock();
            if (error) {
                outcome->error = "the routing service failed: " + error->localizedDescription;
            } else if (!route) {
                outcome->error = "the routing service gave an answer that is no route";
            } else if (target) {
                for (const auto& step : route->guide()) {
                    if (step->path() && step->path()->pointCount() > 0) {
                        target->addOverlay(step->path());
                        ++outcome->added;
                    }
                }
                if (outcome->added == 0) {
                    outcome->error = "the routing service gave a route without a path to draw";
                }
            }
        });
    });
    auto problem = awaitCall(outcome, "routing", timeout);
    steps = outcome->added;
    return problem;
}

std::optional<std::string> drawSearchHits(const std::shared_ptr<SorvanMapView>& view,
                                          const std::string& keyword, map::Coordinate near,
                                          double timeout, std::size_t& hits) {
    auto options = std::make_shared<SMSearchOptions>();
    options->setLocation(near);
    auto outcome = std::make_shared<CallOutcome>();
    std::weak_ptr<SorvanMapView> weakView = view;
    view->searchKeyword(keyword, options, [outcome, weakView](const auto& pins, const auto& error) {
        dispatch::RunLoop::main().async([outcome, weakView, pins, error] {
            outcome->done = true;
            auto target = weakView.lock();
            if (error) {
                outcome->error = "the search service failed: " + error->localizedDescription;
            } else if (!pins) {
                outcome->error = "the search service gave no answer";
            } else if (target) {
                std::vector<std::shared_ptr<map::Annotation>> annotations(pins->begin(),
                                                                          pins->end());
                target->addAnnotations(annotations);
                outcome->added = pins->size();
            }
        });
    });
    auto problem = awaitCall(outcome, "search", timeout);
    hits = outcome->added;
    return problem;
}

int run(const std::vector<std::string>& args) {
    Options o;
    bool helpOnly = false;
    if (int status = parseArguments(args, o, helpOnly); status != 0) {
        return status;
    }
    if (helpOnly) {
        printHelp();
        return 0;
    }
    // A template is checked with its placeholders filled, as the tile loader will fill them.
    for (const auto& url : {o.wms, o.templateURL}) {
        if (!url.empty() && !net::URL::fromString(withPlaceholdersFilled(url))) {
            return usageError(kName, "'" + url + "' forms no URL");
        }
    }

    LogCollector logs(o.verbose);
    auto started = std::chrono::steady_clock::now();
    auto millisecondsSince = [](std::chrono::steady_clock::time_point t) {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t)
            .count();
    };
    auto view = SorvanMapView::create({0, 0, o.width, o.height});
    view->setScreenScale(o.scale);
    view->setKey(o.key);
    view->setCache(o.noCache ? 2 : 1);
    view->setLanguage(o.language);

    // The view's zoom is log2(bounds width / visible map width) + 20: set the visible map
    // rect for exactly the zoom asked, rather than the animated fit of setZoomLevel.
    map::MapPoint c = map::mapPointForCoordinate(o.center);
    double mapWidth = o.width * std::exp2(20.0 - o.zoom);
    double mapHeight = o.height * std::exp2(20.0 - o.zoom);
    view->setVisibleMapRect({{c.x - mapWidth / 2, c.y - mapHeight / 2}, {mapWidth, mapHeight}});

    std::vector<std::shared_ptr<SMLayer>> layers = o.layers;
    if (!o.wms.empty()) {
        auto layer = SMLayer::create(SMLayerModeCustom);
        layer->setSourceLayer(o.wms);
        layer->setTileFormat(o.wmsFormat);
        layers.push_back(layer);
    }
    if (!o.templateURL.empty()) {
        auto layer = SMLayer::create(SMLayerModeCustom);
        layer->setSourceLayer(o.templateURL);
        layer->setTileFormat(o.templateFormat);
        layers.push_back(layer);
    }
    // Layers of the catalogue reach zoom 20 only; a custom range is the host's business.
    view->addSMLayers(layers);

    if (o.route) {
        std::size_t steps = 0;
        if (auto problem = drawRoute(view, o.route->first, o.route->second, o.timeout, steps)) {
            return leaveWithoutWaiting(failure(kName, *problem));
        }
        if (o.verbose) {
            std::fprintf(stderr, "sorvan render: route of %zu step(s) added\n", steps);
        }
    }
    if (!o.search.empty()) {
        std::size_t hits = 0;
        if (auto problem = drawSearchHits(view, o.search, o.center, o.timeout, hits)) {
            return leaveWithoutWaiting(failure(kName, *problem));
        }
        if (hits == 0) {
            std::fprintf(stderr, "sorvan render: warning: no search hits for '%s'\n",
                         o.search.c_str());
        } else if (o.verbose) {
            std::fprintf(stderr, "sorvan render: %zu search hit(s) added\n", hits);
        }
    }

    auto drawing = std::chrono::steady_clock::now();
    std::shared_ptr<gfx::Image> image = view->render(std::chrono::duration<double>(o.timeout));
    if (o.verbose) {
        std::fprintf(stderr, "sorvan render: set up in %.1f ms, drawn in %.1f ms\n",
                     std::chrono::duration<double, std::milli>(drawing - started).count(),
                     millisecondsSince(drawing));
    }
    if (!image) {
        return failure(kName, "the map could not be drawn");
    }

    std::vector<std::string> errors = logs.tileErrors();
    bool timedOut = millisecondsSince(drawing) >= o.timeout * 1000.0;
    if (!o.partial) {
        std::string origin = ServiceConfig::current().mapServer;
        if (timedOut) {
            return leaveWithoutWaiting(
                failure(kName, "tiles were still loading after " + formatSeconds(o.timeout) +
                                   " s (map service: " + origin +
                                   "; a slow or hung service? raise --timeout, or use --partial to "
                                   "write what arrived)"));
        }
        if (!errors.empty()) {
            return failure(kName, std::to_string(errors.size()) +
                                      " tile request(s) failed; the first: " + errors.front() +
                                      "\n(map service: " + origin +
                                      "; set SORVAN_SERVICE_ORIGIN, or use --partial to write "
                                      "the picture anyway)");
        }
        if (isUniform(*image)) {
            return failure(kName,
                           "the map came out blank: no layer answered with a picture "
                           "(map service: " +
                               origin +
                               "; check SORVAN_SERVICE_ORIGIN, the key and the layer "
                               "modes, or use --partial to write it anyway)");
        }
    } else if (!errors.empty()) {
        std::fprintf(stderr, "sorvan render: warning: %zu tile request(s) failed; the first: %s\n",
                     errors.size(), errors.front().c_str());
    }
    auto writing = std::chrono::steady_clock::now();
    if (!image->writePNG(o.output, {o.pngLevel, gfx::PNGOptions::Filter::Default})) {
        return failure(kName, "cannot write '" + o.output + "'");
    }
    if (o.verbose) {
        std::fprintf(stderr, "sorvan render: %s written in %.1f ms\n", o.output.c_str(),
                     millisecondsSince(writing));
    }
    return timedOut ? leaveWithoutWaiting(0) : 0;
}

Command::Registration registration{
    {kName, "draw a map headless into a PNG (layers, WMS, templates, traffic)", run}};

}  // namespace
}  // namespace sorvan::cli

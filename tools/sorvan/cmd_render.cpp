// `sorvan render`: draws a map headless through SorvanMapView into a PNG, against the
// configured service (SORVAN_SERVICE_ORIGIN points every service at one origin).
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "SorvanMapSDK/SMTagOptions.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "command.hpp"
#include "foundation/number_text.hpp"
#include "geodesy_input.hpp"
#include "live_annotations.hpp"
#include "options.hpp"
#include "output_file.hpp"
#include "progress.hpp"
#include "render_user.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/map/geometry.hpp"
#include "tile_tally.hpp"

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
    if (auto number = text::parseInteger(text)) {
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

// Collects the kit's log lines (tile threads write them too): the tile failures for the
// summary, and, with --verbose, each line the chosen level lets through as it comes.
class LogCollector {
  public:
    LogCollector(bool echo, log::Level shown) : echo_(echo), shown_(shown) {
        // Failure lines must reach the summary whatever the user chose to see.
        if (static_cast<int>(log::level()) < static_cast<int>(log::Level::error)) {
            log::setLevel(log::Level::error);
        }
        previous_ =
            log::setSink([this](log::Level level, std::string_view line) { add(level, line); });
    }
    ~LogCollector() { log::setSink(std::move(previous_)); }
    LogCollector(const LogCollector&) = delete;
    LogCollector& operator=(const LogCollector&) = delete;

    std::vector<std::string> tileErrors() const {
        std::lock_guard lock(mutex_);
        return tileErrors_;
    }
    std::size_t tileErrorCount() const {
        std::lock_guard lock(mutex_);
        return tileErrors_.size();
    }
    std::vector<std::string> tagErrors() const {
        std::lock_guard lock(mutex_);
        return tagErrors_;
    }
    std::vector<std::string> eventErrors() const {
        std::lock_guard lock(mutex_);
        return eventErrors_;
    }
    std::vector<std::string> cameraErrors() const {
        std::lock_guard lock(mutex_);
        return cameraErrors_;
    }

  private:
    void add(log::Level level, std::string_view line) {
        std::lock_guard lock(mutex_);
        if (line.rfind("TILE ERROR: ", 0) == 0) {
            tileErrors_.emplace_back(line);
        } else if (line.starts_with("showTags Error")) {
            tagErrors_.emplace_back(line);
        } else if (line.starts_with("showEvents Error")) {
            eventErrors_.emplace_back(line);
        } else if (line.starts_with("showCameras Error")) {
            cameraErrors_.emplace_back(line);
        }
        if (echo_ && static_cast<int>(level) <= static_cast<int>(shown_)) {
            std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
        }
    }

    const bool echo_;
    const log::Level shown_;
    log::Sink previous_;
    mutable std::mutex mutex_;
    std::vector<std::string> tileErrors_, tagErrors_, eventErrors_, cameraErrors_;
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
    // The kit's failure line follows the block on the same session task (see awaitAnswer).
    net::URLSession::shared().delegateQueue().sync([] {});
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

struct RenderOptions {
    std::optional<map::Coordinate> center;
    std::optional<double> zoom;
    double width = 0, height = 0;
    double scale = 1;
    std::optional<std::vector<std::shared_ptr<SMLayer>>> layers;
    ServiceSettings service;
    bool noCache = false;
    std::string wms;
    std::string wmsFormat;  // "4" or "5"; empty when not given
    std::string templateURL;
    std::string templateFormat;  // "0" to "2"; empty when not given
    double timeout = 60;
    // A map is flat colour: level 1 is about a tenth larger than level 6 and more than twice
    // as fast to write, and a 2048 x 2048 picture spends more time in the encoder than in
    // fetching its tiles. Hosts that keep the picture long can ask for 9.
    std::int64_t pngLevel = 1;
    bool partial = false;
    bool verbose = false;
    std::optional<std::pair<map::Coordinate, map::Coordinate>> route;
    std::string search;
    std::optional<std::vector<std::string>> tags;
    std::optional<std::pair<std::int64_t, std::int64_t>> tagRange;
    std::string tagIcon;
    bool events = false;
    bool cameras = false;
    std::string output;
    UserDrawingOptions user;
    bool toStandardOutput() const { return output == "-"; }
};

std::string layerModesHelp() {
    std::string out = "layer modes (names or numbers):\n";
    for (const auto& m : kModes) {
        out += strformat("  %2lld  %-22s %s\n", static_cast<long long>(m.mode), m.name, m.what);
    }
    out +=
        "      server:NAME            (20) a map-server layer asked for by its mode name\n\n"
        "examples:\n"
        "  sorvan render --center 13.7563,100.5018 --zoom 14 --size 1024x768 \\\n"
        "      --layers normal,icons,traffic -o bangkok.png\n"
        "  sorvan render --center 13.74,100.515 --zoom 13 --size 800x600 \\\n"
        "      --layers normal --route 13.7563,100.5018:13.7246,100.5294 \\\n"
        "      --search temple -o - > route.png\n"
        "  sorvan render --center 13.745,100.515 --zoom 13 --size 800x600 --scale 2 \\\n"
        "      --layers normal --tags attraction,food --events --cameras -o live.png";
    return out;
}

void declareOptions(CLI::App& app, const std::shared_ptr<RenderOptions>& o) {
    app.add_option_function<std::string>(
           "--center",
           [o](const std::string& v) {
               std::string error;
               auto at = parseCoordinate(v, error);
               if (!at || std::abs(at->latitude) > 85.05) {
                   throw CLI::ValidationError(
                       "--center wants LAT,LON in degrees (latitude within +-85.05, longitude "
                       "within +-180), got '" +
                       v + "'");
               }
               o->center = at;
           },
           "centre of the map in degrees, e.g. 13.7563,100.5018 (required)")
        ->type_name("LAT,LON");
    app.add_option_function<std::string>(
           "--zoom",
           [o](const std::string& v) {
               auto z = text::parseDouble(v);
               if (!z || *z < 0 || *z > 20) {
                   throw CLI::ValidationError("--zoom wants a number from 0 to 20, got '" + v +
                                              "'");
               }
               o->zoom = z;
           },
           "zoom level, 0 to 20, fractions allowed (required)")
        ->type_name("Z");
    app.add_option_function<std::string>(
           "--size",
           [o](const std::string& v) {
               auto parts = split(v, 'x');
               auto w = parts.size() == 2 ? text::parseInteger(parts[0], 1, 8192) : std::nullopt;
               auto h = parts.size() == 2 ? text::parseInteger(parts[1], 1, 8192) : std::nullopt;
               if (!w || !h) {
                   throw CLI::ValidationError("--size wants WxH in points, 1 to 8192 each, got '" +
                                              v + "'");
               }
               o->width = static_cast<double>(*w);
               o->height = static_cast<double>(*h);
           },
           "size of the view in points, e.g. 1024x768 (required)")
        ->type_name("WxH");
    app.add_option_function<std::string>(
           "--layers",
           [o](const std::string& v) {
               std::vector<std::shared_ptr<SMLayer>> layers;
               for (const auto& part : split(v, ',')) {
                   std::string error;
                   auto layer = parseLayer(part, error);
                   if (!layer) {
                       throw CLI::ValidationError(error);
                   }
                   layers.push_back(*layer);
               }
               o->layers = std::move(layers);
           },
           "layer modes, bottom first, comma-separated (see below); they are stacked into\n"
           "one composed tile layer, a traffic layer is drawn on top on its own (required\n"
           "unless --wms or --template gives a layer)")
        ->type_name("MODES");
    app.add_option("-o,--output", o->output, "the PNG to write; - writes it to standard output")
        ->type_name("FILE");
    app.add_option_function<std::string>(
           "--scale",
           [o](const std::string& v) {
               auto s = text::parseDouble(v);
               if (!s || (*s != 1 && *s != 2 && *s != 3)) {
                   throw CLI::ValidationError("--scale wants 1, 2 or 3, got '" + v + "'");
               }
               o->scale = *s;
           },
           "pixels per point: 1, 2 or 3 (default 1); the PNG is W*S x H*S pixels")
        ->type_name("S");
    addServiceSettings(app, o->service, "language of map labels (default th)");
    app.add_flag(
        "--no-cache", o->noCache,
        "no cache at all: neither the tile disk cache nor the URL cache is read or written");
    app.add_option("--wms", o->wms, "add a WMS 1.1.1 layer above the others (URL up to the query)")
        ->type_name("URL");
    addChoice(app, "--wms-format", o->wmsFormat, {"4", "5"},
              "its projection: 4 = EPSG:4326, 5 = EPSG:3857 (default 5)");
    app.add_option("--template", o->templateURL,
                   "add an {x}/{y}/{z} template layer above the others")
        ->type_name("URL");
    addChoice(app, "--template-format", o->templateFormat, {"0", "1", "2"},
              "0 or 1 = rows from the north, 2 = TMS rows from the south");
    app.add_option_function<std::string>(
           "--route",
           [o](const std::string& v) {
               auto ends = split(v, ':');
               std::string error;
               auto from = ends.size() == 2 ? parseCoordinate(ends[0], error) : std::nullopt;
               auto to = from ? parseCoordinate(ends[1], error) : std::nullopt;
               if (!to) {
                   throw CLI::ValidationError(
                       "--route wants FROM_LAT,FROM_LON:TO_LAT,TO_LON, got '" + v + "'" +
                       (error.empty() ? "" : ": " + error));
               }
               o->route = std::pair{*from, *to};
           },
           "draw the route between two positions over the map, e.g.\n"
           "13.7563,100.5018:13.7246,100.5294 (asked of the routing service; steps are\n"
           "drawn as a blue line)")
        ->type_name("FROM:TO");
    app.add_option_function<std::string>(
           "--search",
           [o](const std::string& v) {
               if (v.empty()) {
                   throw CLI::ValidationError("--search wants a keyword");
               }
               o->search = v;
           },
           "put a pin on each hit of a search near the centre (asked of the search\n"
           "service; at most 10 hits)")
        ->type_name("KEYWORD");
    app.add_option_function<std::string>(
           "--tags",
           [o](const std::string& v) {
               std::vector<std::string> names = split(v, ',');
               for (const auto& n : names) {
                   if (n.empty()) {
                       throw CLI::ValidationError("--tags wants NAME[,NAME...], got '" + v + "'");
                   }
               }
               o->tags = std::move(names);
           },
           "draw the clustering service's tags of these names over the map, with their\n"
           "icons (e.g. temple,food; every drawn tile asks for its clusters)")
        ->type_name("NAMES");
    app.add_option_function<std::string>(
           "--tag-range",
           [o](const std::string& v) {
               auto parts = split(v, ',');
               auto lo = parts.size() == 2 ? text::parseInteger(parts[0], 0, 30) : std::nullopt;
               auto hi = parts.size() == 2 ? text::parseInteger(parts[1], 0, 30) : std::nullopt;
               if (!lo || !hi || *hi < *lo) {
                   throw CLI::ValidationError(
                       "--tag-range wants LO,HI, zoom levels with 0 <= LO <= HI <= 30, got '" + v +
                       "'");
               }
               o->tagRange = std::pair{*lo, *hi};
           },
           "the zoom levels at which tags are asked for (default 1,23)")
        ->type_name("LO,HI");
    app.add_option("--tag-icon", o->tagIcon,
                   "a PNG drawn for every tag instead of the service's icons (its pixels\n"
                   "at --scale per point)")
        ->type_name("FILE");
    app.add_flag("--events", o->events,
                 "draw the live traffic incidents of the event feed over the map");
    app.add_flag("--cameras", o->cameras,
                 "draw the traffic cameras of the camera feed over the map (camera and video\n"
                 "signs)");
    addInteger(app, "--png-level", o->pngLevel,
               "zlib level of the PNG, 0 to 9 (default 1: fast, about a tenth larger than 6)", 0,
               9);
    app.add_option_function<std::string>(
           "--timeout",
           [o](const std::string& v) {
               auto t = text::parseDouble(v);
               if (!t || *t <= 0) {
                   throw CLI::ValidationError(
                       "--timeout wants a positive number of seconds, got '" + v + "'");
               }
               o->timeout = *t;
           },
           "how long to wait for tiles (default 60)")
        ->type_name("SECONDS");
    app.add_flag("--partial", o->partial, "write the PNG even when some tiles failed");
    app.add_flag("--verbose", o->verbose,
                 "print the kit's log lines as they come (info and above unless SORVAN_LOG\n"
                 "says otherwise) and how long each step took");
    declareUserDrawingOptions(app, o->user);
}

// What the options leave to check together; nullopt when they make a whole request.
std::optional<std::string> incomplete(const RenderOptions& o) {
    if (!o.wmsFormat.empty() && o.wms.empty()) {
        return "--wms-format needs --wms";
    }
    if (!o.templateFormat.empty() && o.templateURL.empty()) {
        return "--template-format needs --template";
    }
    if ((o.tagRange || !o.tagIcon.empty()) && !o.tags) {
        return std::string(o.tagRange ? "--tag-range" : "--tag-icon") + " needs --tags";
    }
    if (auto problem = userDrawingProblem(o.user)) {
        return problem;
    }
    // A WMS or template layer alone is a map too.
    bool haveLayers = o.layers || !o.wms.empty() || !o.templateURL.empty();
    std::string missing;
    for (auto [have, name] :
         {std::pair{o.center.has_value(), "--center"}, std::pair{o.zoom.has_value(), "--zoom"},
          std::pair{o.width > 0, "--size"}, std::pair{haveLayers, "--layers"},
          std::pair{!o.output.empty(), "-o"}}) {
        if (!have) {
            missing += missing.empty() ? name : std::string(", ") + name;
        }
    }
    if (!missing.empty()) {
        return "missing " + missing;
    }
    // A template is checked with its placeholders filled, as the tile loader will fill them.
    for (const auto& url : {o.wms, o.templateURL}) {
        if (!url.empty() && !net::URL::fromString(withPlaceholdersFilled(url))) {
            return "'" + url + "' forms no URL";
        }
    }
    if (o.toStandardOutput() && ::isatty(STDOUT_FILENO) == 1) {
        return "-o - writes the PNG to standard output, which is a terminal here; redirect it "
               "or name a file";
    }
    return std::nullopt;
}

// nullopt once the PNG is out, else why not.
std::optional<std::string> writeOutput(const gfx::Image& image, const RenderOptions& o) {
    gfx::PNGOptions png{static_cast<int>(o.pngLevel), gfx::PNGOptions::Filter::Default};
    std::vector<std::uint8_t> bytes = image.pngData(png);
    if (bytes.empty()) {
        return std::string("the picture could not be encoded");
    }
    if (!o.toStandardOutput()) {
        return writeOutputFile(o.output, bytes);
    }
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
        std::clearerr(stdout);
        return std::string(std::strerror(errno));
    }
    return finishStandardOutput();
}

int render(const RenderOptions& o, const Context& context) {
    using Clock = std::chrono::steady_clock;
    const std::string& name = context.name;
    if (auto problem = incomplete(o)) {
        return usageError(name, *problem);
    }
    std::shared_ptr<SMIcon> tagIcon;
    if (!o.tagIcon.empty()) {
        auto picture = gfx::Image::fromFile(o.tagIcon, o.scale);
        if (!picture) {
            return usageError(name, "--tag-icon: '" + o.tagIcon + "' is no PNG or JPEG picture");
        }
        tagIcon = SMIcon::withImage(picture);
    }
    bool verbose = o.verbose && !context.quiet;
    const char* chosen = std::getenv("SORVAN_LOG");
    if (verbose && (chosen == nullptr || *chosen == '\0')) {
        log::setLevel(log::Level::info);
    }
    LogCollector logs(verbose, log::level());
    TileTally tiles;
    const std::string outputName = o.toStandardOutput() ? "standard output" : "'" + o.output + "'";

    // The progress line, when shown, is cleared before anything else is printed.
    std::string phase;
    ProgressLine progress(verbose ? Context{name, true} : context, [&](double seconds) {
        std::string status = strformat("%s, %.0f s", phase.c_str(), seconds);
        if (std::size_t failed = tiles.counts().failed) {
            status += strformat(" (%zu tile(s) failed)", failed);
        }
        return status;
    });
    auto leave = [&progress](int status) {
        progress.finish();
        return leaveWithoutWaiting(status);
    };

    auto started = Clock::now();
    auto millisecondsSince = [](Clock::time_point t) {
        return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
    };
    auto view = SorvanMapView::create({0, 0, o.width, o.height});
    view->setScreenScale(o.scale);
    view->setKey(o.service.effectiveKey());
    view->setCache(o.noCache ? 2 : 1);
    if (o.noCache) {
        net::URLCache::shared().setMemoryCapacity(0);
        net::URLCache::shared().setDiskCapacity(0);
    }
    view->setLanguage(o.service.language());

    // The view's zoom is log2(bounds width / visible map width) + 20: set the visible map
    // rect for exactly the zoom asked, rather than the animated fit of setZoomLevel.
    map::MapPoint c = map::mapPointForCoordinate(*o.center);
    double mapWidth = o.width * std::exp2(20.0 - *o.zoom);
    double mapHeight = o.height * std::exp2(20.0 - *o.zoom);
    view->setVisibleMapRect({{c.x - mapWidth / 2, c.y - mapHeight / 2}, {mapWidth, mapHeight}});

    std::vector<std::shared_ptr<SMLayer>> layers =
        o.layers.value_or(std::vector<std::shared_ptr<SMLayer>>{});
    if (!o.wms.empty()) {
        auto layer = SMLayer::create(SMLayerModeCustom);
        layer->setSourceLayer(o.wms);
        layer->setTileFormat(o.wmsFormat == "4" ? SMTileFormatWMS4326 : SMTileFormatWMS3857);
        layers.push_back(layer);
    }
    if (!o.templateURL.empty()) {
        auto layer = SMLayer::create(SMLayerModeCustom);
        layer->setSourceLayer(o.templateURL);
        layer->setTileFormat(o.templateFormat.empty() ? SMTileFormatDefault
                                                      : o.templateFormat[0] - '0');
        layers.push_back(layer);
    }
    // Layers of the catalogue reach zoom 20 only; a custom range is the host's business.
    view->addSMLayers(layers);

    if (o.route) {
        phase = "asking the routing service";
        std::size_t steps = 0;
        if (auto problem = drawRoute(view, o.route->first, o.route->second, o.timeout, steps)) {
            progress.finish();
            return leave(failure(name, *problem));
        }
        if (verbose) {
            std::fprintf(stderr, "sorvan render: route of %zu step(s) added\n", steps);
        }
    }
    if (!o.search.empty()) {
        phase = "asking the search service";
        std::size_t hits = 0;
        if (auto problem = drawSearchHits(view, o.search, *o.center, o.timeout, hits)) {
            progress.finish();
            return leave(failure(name, *problem));
        }
        if (hits == 0) {
            progress.finish();
            warn(context, "no search hits for '" + o.search + "'");
        } else if (verbose) {
            std::fprintf(stderr, "sorvan render: %zu search hit(s) added\n", hits);
        }
    }

    if (o.tags) {
        std::shared_ptr<SMTagOptions> options;
        if (o.tagRange || tagIcon) {
            options = SMTagOptions::create();
            if (o.tagRange) {
                auto [lo, hi] = *o.tagRange;
                options->setVisibleRange(
                    {static_cast<std::uint64_t>(lo), static_cast<std::uint64_t>(hi - lo)});
            }
            options->setIcon(tagIcon);
        }
        // Bound to the topmost layer: every tile it draws asks for its clusters.
        view->showTags(*o.tags, options);
    }
    if (o.events) {
        view->setShowsEvents(true);
    }
    if (o.cameras) {
        view->setShowsCameras(true);
    }

    phase = "placing the user";
    if (auto problem = placeUser(*view, o.user, o.timeout)) {
        return leave(failure(name, *problem));
    }

    phase = o.tags || o.events || o.cameras ? "waiting for tiles and live annotations"
                                            : "waiting for tiles";
    auto drawing = Clock::now();
    std::shared_ptr<gfx::Image> image = renderSettled(*view, o.timeout);
    progress.finish();
    if (verbose && (o.tags || o.events || o.cameras)) {
        std::fprintf(stderr,
                     "sorvan render: %zu tag(s), %zu event(s) and %zu camera(s) on the map\n",
                     tagsOf(*view).size(), eventsOf(*view).size(), camerasOf(*view).size());
    }
    if (verbose) {
        std::fprintf(stderr, "sorvan render: set up in %.1f ms, drawn in %.1f ms\n",
                     std::chrono::duration<double, std::milli>(drawing - started).count(),
                     millisecondsSince(drawing));
    }
    if (!image) {
        return failure(name, "the map could not be drawn");
    }

    std::vector<std::string> errors = logs.tileErrors();
    const TileTally::Counts counts = tiles.counts();
    const std::string missing =
        counts.failed == 0
            ? std::string()
            : strformat("%zu of %zu tile(s) came out without the picture of a layer; the first: ",
                        counts.failed, counts.loaded) +
                  counts.firstFailure;
    // The legal label alone makes a picture that is not uniform: blank means no tile drew.
    const bool blank = (counts.loaded > 0 && counts.withPicture == 0) || isUniform(*image);
    std::vector<std::string> tagErrors = logs.tagErrors();
    std::vector<std::string> eventErrors = logs.eventErrors();
    std::vector<std::string> cameraErrors = logs.cameraErrors();
    bool timedOut = millisecondsSince(drawing) >= o.timeout * 1000.0;
    if (!o.partial) {
        std::string origin = ServiceConfig::current().mapServer;
        if (timedOut) {
            const char* what =
                liveSettled() ? "tiles were" : "tiles, tags, events, cameras or icons were";
            return leave(failure(
                name, std::string(what) + " still loading after " + formatSeconds(o.timeout) +
                          " s (map service: " + origin +
                          "; a slow or hung service? raise --timeout, or use --partial to write "
                          "what arrived)"));
        }
        if (!errors.empty()) {
            return failure(name, std::to_string(errors.size()) +
                                     " tile request(s) failed; the first: " + errors.front() +
                                     "\n(map service: " + origin +
                                     "; set SORVAN_SERVICE_ORIGIN, or use --partial to write "
                                     "the picture anyway)");
        }
        if (!missing.empty()) {
            return failure(name, missing + "\n(map service: " + origin +
                                     "; use --partial to write the picture anyway)");
        }
        if (!tagErrors.empty()) {
            return failure(name,
                           std::to_string(tagErrors.size()) +
                               " cluster request(s) failed; the first: " + tagErrors.front() +
                               "\n(clustering service: " + ServiceConfig::current().clusterService +
                               "; use --partial to write the picture anyway)");
        }
        if (!eventErrors.empty()) {
            return failure(name, "the event feed failed: " + eventErrors.front() +
                                     "\n(event feed: " + ServiceConfig::current().eventFeed +
                                     "; use --partial to write the picture anyway)");
        }
        if (!cameraErrors.empty()) {
            return failure(name, "the camera feed failed: " + cameraErrors.front() +
                                     "\n(camera feed: " + ServiceConfig::current().cameraFeed +
                                     "; use --partial to write the picture anyway)");
        }
        if (blank) {
            return failure(name,
                           "the map came out blank: no layer answered with a picture "
                           "(map service: " +
                               origin +
                               "; check SORVAN_SERVICE_ORIGIN, the key and the layer "
                               "modes, or use --partial to write it anyway)");
        }
    } else {
        if (!errors.empty()) {
            warn(context, std::to_string(errors.size()) +
                              " tile request(s) failed; the first: " + errors.front());
        } else if (!missing.empty()) {
            warn(context, missing);
        }
        if (!tagErrors.empty()) {
            warn(context, std::to_string(tagErrors.size()) +
                              " cluster request(s) failed; the first: " + tagErrors.front());
        }
        if (!eventErrors.empty()) {
            warn(context, "the event feed failed: " + eventErrors.front());
        }
        if (!cameraErrors.empty()) {
            warn(context, "the camera feed failed: " + cameraErrors.front());
        }
    }
    auto writing = Clock::now();
    if (auto problem = writeOutput(*image, o)) {
        return failure(name, "cannot write the PNG to " + outputName + ": " + *problem);
    }
    if (verbose) {
        std::fprintf(stderr, "sorvan render: %s written in %.1f ms\n", outputName.c_str(),
                     millisecondsSince(writing));
    }
    return timedOut ? leave(kSuccess) : kSuccess;
}

Runner setupRender(CLI::App& app) {
    app.description(
        "Draws a map headless through SorvanMapView into a PNG, with the tiles of the\n"
        "configured Sorvan service (point SORVAN_SERVICE_ORIGIN at `sorvan serve` to work\n"
        "offline). Needs --center, --zoom, --size, --layers and -o. On a terminal, a render\n"
        "that takes a while shows its progress on stderr.");
    app.footer(layerModesHelp());
    auto o = std::make_shared<RenderOptions>();
    declareOptions(app, o);
    return [o](const Context& context) { return render(*o, context); };
}

const Command::Registration registration{
    {kName,
     "draw a map headless into a PNG (layers, WMS, templates, traffic, tags, events, cameras)",
     "a tile failed (no answer, an HTTP status other than 200, an answer that is no "
     "tile-sized picture) or timed out, cluster requests or the event feed failed, the map "
     "came out blank, the route or search failed, or the PNG could not be written",
     setupRender}};

}  // namespace
}  // namespace sorvan::cli

// `sorvan locate`: prints each position and heading a location source reports, as it comes,
// through the same location manager the kit uses.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "command.hpp"
#include "foundation/number_text.hpp"
#include "options.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/location/location_manager.hpp"
#include "sorvan/platform/location/source.hpp"

namespace sorvan::cli {
namespace {

constexpr const char* kName = "locate";

struct LocateOptions {
    std::string source;  // empty: SORVAN_LOCATION, else gpsd on localhost
    std::optional<std::int64_t> count;
    std::optional<double> timeout;
    bool json = false;
};

std::atomic<bool> gInterrupted{false};

// "2024-05-01T08:18:03Z", with milliseconds when the time has them.
std::string isoTime(location::Timestamp t) {
    auto seconds = std::chrono::floor<std::chrono::seconds>(t);
    auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(t - seconds).count();
    std::time_t whole = std::chrono::system_clock::to_time_t(seconds);
    std::tm parts{};
    gmtime_r(&whole, &parts);
    char text[40];
    std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    if (millis != 0) {
        std::snprintf(text + n, sizeof text - n, ".%03lld", static_cast<long long>(millis));
    }
    return std::string(text) + "Z";
}

// A negative value is the manager's "unknown": null in JSON.
nlohmann::ordered_json known(double value) {
    return value < 0 ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(value);
}

class Printer : public location::LocationManagerDelegate {
  public:
    Printer(const LocateOptions& options, const Context& context)
        : options_(options), context_(context) {}

    void didUpdateLocations(location::LocationManager&,
                            const std::vector<location::Location>& locations) override {
        for (const auto& l : locations) {
            if (done()) {
                return;
            }
            if (options_.json) {
                nlohmann::ordered_json j = {
                    {"latitude", l.coordinate.latitude},
                    {"longitude", l.coordinate.longitude},
                    {"altitude", l.verticalAccuracy < 0 ? nlohmann::ordered_json(nullptr)
                                                        : nlohmann::ordered_json(l.altitude)},
                    {"accuracy", l.horizontalAccuracy},
                    {"speed", known(l.speed)},
                    {"course", known(l.course)},
                    {"timestamp", isoTime(l.timestamp)},
                };
                print(j.dump());
            } else {
                print("location " + l.description());
            }
        }
    }

    void didUpdateHeading(location::LocationManager&, const location::Heading& h) override {
        if (done()) {
            return;
        }
        if (options_.json) {
            nlohmann::ordered_json j = {
                {"trueHeading", known(h.trueHeading)},
                {"magneticHeading", h.magneticHeading},
                {"headingAccuracy", h.headingAccuracy},
                {"timestamp", isoTime(h.timestamp)},
            };
            print(j.dump());
        } else {
            print("heading " + h.description());
        }
    }

    void didFailWithError(location::LocationManager&,
                          const location::LocationError& error) override {
        lastError_ = error;
        // The source retries on its own; what went wrong is news, not the end.
        warn(context_, error.description);
    }

    void didFinish(location::LocationManager&) override { finished_ = true; }

    bool done() const {
        return finished_ ||
               (options_.count && printed_ >= static_cast<std::size_t>(*options_.count));
    }
    std::size_t printed() const { return printed_; }
    std::chrono::steady_clock::time_point lastReport() const { return lastReport_; }
    const std::optional<location::LocationError>& lastError() const { return lastError_; }

  private:
    void print(const std::string& line) {
        std::fprintf(stdout, "%s\n", line.c_str());
        std::fflush(stdout);
        ++printed_;
        lastReport_ = std::chrono::steady_clock::now();
    }

    const LocateOptions& options_;
    const Context& context_;
    std::size_t printed_ = 0;
    bool finished_ = false;
    std::chrono::steady_clock::time_point lastReport_ = std::chrono::steady_clock::now();
    std::optional<location::LocationError> lastError_;
};

int locate(const LocateOptions& o, const Context& context) {
    std::string locator = o.source.empty() ? location::Source::defaultLocator() : o.source;
    std::string reason;
    std::shared_ptr<location::Source> source = location::Source::fromLocator(locator, &reason);
    if (!source) {
        return usageError(context.name, "--source: " + reason);
    }
    auto printer = std::make_shared<Printer>(o, context);
    auto manager = location::LocationManager::create(source);
    manager->setDelegate(printer);
    manager->setHeadingFilter(location::kHeadingFilterNone);
    manager->requestWhenInUseAuthorization();
    manager->startUpdatingLocation();
    manager->startUpdatingHeading();

    gInterrupted = false;
    auto previous = std::signal(SIGINT, [](int) { gInterrupted = true; });
    bool timedOut = false;
    dispatch::RunLoop::main().runUntil(
        [&] {
            if (o.timeout && std::chrono::steady_clock::now() - printer->lastReport() >
                                 std::chrono::duration<double>(*o.timeout)) {
                timedOut = true;
            }
            return printer->done() || timedOut || gInterrupted;
        },
        std::chrono::hours(24 * 365));
    std::signal(SIGINT, previous);
    // Stops the source (and joins its thread) before the answer is given.
    manager.reset();

    if (printer->printed() == 0 && printer->lastError() && !gInterrupted) {
        return failure(context.name,
                       "nothing came from " + source->description() +
                           "; the last failure: " + printer->lastError()->description);
    }
    if (timedOut && printer->printed() == 0) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g", *o.timeout);
        return failure(context.name,
                       "nothing came from " + source->description() + " in " + seconds + " s");
    }
    return kSuccess;
}

Runner setupLocate(CLI::App& app) {
    app.description(
        "Prints each position and compass heading a location source reports, as it comes:\n"
        "one line each, or one JSON object per line with --json (positions: latitude,\n"
        "longitude, altitude, accuracy, speed, course, timestamp; headings: trueHeading,\n"
        "magneticHeading, headingAccuracy, timestamp; unknown values are null). Failures of\n"
        "the source go to stderr as they come; a receiver that is away is retried. Runs\n"
        "until --count reports, the end of a replayed track, --timeout or Ctrl-C.");
    app.footer(
        "sources:\n"
        "  gpsd://HOST:PORT\n"
        "      gpsd, the GPS daemon (default gpsd://localhost:2947, or what\n"
        "      SORVAN_LOCATION says)\n"
        "  replay:FILE[?speed=N][&loop=1]\n"
        "      an NMEA log (RMC, GGA, HDT, HDG) or a GPX track, at the recorded pace\n"
        "      times N (speed=max: no pauses), over and over with loop=1\n\n"
        "examples:\n"
        "  sorvan locate --count 10\n"
        "  sorvan locate --source 'replay:drive.nmea?speed=10' --json");
    auto o = std::make_shared<LocateOptions>();
    app.add_option("--source", o->source,
                   "where positions come from (see below; default $SORVAN_LOCATION, else\n"
                   "gpsd://localhost:2947)")
        ->type_name("SOURCE");
    addInteger(app, "--count", o->count, "stop after N positions and headings", 1);
    app.add_option_function<std::string>(
           "--timeout",
           [o](const std::string& v) {
               auto t = text::parseDouble(v);
               if (!t || *t <= 0) {
                   throw CLI::ValidationError(
                       "--timeout wants a positive number of seconds, got '" + v + "'");
               }
               o->timeout = t;
           },
           "stop when nothing came for SECONDS")
        ->type_name("SECONDS");
    addJsonFlag(app, o->json, "print one JSON object per line");
    return [o](const Context& context) { return locate(*o, context); };
}

const Command::Registration registration{
    {kName, "print positions and headings from gpsd or a recorded track, as they come",
     "nothing came from the source (it failed, or --timeout passed first)", setupLocate}};

}  // namespace
}  // namespace sorvan::cli

// Options the commands share, declared on a CLI11 app. Values are read whole (no "12abc", no
// "0x1A", no "inf") and checked when the arguments are parsed: a bad one stops the parse with
// CLI::ValidationError, whose text names the option, what it wants and what it got, and the
// command exits with status 2. Each returns the option so the caller can add ->required() and
// the like. The bound variables must outlive the parse (keep them in the command's options).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sorvan/platform/map/geometry.hpp"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace sorvan::cli {

/// A decimal number in [min, max]: "--zoom wants a number from 0 to 20, got 'x'".
CLI::Option* addNumber(CLI::App& app, const std::string& names, double& into,
                       const std::string& help, double min, double max);
/// A whole number in [min, max].
CLI::Option* addInteger(CLI::App& app, const std::string& names, std::int64_t& into,
                        const std::string& help, std::int64_t min = INT64_MIN,
                        std::int64_t max = INT64_MAX);
/// The same, remembering whether it was given.
CLI::Option* addInteger(CLI::App& app, const std::string& names, std::optional<std::int64_t>& into,
                        const std::string& help, std::int64_t min = INT64_MIN,
                        std::int64_t max = INT64_MAX);
/// LAT,LON in decimal degrees, on the globe.
CLI::Option* addCoordinate(CLI::App& app, const std::string& names,
                           std::optional<map::Coordinate>& into, const std::string& help);
/// One of the given words: "--lang wants en or th, got 'fr'".
CLI::Option* addChoice(CLI::App& app, const std::string& names, std::string& into,
                       const std::vector<std::string>& choices, const std::string& help);
/// --json: "print ... as JSON" (help says what).
CLI::Option* addJsonFlag(CLI::App& app, bool& json, const std::string& help);

/// --lang en|th and --key KEY, as the service commands and render read them. The language is
/// the view's: 2 for English, anything else Thai.
struct ServiceSettings {
    std::string lang = "th";
    std::string key;  // empty: $SORVAN_KEY
    std::int64_t language() const { return lang == "en" ? 2 : 1; }
    /// The key given, else $SORVAN_KEY, else empty.
    std::string effectiveKey() const;
};
void addServiceSettings(CLI::App& app, ServiceSettings& settings, const std::string& langHelp);

}  // namespace sorvan::cli

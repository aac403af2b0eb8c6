#include "options.hpp"

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "foundation/number_text.hpp"
#include "geodesy_input.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

// The name a message uses: the long one ("-o,--output" is "--output").
std::string displayName(const std::string& names) {
    std::string longest;
    std::size_t start = 0;
    while (start <= names.size()) {
        std::size_t comma = names.find(',', start);
        std::string name = names.substr(start, comma - start);
        if (name.size() > longest.size()) {
            longest = name;
        }
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
    return longest;
}

std::string shortest(double v) {
    return strformat("%g", v);
}

std::string rangeText(std::int64_t min, std::int64_t max) {
    if (min == INT64_MIN && max == INT64_MAX) {
        return "";
    }
    if (max == INT64_MAX) {
        return " from " + std::to_string(min);
    }
    if (min == INT64_MIN) {
        return " up to " + std::to_string(max);
    }
    return " from " + std::to_string(min) + " to " + std::to_string(max);
}

std::int64_t readInteger(const std::string& name, const std::string& text, std::int64_t min,
                         std::int64_t max) {
    auto value = text::parseInteger(text, min, max);
    if (!value) {
        throw CLI::ValidationError(name + " wants a whole number" + rangeText(min, max) +
                                   ", got '" + text + "'");
    }
    return *value;
}

}  // namespace

CLI::Option* addNumber(CLI::App& app, const std::string& names, double& into,
                       const std::string& help, double min, double max) {
    std::string name = displayName(names);
    return app
        .add_option_function<std::string>(
            names,
            [&into, name, min, max](const std::string& text) {
                auto value = text::parseDouble(text);
                if (!value || *value < min || *value > max) {
                    throw CLI::ValidationError(name + " wants a number from " + shortest(min) +
                                               " to " + shortest(max) + ", got '" + text + "'");
                }
                into = *value;
            },
            help)
        ->type_name("N");
}

CLI::Option* addInteger(CLI::App& app, const std::string& names, std::int64_t& into,
                        const std::string& help, std::int64_t min, std::int64_t max) {
    std::string name = displayName(names);
    return app
        .add_option_function<std::string>(
            names,
            [&into, name, min, max](const std::string& text) {
                into = readInteger(name, text, min, max);
            },
            help)
        ->type_name("N");
}

CLI::Option* addInteger(CLI::App& app, const std::string& names, std::optional<std::int64_t>& into,
                        const std::string& help, std::int64_t min, std::int64_t max) {
    std::string name = displayName(names);
    return app
        .add_option_function<std::string>(
            names,
            [&into, name, min, max](const std::string& text) {
                into = readInteger(name, text, min, max);
            },
            help)
        ->type_name("N");
}

CLI::Option* addCoordinate(CLI::App& app, const std::string& names,
                           std::optional<map::Coordinate>& into, const std::string& help) {
    std::string name = displayName(names);
    return app
        .add_option_function<std::string>(
            names,
            [&into, name](const std::string& text) {
                std::string error;
                into = parseCoordinate(text, error);
                if (!into) {
                    throw CLI::ValidationError(name + ": " + error);
                }
            },
            help)
        ->type_name("LAT,LON");
}

CLI::Option* addChoice(CLI::App& app, const std::string& names, std::string& into,
                       const std::vector<std::string>& choices, const std::string& help) {
    std::string name = displayName(names);
    std::string listed;
    for (std::size_t i = 0; i < choices.size(); ++i) {
        listed += (i == 0 ? "" : i + 1 == choices.size() ? " or " : ", ") + choices[i];
    }
    std::string typeName;
    for (const auto& choice : choices) {
        typeName += (typeName.empty() ? "" : "|") + choice;
    }
    return app
        .add_option_function<std::string>(
            names,
            [&into, name, choices, listed](const std::string& text) {
                for (const auto& choice : choices) {
                    if (text == choice) {
                        into = text;
                        return;
                    }
                }
                throw CLI::ValidationError(name + " wants " + listed + ", got '" + text + "'");
            },
            help)
        ->type_name(typeName);
}

CLI::Option* addJsonFlag(CLI::App& app, bool& json, const std::string& help) {
    return app.add_flag("--json", json, help);
}

std::string ServiceSettings::effectiveKey() const {
    if (!key.empty()) {
        return key;
    }
    const char* env = std::getenv("SORVAN_KEY");
    return env ? env : "";
}

void addServiceSettings(CLI::App& app, ServiceSettings& settings, const std::string& langHelp) {
    addChoice(app, "--lang", settings.lang, {"en", "th"}, langHelp);
    app.add_option("--key", settings.key, "the service key (default: $SORVAN_KEY)")
        ->type_name("KEY");
}

}  // namespace sorvan::cli

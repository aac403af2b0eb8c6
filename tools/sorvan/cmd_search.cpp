// `sorvan search`: keyword search on the search service, as a table or as JSON.
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "command.hpp"
#include "geodesy_input.hpp"
#include "service_cli.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

constexpr const char* kName = "search";

void printSearchHelp() {
    std::printf(
        "usage: sorvan search KEYWORD [--near LAT,LON] [--span S] [--offset N] [--limit N]\n"
        "                     [--lang en|th] [--key KEY] [--json]\n\n"
        "Searches places by keyword (Thai or English) and prints one row per hit: name, type,\n"
        "position, address and the place's id.\n\n"
        "options:\n"
        "  --near LAT,LON  search around this position\n"
        "  --span S        how far around it, as the service reads it (5km, 500m)\n"
        "  --offset N      skip the first N hits\n"
        "  --limit N       at most N hits (default 10 with any of these options)\n"
        "  --lang en|th    language of names and addresses (default th)\n"
        "  --key KEY       the service key (default: $SORVAN_KEY)\n"
        "  --json          print a JSON array of pins (poiid, name, address, type, latitude,\n"
        "                  longitude) instead of a table\n"
        "  -h, --help      show this help\n\n"
        "Any of --near, --span, --offset or --limit sends the search with options; without\n"
        "--near the map's centre (%.4f,%.4f) is the position. With none of them only the\n"
        "keyword is sent and the service ranks by name. A keyword with \"&\" is cut there.\n",
        kToolMapCenter.latitude, kToolMapCenter.longitude);
}

nlohmann::ordered_json orNull(const std::optional<std::string>& text) {
    return text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json(nullptr);
}

void printPins(const services::Pins& pins, bool json) {
    if (json) {
        auto out = nlohmann::ordered_json::array();
        for (const auto& pin : pins) {
            out.push_back({{"poiid", orNull(pin->poiid())},
                           {"name", orNull(pin->name())},
                           {"address", orNull(pin->address())},
                           {"type", orNull(pin->type())},
                           {"latitude", pin->coordinate().latitude},
                           {"longitude", pin->coordinate().longitude}});
        }
        std::printf("%s\n", out.dump(2).c_str());
        return;
    }
    if (pins.empty()) {
        std::printf("no places found\n");
        return;
    }
    Table table({"#", "NAME", "TYPE", "LATITUDE", "LONGITUDE", "ADDRESS", "POIID"});
    table.setNumeric({0, 3, 4});
    for (std::size_t i = 0; i < pins.size(); ++i) {
        const auto& pin = *pins[i];
        table.add({std::to_string(i + 1), pin.name().value_or(""), pin.type().value_or(""),
                   strformat("%.6f", pin.coordinate().latitude),
                   strformat("%.6f", pin.coordinate().longitude), pin.address().value_or(""),
                   pin.poiid().value_or("")});
    }
    table.print();
}

int runSearch(const std::vector<std::string>& args) {
    ServiceOptions common;
    std::optional<std::string> keyword;
    std::shared_ptr<SMSearchOptions> options;
    auto withOptions = [&] {
        if (!options) {
            options = std::make_shared<SMSearchOptions>();
        }
        return options;
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-h" || arg == "--help") {
            printSearchHelp();
            return 0;
        }
        int taken = takeServiceOption(kName, args, i, common);
        if (taken < 0) {
            return 2;
        }
        if (taken > 0) {
            i += taken - 1;
            continue;
        }
        auto is = [&](const char* name) {
            return arg == name || arg.rfind(std::string(name) + "=", 0) == 0;
        };
        if (is("--near") || is("--span") || is("--offset") || is("--limit")) {
            std::string name = arg.substr(0, arg.find('='));
            auto value = optionValue(args, i, name);
            if (!value) {
                return usageError(kName, name + " needs a value");
            }
            if (name == "--near") {
                std::string error;
                auto at = parseCoordinate(*value, error);
                if (!at) {
                    return usageError(kName, error);
                }
                withOptions()->setLocation(*at);
            } else if (name == "--span") {
                withOptions()->setSpan(*value);
            } else {
                auto n = parseInteger(*value);
                if (!n) {
                    return usageError(kName, name + " takes a whole number, got '" + *value + "'");
                }
                name == "--offset" ? withOptions()->setOffset(*n) : withOptions()->setLimit(*n);
            }
        } else if (looksLikeOption(arg)) {
            return usageError(kName, "unknown option '" + arg + "'");
        } else if (!keyword) {
            keyword = arg;
        } else {
            return usageError(kName, "one KEYWORD only (quote a keyword with spaces)");
        }
    }
    if (!keyword) {
        return usageError(kName, "a KEYWORD is required");
    }

    auto view = serviceView(common);
    auto answer = awaitAnswer<std::optional<services::Pins>>(
        [&](auto block) { view->searchKeyword(*keyword, options, std::move(block)); });
    if (!answer) {
        return failure(kName, "no answer from the search service");
    }
    if (answer->error || !answer->value) {
        return failure(kName, answer->error ? answer->error->localizedDescription : "no result");
    }
    printPins(*answer->value, common.json);
    return 0;
}

const Command::Registration registration{Command{
    kName, "search places by keyword (Thai or English), near a position if given", runSearch}};

}  // namespace
}  // namespace sorvan::cli

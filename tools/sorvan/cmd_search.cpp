// `sorvan search`: keyword search on the search service, as a table or as JSON.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "command.hpp"
#include "options.hpp"
#include "service_cli.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

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

struct SearchOptions {
    ServiceSettings service;
    std::string keyword;
    std::optional<map::Coordinate> near;
    std::optional<std::string> span;
    std::optional<std::int64_t> offset, limit;
    bool json = false;
};

Runner setupSearch(CLI::App& app) {
    app.description(strformat(
        "Searches places by keyword (Thai or English) and prints one row per hit: name, type,\n"
        "position, address and the place's id.\n\n"
        "Any of --near, --span, --offset or --limit sends the search with options; without\n"
        "--near the map's centre (%.4f,%.4f) is the position. With none of them only the\n"
        "keyword is sent and the service ranks by name. A keyword with \"&\" is cut there.",
        kToolMapCenter.latitude, kToolMapCenter.longitude));
    auto o = std::make_shared<SearchOptions>();
    app.add_option("KEYWORD", o->keyword, "what to look for (quote a keyword with spaces)")
        ->required();
    addCoordinate(app, "--near", o->near, "search around this position");
    app.add_option_function<std::string>(
           "--span", [o](const std::string& span) { o->span = span; },
           "how far around it, as the service reads it (5km, 500m)")
        ->type_name("S");
    addInteger(app, "--offset", o->offset, "skip the first N hits");
    addInteger(app, "--limit", o->limit, "at most N hits (default 10 with any of these options)");
    addServiceSettings(app, o->service, "language of names and addresses (default th)");
    addJsonFlag(app, o->json,
                "print a JSON array of pins (poiid, name, address, type, latitude, longitude)\n"
                "instead of a table");
    return [o](const Context& context) -> int {
        std::shared_ptr<SMSearchOptions> options;
        if (o->near || o->span || o->offset || o->limit) {
            options = std::make_shared<SMSearchOptions>();
            if (o->near) {
                options->setLocation(*o->near);
            }
            if (o->span) {
                options->setSpan(*o->span);
            }
            if (o->offset) {
                options->setOffset(*o->offset);
            }
            if (o->limit) {
                options->setLimit(*o->limit);
            }
        }
        auto view = serviceView(o->service);
        CallWatch watch({"searchWithKeyword Error"});
        auto answer = awaitAnswer<std::optional<services::Pins>>(
            [&](auto block) { view->searchKeyword(o->keyword, options, std::move(block)); });
        if (!answer) {
            return failure(context.name, "no answer from the search service");
        }
        if (auto problem = watch.problem("search", answer->error, answer->value.has_value())) {
            return failure(context.name, *problem);
        }
        printPins(*answer->value, o->json);
        return kSuccess;
    };
}

const Command::Registration registration{
    {"search", "search places by keyword (Thai or English), near a position if given",
     kServiceFailures, setupSearch}};

}  // namespace
}  // namespace sorvan::cli

// `sorvan events`: the live traffic incidents as a map view holds them after one load of the
// event feed; a table or JSON.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "SorvanMapSDK/SMEventAnnotation.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "command.hpp"
#include "live_annotations.hpp"
#include "options.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {
namespace {

struct EventsOptions {
    std::string lang = "th";
    double timeout = 60;
    bool json = false;
};

Runner setupEvents(CLI::App& app) {
    app.description(
        "Loads the traffic event feed once into a map view and prints its incidents as the\n"
        "view holds them, in the feed's order: id, icon, severity, the zoom from which it\n"
        "shows, its type code, start and stop in this computer's time zone (- when the feed\n"
        "gives none), position, who reported it, title and description. The feed needs no\n"
        "key.");
    auto o = std::make_shared<EventsOptions>();
    addChoice(app, "--lang", o->lang, {"en", "th"},
              "language of titles and descriptions (default th)");
    addNumber(app, "--timeout", o->timeout,
              "how long to wait for the feed, in seconds (default 60)", 0.1, 3600);
    addJsonFlag(app, o->json,
                "print a JSON array of events (eventId, eventTitle, eventDescription,\n"
                "iconName, start, stop, contributor, severity, showlevel, type, latitude,\n"
                "longitude; start and stop as \"yyyy-MM-dd HH:mm:ss\" or null)");
    return [o](const Context& context) -> int {
        LiveFailures failures;
        auto view = SorvanMapView::create({0, 0, 800, 600});
        view->setLanguage(o->lang == "en" ? 2 : 1);
        view->loadEvent();
        dispatch::RunLoop::main().runUntil([] { return liveSettled(); },
                                           dispatch::Duration(o->timeout));
        if (!liveSettled()) {
            return failure(context.name, "the event feed did not answer within " +
                                             strformat("%g", o->timeout) + " s (" +
                                             ServiceConfig::current().eventFeed + ")");
        }
        if (auto first = failures.firstEventError()) {
            return failure(context.name, "the event feed failed: " + *first);
        }
        auto events = eventsOf(*view);
        if (o->json) {
            std::printf("%s\n", eventsJSON(events).dump(2).c_str());
        } else {
            printEventTable(events);
        }
        return kSuccess;
    };
}

const Command::Registration registration{
    {"events", "list the live traffic incidents of the event feed",
     "the event feed failed or did not answer in time", setupEvents}};

}  // namespace
}  // namespace sorvan::cli

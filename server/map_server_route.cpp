#include <optional>

#include "foundation/number_text.hpp"
#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"
#include "tile_cache.hpp"
#include "tile_painter.hpp"

namespace sorvan::server {

namespace {

// The query-driven faults of the other tile paths work here too: "status=N" answers N,
// "delay=S" waits S seconds first, "garbage=1" answers 200 with bytes that are no picture;
// and "stamp=1" writes the tile's "mode z/x/y" on it.
// The delay is the answer's own, so that no worker sleeps through it and stopping ends it.
double queryDelay(const Request& request) {
    if (auto delay = request.queryItem("delay")) {
        auto seconds = text::parseDouble(*delay);
        if (seconds && *seconds > 0 && *seconds <= 600) {
            return *seconds;
        }
    }
    return 0;
}

std::optional<Response> queryFault(const Request& request) {
    if (auto status = request.queryItem("status")) {
        if (auto code = text::parseInteger(*status, 100, 599)) {
            return Response::text(static_cast<int>(*code), "status on request\n");
        }
    }
    if (request.queryItem("garbage")) {
        return Response::png("this is no picture");
    }
    return std::nullopt;
}

}  // namespace

bool wantsStamp(const Request& request, const EmbeddedService* service) {
    return request.queryItem("stamp") == "1" || (service != nullptr && service->stampTiles());
}

Handler mapServerTileHandler(const EmbeddedService* service) {
    auto answer = [service](const Request& request) {
        if (auto fault = queryFault(request)) {
            return *fault;
        }
        auto address = parseTileQuery(request.query);
        if (!address) {
            return Response::text(400, "bad tile address: " + request.query);
        }
        auto bytes = tilePNG(address->mode, address->z, address->x, address->y,
                             wantsStamp(request, service));
        if (!bytes) {
            return Response::text(500, "tile could not be painted");
        }
        return Response::png(*bytes);
    };
    return [answer](const Request& request) {
        Response response = answer(request);
        response.delaySeconds = queryDelay(request);
        return response;
    };
}

void installMapServerRoutes(EmbeddedService& service) {
    // The default and partner map servers, the traffic server and customer box domains all
    // end their path in the same script name.
    for (const char* prefix : {"/map/msn-server/img.php", "/partner/map/msn-server/img.php",
                               "/traffic/map/msn-server/img.php", "/box/map/msn-server/img.php"}) {
        service.route(prefix, mapServerTileHandler(&service));
    }
}

}  // namespace sorvan::server

#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"
#include "tile_cache.hpp"
#include "tile_painter.hpp"

namespace sorvan::server {

Handler mapServerTileHandler() {
    return [](const Request& request) {
        auto address = parseTileQuery(request.query);
        if (!address) {
            return Response::text(400, "bad tile address: " + request.query);
        }
        auto bytes = tilePNG(address->mode, address->z, address->x, address->y);
        if (!bytes) {
            return Response::text(500, "tile could not be painted");
        }
        return Response::png(*bytes);
    };
}

void installMapServerRoutes(EmbeddedService& service) {
    // The default and partner map servers, the traffic server and customer box domains all
    // end their path in the same script name.
    for (const char* prefix : {"/map/msn-server/img.php", "/partner/map/msn-server/img.php",
                               "/traffic/map/msn-server/img.php", "/box/map/msn-server/img.php"}) {
        service.route(prefix, mapServerTileHandler());
    }
}

}  // namespace sorvan::server

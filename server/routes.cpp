#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"
#include "sorvan/server/live_streams.hpp"

namespace sorvan::server {

void installBuiltinRoutes(EmbeddedService& service) {
    // Each service's routes live in a file of their own; add one line per service here.
    installTileRoutes(service);
    installTermsRoutes(service);
    // After the tile routes: the map-server script's paths (partner and traffic included) are
    // answered by the map painter.
    installMapServerRoutes(service);
    installSearchRoutes(service);
    installRoutingRoutes(service);
    installLiveRoutes(service);
    installClusterRoutes(service);
    installEventRoutes(service);
    installIconRoutes(service);
    installCameraRoutes(service);
}

}  // namespace sorvan::server

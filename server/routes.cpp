#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {

void installBuiltinRoutes(EmbeddedService& service) {
    // Each service's routes live in a file of their own; add one line per service here.
    installTileRoutes(service);
    installTermsRoutes(service);
}

}  // namespace sorvan::server

// The traffic event feed: "/feed/json", the incidents live at the service's clock.
#include "event_feed.hpp"
#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {

void installEventRoutes(EmbeddedService& service) {
    // The service outlives its routes, so the handler may hold it by reference.
    service.route("/feed/json", [&service](const Request&) {
        return Response::json(eventFeedJSON(service.now()));
    });
}

}  // namespace sorvan::server

// Installers of the embedded service's routes, one per emulated web service.
#pragma once

namespace sorvan::server {

class EmbeddedService;

/// Map-server tiles: "/map/msn-server/img.php", and the same script under "/partner",
/// "/traffic" and "/box" (for box-domain tests).
void installMapServerRoutes(EmbeddedService& service);

}  // namespace sorvan::server

// Installers of the embedded service's routes, one per emulated web service.
#pragma once

namespace sorvan::server {

class EmbeddedService;

}  // namespace sorvan::server

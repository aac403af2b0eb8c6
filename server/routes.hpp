// Installers of the embedded service's routes, one per emulated web service.
#pragma once

namespace sorvan::server {

class EmbeddedService;

/// "/terms": the terms-of-use page of the map service, in Thai and English.
void installTermsRoutes(EmbeddedService& service);

}  // namespace sorvan::server

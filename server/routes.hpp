// Installers of the embedded service's routes, one per emulated web service.
#pragma once

namespace sorvan::server {

class EmbeddedService;

/// "/terms": the terms-of-use page of the map service, in Thai and English.
void installTermsRoutes(EmbeddedService& service);
/// "/mapsearch/json/search" and "/mapsearch/json/suggest" over the built-in places.
void installSearchRoutes(EmbeddedService& service);
/// "/tvroute/json/route/guide" and "/tvroute/json/route/path" over the built-in roads.
void installRoutingRoutes(EmbeddedService& service);

}  // namespace sorvan::server

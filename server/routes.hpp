// Installers of the embedded service's routes, one per emulated web service.
#pragma once

namespace sorvan::server {

class EmbeddedService;

/// WMS GetMap ("/wms"), {z}/{x}/{y} ("/tiles/", "/overlay/") and TMS ("/tms/") templates, data
/// tiles ("/data/"), and the partner and traffic map-server paths
/// ("/partner/map/msn-server/img.php", "/traffic/map/msn-server/img.php").
void installTileRoutes(EmbeddedService& service);

/// "/terms": the terms-of-use page of the map service, in Thai and English.
void installTermsRoutes(EmbeddedService& service);

}  // namespace sorvan::server

// Installers of the embedded service's routes, one per emulated web service.
#pragma once

namespace sorvan::server {

class EmbeddedService;

/// WMS GetMap ("/wms", LAYERS = a map style), {z}/{x}/{y} ("/tiles/" normal, "/overlay/"
/// icons) and TMS ("/tms/") templates, and data tiles ("/data/", a small JSON echo).
void installTileRoutes(EmbeddedService& service);
/// "/terms": the terms-of-use page of the map service, in Thai and English.
void installTermsRoutes(EmbeddedService& service);
/// Map-server tiles: "/map/msn-server/img.php", and the same script under "/partner",
/// "/traffic" and "/box" (for box-domain tests).
void installMapServerRoutes(EmbeddedService& service);
/// "/mapsearch/json/search" and "/mapsearch/json/suggest" over the built-in places.
void installSearchRoutes(EmbeddedService& service);
/// "/tvroute/json/route/guide" and "/tvroute/json/route/path" over the built-in roads.
void installRoutingRoutes(EmbeddedService& service);
/// "/ClusterService/json/cluster/epsg3857/{z}/{index}/{lang}": the catalogue's places matching
/// the requested tags, clustered per tile.
void installClusterRoutes(EmbeddedService& service);
/// "/feed/json": the live traffic incidents at the service's clock.
void installEventRoutes(EmbeddedService& service);
/// "/camera.json", the cameras' pictures under "/cctv/" and the sponsor banners under
/// "/feed/images/".
void installCameraRoutes(EmbeddedService& service);
/// Map icons "/tvmap/images/icons{,_2x,_3x}/NAME.png" and traffic signs
/// "/sites/all/modules/traffic/images/icon_NAME-l.png".
void installIconRoutes(EmbeddedService& service);

}  // namespace sorvan::server

// Addresses of every web service the kit calls. Defaults are the Sorvan service's public
// origins; SORVAN_SERVICE_ORIGIN (scheme://host[:port]) points all of them at one origin,
// keeping each service's path, so the kit runs against the embedded service offline.
//
// The process has one configuration in force. Every service reads it when it forms a request
// (tile layers, traffic tiles, search, suggest, routing, the terms page and the rest), so a
// configuration set at any time, before or after setKey, reaches the next request; requests
// already formed keep the addresses they were formed with. A view's boxDomain still wins over
// the configured addresses where the services take it.
//
//   sorvan::ServiceConfig config = sorvan::ServiceConfig::current();
//   config.searchService = "https://search.example.org";
//   sorvan::ServiceConfig::setCurrent(config);
//   // or, for one origin serving everything:
//   sorvan::ServiceConfig::setCurrent(sorvan::ServiceConfig{}.pointedAt("http://10.0.0.5:8080"));
//
// Thread-safe: current() returns a copy; setCurrent() and update() replace it atomically.
#pragma once

#include <functional>
#include <string>

#include "sorvan/platform/export.hpp"

namespace sorvan {

struct SORVAN_EXPORT ServiceConfig {
    /// Map-server tiles (path ends in "map/msn-server/img.php").
    std::string mapServer = "https://ms.sorvanmap.co.th/map/msn-server/img.php";
    /// The partner map server, plain http (layer mode 14).
    std::string partnerMapServer = "http://partner.sorvanmap.co.th/partner/map/msn-server/img.php";
    /// The traffic tile service (layer mode 16); empty = not configured.
    std::string trafficServer = "https://traffic.sorvanmap.co.th/traffic/map/msn-server/img.php";
    /// Host looked up (and ignored) before each network tile request.
    std::string publicWebHost = "www.sorvanmap.co.th";
    std::string searchService = "https://search.sorvanmap.co.th";
    std::string routeService = "https://ms.sorvanmap.co.th";
    std::string clusterService = "https://ms.sorvanmap.co.th";
    std::string iconService = "https://ms.sorvanmap.co.th";
    std::string trafficIconService = "https://traffic.sorvanmap.co.th";
    std::string eventFeed = "https://event.sorvanmap.co.th/feed/json";
    std::string cameraFeed = "https://camera.sorvanmap.co.th/camera.json";
    std::string cameraImageServer = "https://cctv.sorvanmap.co.th";
    std::string termsPage = "https://www.sorvanmap.co.th/terms";
    /// The customer box domain for which no legal label is shown.
    std::string alternativeMapService = "https://map.tervane.co.th";

    /// The defaults with SORVAN_SERVICE_ORIGIN applied when it is set.
    static ServiceConfig fromEnvironment();
    /// Every address moved to origin (scheme, host, port), paths kept; the web host too.
    ServiceConfig pointedAt(const std::string& origin) const;

    /// The configuration in force (fromEnvironment() until one is set).
    static ServiceConfig current();
    /// Puts config in force for every request formed from now on.
    static void setCurrent(ServiceConfig config);
    /// Changes the configuration in force in place; concurrent updates are not lost.
    /// change runs under the configuration's lock: it must not call back into ServiceConfig.
    static void update(const std::function<void(ServiceConfig&)>& change);
};

}  // namespace sorvan

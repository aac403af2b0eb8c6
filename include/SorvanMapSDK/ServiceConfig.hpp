// Addresses of every web service the kit calls. Defaults are the Sorvan service's public
// origins; SORVAN_SERVICE_ORIGIN (scheme://host[:port]) points all of them at one origin,
// keeping each service's path, so the kit runs against the embedded service offline.
// Thread-safe: current() returns a copy; setCurrent() replaces it atomically.
#pragma once

#include <string>

namespace sorvan {

struct ServiceConfig {
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

    /// The process's configuration (fromEnvironment() until set).
    static ServiceConfig current();
    static void setCurrent(ServiceConfig config);
};

}  // namespace sorvan

#include "SorvanMapSDK/ServiceConfig.hpp"

#include <cstdlib>
#include <mutex>
#include <optional>

namespace sorvan {
namespace {

std::mutex gMutex;
std::optional<ServiceConfig> gCurrent;

// Replaces scheme://host[:port] of address with origin and keeps the rest.
std::string moveToOrigin(const std::string& address, const std::string& origin) {
    if (address.empty()) {
        return address;
    }
    auto schemeEnd = address.find("://");
    if (schemeEnd == std::string::npos) {
        return address;
    }
    auto pathStart = address.find('/', schemeEnd + 3);
    std::string rest = pathStart == std::string::npos ? "" : address.substr(pathStart);
    std::string base = origin;
    while (!base.empty() && base.back() == '/') {
        base.pop_back();
    }
    return base + rest;
}

std::string hostOf(const std::string& origin) {
    auto schemeEnd = origin.find("://");
    std::string rest = schemeEnd == std::string::npos ? origin : origin.substr(schemeEnd + 3);
    auto end = rest.find_first_of(":/");
    return end == std::string::npos ? rest : rest.substr(0, end);
}

}  // namespace

ServiceConfig ServiceConfig::pointedAt(const std::string& origin) const {
    ServiceConfig c = *this;
    for (std::string* s :
         {&c.mapServer, &c.partnerMapServer, &c.trafficServer, &c.searchService, &c.routeService,
          &c.clusterService, &c.iconService, &c.trafficIconService, &c.eventFeed, &c.cameraFeed,
          &c.cameraImageServer, &c.termsPage}) {
        *s = moveToOrigin(*s, origin);
    }
    c.publicWebHost = hostOf(origin);
    return c;
}

ServiceConfig ServiceConfig::fromEnvironment() {
    ServiceConfig c;
    if (const char* origin = std::getenv("SORVAN_SERVICE_ORIGIN"); origin && *origin) {
        c = c.pointedAt(origin);
    }
    return c;
}

ServiceConfig ServiceConfig::current() {
    std::lock_guard lock(gMutex);
    if (!gCurrent) {
        gCurrent = fromEnvironment();
    }
    return *gCurrent;
}

void ServiceConfig::setCurrent(ServiceConfig config) {
    std::lock_guard lock(gMutex);
    gCurrent = std::move(config);
}

void ServiceConfig::update(const std::function<void(ServiceConfig&)>& change) {
    std::lock_guard lock(gMutex);
    if (!gCurrent) {
        gCurrent = fromEnvironment();
    }
    change(*gCurrent);
}

}  // namespace sorvan

#include "mapview/globals.hpp"

#include <mutex>

#include "SorvanMapSDK/SMTileOverlayRenderer.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "sorvan/platform/ui/controls.hpp"
#include "tags/tag_registry.hpp"

namespace sorvan::globals {
namespace {

struct State {
    std::string apikey;
    std::optional<net::URL> boxDomain;
    // A view made in code starts as one loaded from a layout description does, with the disk
    // cache off: an application then caches the same way however it builds its view, 2 is the
    // only mode the kit ever chooses by itself, and writing up to ten thousand tiles to the
    // user's disk stays a decision the host makes with setCache.
    std::int64_t cache = 2;
    std::int32_t currentZoom = 0;
    double currentHeading = 0;
    std::shared_ptr<ui::Button> legalLabel;
    std::shared_ptr<dispatch::Timer> trafficTimer;
    bool isTrafficShowed = false;
    std::shared_ptr<dispatch::Timer> eventTimer;
    std::shared_ptr<SMTileOverlayRenderer> tagOverlay;
    std::shared_ptr<tags::TagRegistry> pathOnMap = std::make_shared<tags::TagRegistry>();
};

std::mutex gMutex;
State& state() {
    static State s;
    return s;
}

// The two service addresses are the configuration itself, not a copy taken when the first
// setting was touched: a configuration the host sets later reaches the next tile all the same.
std::optional<net::URL> configuredURL(std::string ServiceConfig::*field) {
    std::string address = ServiceConfig::current().*field;
    if (address.empty()) {
        return std::nullopt;
    }
    return net::URL::fromString(address);
}

void configureURL(std::string ServiceConfig::*field, const std::optional<net::URL>& url) {
    ServiceConfig::update([&](ServiceConfig& config) {
        config.*field = url ? url->absoluteString() : std::string();
    });
}

template <typename T>
T get(T State::*field) {
    std::lock_guard lock(gMutex);
    return state().*field;
}

// The value replaced is released after the lock: a renderer or timer going away must not run
// its destructor under it.
template <typename T>
void set(T State::*field, T value) {
    {
        std::lock_guard lock(gMutex);
        std::swap(state().*field, value);
    }
}

}  // namespace

std::string apikey() {
    return get(&State::apikey);
}
void setApikey(std::string key) {
    set(&State::apikey, std::move(key));
}
std::optional<net::URL> boxDomain() {
    return get(&State::boxDomain);
}
void setBoxDomain(std::optional<net::URL> d) {
    set(&State::boxDomain, std::move(d));
}
std::int64_t cache() {
    return get(&State::cache);
}
void setCache(std::int64_t mode) {
    set(&State::cache, mode);
}
std::int32_t currentZoom() {
    return get(&State::currentZoom);
}
void setCurrentZoom(std::int32_t zoom) {
    set(&State::currentZoom, zoom);
}
double currentHeading() {
    return get(&State::currentHeading);
}
void setCurrentHeading(double heading) {
    set(&State::currentHeading, heading);
}
std::optional<net::URL> layerServer() {
    return configuredURL(&ServiceConfig::mapServer);
}
void setLayerServer(std::optional<net::URL> url) {
    configureURL(&ServiceConfig::mapServer, url);
}
std::optional<net::URL> trafficServer() {
    return configuredURL(&ServiceConfig::trafficServer);
}
void setTrafficServer(std::optional<net::URL> url) {
    configureURL(&ServiceConfig::trafficServer, url);
}
std::shared_ptr<ui::Button> legalLabel() {
    return get(&State::legalLabel);
}
void setLegalLabel(std::shared_ptr<ui::Button> l) {
    set(&State::legalLabel, std::move(l));
}
std::shared_ptr<dispatch::Timer> trafficTimer() {
    return get(&State::trafficTimer);
}
void setTrafficTimer(std::shared_ptr<dispatch::Timer> t) {
    set(&State::trafficTimer, std::move(t));
}
bool isTrafficShowed() {
    return get(&State::isTrafficShowed);
}
void setIsTrafficShowed(bool shown) {
    set(&State::isTrafficShowed, shown);
}
std::shared_ptr<dispatch::Timer> eventTimer() {
    return get(&State::eventTimer);
}
void setEventTimer(std::shared_ptr<dispatch::Timer> t) {
    set(&State::eventTimer, std::move(t));
}

std::shared_ptr<SMTileOverlayRenderer> tagOverlay() {
    return get(&State::tagOverlay);
}
void setTagOverlay(std::shared_ptr<SMTileOverlayRenderer> renderer) {
    set(&State::tagOverlay, std::move(renderer));
}
std::shared_ptr<tags::TagRegistry> pathOnMap() {
    return get(&State::pathOnMap);
}
void resetPathOnMap() {
    set(&State::pathOnMap, std::make_shared<tags::TagRegistry>());
}

void resetForTesting() {
    std::lock_guard lock(gMutex);
    state() = State{};
}

}  // namespace sorvan::globals

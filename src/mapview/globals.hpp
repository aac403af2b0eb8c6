// The process-wide settings every map view shares, under the names the kit has always used.
// One guarded place: every accessor takes the lock, so tile threads, the session queue and
// the main queue may read and write them. resetForTesting() restores the initial values.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/url.hpp"

namespace sorvan::ui {
class Button;
}
namespace sorvan {
class SMTileOverlayRenderer;
}
namespace sorvan::tags {
class TagRegistry;
}

namespace sorvan::globals {

std::string apikey();
void setApikey(std::string key);

/// The box domain handed to tile overlays (distinct from a view's boxDomain property).
std::optional<net::URL> boxDomain();
void setBoxDomain(std::optional<net::URL> domain);

std::int64_t cache();
void setCache(std::int64_t mode);

std::int32_t currentZoom();
void setCurrentZoom(std::int32_t zoom);

double currentHeading();
void setCurrentHeading(double heading);

/// Base address of the tile layer service: ServiceConfig::current().mapServer, read on every
/// call; setting it changes the current configuration.
std::optional<net::URL> layerServer();
void setLayerServer(std::optional<net::URL> url);
/// Base address of the traffic tile service: ServiceConfig::current().trafficServer, read on
/// every call; unset (or empty) = traffic tiles get no picture.
std::optional<net::URL> trafficServer();
void setTrafficServer(std::optional<net::URL> url);

std::shared_ptr<ui::Button> legalLabel();
void setLegalLabel(std::shared_ptr<ui::Button> label);

std::shared_ptr<dispatch::Timer> trafficTimer();
void setTrafficTimer(std::shared_ptr<dispatch::Timer> timer);
bool isTrafficShowed();
void setIsTrafficShowed(bool shown);

std::shared_ptr<dispatch::Timer> eventTimer();
void setEventTimer(std::shared_ptr<dispatch::Timer> timer);

/// The one renderer bound to tags, or nullptr while no tags are shown.
std::shared_ptr<SMTileOverlayRenderer> tagOverlay();
void setTagOverlay(std::shared_ptr<SMTileOverlayRenderer> renderer);

/// The registry of tags already delivered. One at a time for the whole process: replaced by
/// an empty one whenever a tile renderer is made or reloaded.
std::shared_ptr<tags::TagRegistry> pathOnMap();
void resetPathOnMap();

/// Restores every value above to its initial state (the layer and traffic servers belong to
/// the ServiceConfig and are left alone).
void resetForTesting();

}  // namespace sorvan::globals

// Building, stacking, refreshing and removing the map view's tile overlays, and the legal
// label's visibility that follows them. Main queue only.
#include <algorithm>
#include <any>

#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/SMTileOverlayRenderer.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "sorvan/platform/map/overlay_renderer.hpp"

namespace sorvan {
namespace {

constexpr std::int64_t kTraffic = SMLayerModeTraffic;
constexpr std::int64_t kWhiteBackground = SMLayerModeWhiteBackground;
constexpr std::int64_t kNone = SMLayerModeNone;
constexpr std::int64_t kServerLayer = SMLayerModeServerLayer;
constexpr std::int64_t kCustom = SMLayerModeCustom;
constexpr std::int64_t kDataFormat = SMTileFormatData;
constexpr dispatch::Duration kTrafficRefreshInterval{180.0};
constexpr gfx::Color kRouteColor{0.0, 0.40, 0.95, 0.80};
constexpr double kRouteLineWidth = 5.0;

template <typename T>
bool contains(const std::vector<T>& list, const T& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

template <typename T>
bool contains(const std::optional<std::vector<T>>& list, const T& value) {
    return list && contains(*list, value);
}

void showLegalLabel() {
    if (auto label = globals::legalLabel()) {
        label->setHidden(false);
    }
}

void hideLegalLabel() {
    if (auto label = globals::legalLabel()) {
        label->setHidden(true);
    }
}

void stopTrafficRefresh() {
    // The global keeps the invalidated timer, as it always has.
    if (auto timer = globals::trafficTimer()) {
        timer->invalidate();
    }
}

}  // namespace

std::shared_ptr<SMTileOverlay> SorvanMapView::newOverlay(std::vector<std::int64_t> modes) {
    return SMTileOverlay::create(std::move(modes), globals::apikey(), boxDomain_, language_);
}

void SorvanMapView::addOverlay(const std::shared_ptr<map::Overlay>& overlay) {
    std::vector<std::shared_ptr<map::Overlay>> current = overlays();
    for (auto it = current.rbegin(); it != current.rend(); ++it) {
        if (std::dynamic_pointer_cast<SMTileOverlay>(*it)) {
            insertOverlayAbove(overlay, *it);
            return;
        }
    }
    baseAddOverlay(overlay);
}

// Every tile overlay gets a renderer that can carry tags. Opacity takes effect only here.
// Polylines are what hosts draw routes with (a route's steps come as polylines), so they get a
// route style that stands out from every map picture: a firm blue, slightly see-through so
// the road names underneath stay readable.
std::shared_ptr<map::OverlayRenderer> SorvanMapView::rendererForOverlay(
    map::MapView& mapView, const std::shared_ptr<map::Overlay>& overlay) {
    if (auto tile = std::dynamic_pointer_cast<SMTileOverlay>(overlay)) {
        auto renderer = SMTileOverlayRenderer::create(tile);
        renderer->setAlpha(tile->alpha());
        return renderer;
    }
    if (auto polyline = std::dynamic_pointer_cast<map::Polyline>(overlay)) {
        auto renderer = std::make_shared<map::PolylineRenderer>(polyline);
        renderer->setStrokeColor(kRouteColor);
        renderer->setLineWidth(kRouteLineWidth);
        return renderer;
    }
    return map::MapViewDelegate::rendererForOverlay(mapView, overlay);
}

void SorvanMapView::addSMOverlay(std::int64_t mode) {
    auto overlay = newOverlay({mode});
    overlay->setCache(globals::cache());
    if (mode != kWhiteBackground && mode != kCustom) {
        showLegalLabel();
    }
    addOverlay(overlay);
    if (mode != kNone) {
        reAddTag();
    }
}

void SorvanMapView::addSMLayer(const std::shared_ptr<SMLayer>& layer) {
    if (!layer) {
        return;
    }
    std::int64_t mode = layer->mode();
    auto overlay = newOverlay({mode});
    if (mode == kCustom) {
        overlay->setCustomUrl(std::vector<std::string>{layer->sourceLayer()},
                              std::vector<std::int64_t>{layer->tileFormat()},
                              std::vector<std::string>{layer->referer()});
    } else if (mode == kServerLayer) {
        overlay->setCustomUrl(std::vector<std::string>{layer->sourceLayer()}, std::nullopt,
                              std::nullopt);
    }
    // The descriptor's range replaces whatever the overlay chose, traffic's 7..16 included.
    overlay->setAlpha(layer->alpha());
    overlay->setMinimumZ(layer->minZoom());
    overlay->setMaximumZ(layer->maxZoom());

    // A customer's own box domain shows no attribution; no box domain at all does.
    bool alternativeService = boxDomain_ && boxDomain_->absoluteString() ==
                                                ServiceConfig::current().alternativeMapService;
    if (mode != kWhiteBackground && mode != kCustom && !alternativeService) {
        showLegalLabel();
    }
    if (layer->tileFormat() == kDataFormat) {
        overlay->setDataDelegate(weakSelf());
    }
    if (mode == kTraffic) {
        stopTrafficRefresh();
        overlay->setCache(2);  // traffic tiles never go to disk
        std::weak_ptr<SorvanMapView> self = weakSelf();
        globals::setTrafficTimer(dispatch::Timer::scheduled(
            kTrafficRefreshInterval, true,
            [self](dispatch::Timer& timer) {
                if (auto view = self.lock()) {
                    view->addTrafficLayer(timer);
                }
            },
            std::any(overlay)));
    } else {
        overlay->setCache(globals::cache());
    }
    addOverlay(overlay);
    if (mode != kNone) {
        reAddTag();
    }
}

void SorvanMapView::addSMLayers(const std::vector<std::shared_ptr<SMLayer>>& given) {
    std::vector<std::shared_ptr<SMLayer>> layers;
    std::copy_if(given.begin(), given.end(), std::back_inserter(layers),
                 [](const auto& layer) { return layer != nullptr; });
    if (layers.empty()) {
        return;
    }
    // The last element sets the values a layer must share to join the stacked overlay; when
    // it is a traffic layer, usually nothing else matches and every layer stands alone.
    const SMLayer& reference = *layers.back();
    double alpha = reference.alpha();
    std::int64_t minZoom = reference.minZoom();
    std::int64_t maxZoom = reference.maxZoom();

    std::vector<std::int64_t> modes;
    std::vector<std::int64_t> formats;
    std::vector<std::string> sources;
    std::vector<std::string> referers;
    std::shared_ptr<SMLayer> traffic;
    for (const auto& layer : layers) {
        if (layer->mode() == kTraffic) {
            traffic = layer;
        } else if (layer->alpha() == alpha && layer->minZoom() == minZoom &&
                   layer->maxZoom() == maxZoom) {
            modes.push_back(layer->mode());
            formats.push_back(layer->tileFormat());
            sources.push_back(layer->sourceLayer());
            referers.push_back(layer->referer());
        } else {
            addSMLayer(layer);
        }
    }

    if (!modes.empty()) {
        auto overlay = newOverlay(modes);
        overlay->setCustomUrl(sources, formats, referers);
        overlay->setCache(globals::cache());
        overlay->setAlpha(alpha);
        overlay->setMinimumZ(minZoom);
        overlay->setMaximumZ(maxZoom);
        if (!contains(modes, kWhiteBackground) && !contains(modes, kCustom)) {
            showLegalLabel();
        }
        if (contains(formats, kDataFormat)) {
            overlay->setDataDelegate(weakSelf());
        }
        addOverlay(overlay);
    }
    if (traffic) {
        addSMLayer(traffic);
    }
}

void SorvanMapView::addCustomOverlayWithURL(const std::string& urlTemplate, std::int64_t format,
                                            const std::string& referer) {
    auto overlay = newOverlay({kCustom});
    overlay->setCustomUrl(std::vector<std::string>{urlTemplate}, std::vector<std::int64_t>{format},
                          std::vector<std::string>{referer});
    overlay->setCache(globals::cache());
    if (format == kDataFormat) {
        overlay->setDataDelegate(weakSelf());
    }
    addOverlay(overlay);
}

void SorvanMapView::addSMOverlays(const std::vector<std::int64_t>& modes,
                                  const std::vector<std::string>& urls,
                                  const std::vector<std::int64_t>& formats,
                                  const std::vector<std::string>& referers) {
    // The referers' count is not compared, and the overlay keeps the initializer's cache
    // mode (disk cache off): both as this operation has always behaved.
    if (modes.size() == urls.size() && urls.size() == formats.size()) {
        auto overlay = newOverlay(modes);
        overlay->setCustomUrl(urls, formats, referers);
        if (contains(formats, kDataFormat)) {
            overlay->setDataDelegate(weakSelf());
        }
        addOverlay(overlay);
    }
    if (!contains(modes, kWhiteBackground) && !contains(modes, kCustom)) {
        showLegalLabel();
    }
}

// Each refresh clears the flag first, so the removeSMOverlay below only flips it back on and
// leaves the timer running; then a fresh copy of the timer's overlay fetches new tiles.
void SorvanMapView::addTrafficLayer(dispatch::Timer& timer) {
    globals::setIsTrafficShowed(false);
    removeSMOverlay(kTraffic);
    if (const auto* overlay = std::any_cast<std::shared_ptr<SMTileOverlay>>(&timer.userInfo());
        overlay && *overlay) {
        reAddOverlay(*overlay);
    }
    reAddTag();
}

void SorvanMapView::removeOverlays(const std::vector<std::shared_ptr<map::Overlay>>& given) {
    std::vector<std::shared_ptr<map::Overlay>> kept = given;
    for (std::size_t i = 0; i < kept.size(); ++i) {
        auto tile = std::dynamic_pointer_cast<SMTileOverlay>(kept[i]);
        if (!tile) {
            continue;
        }
        std::vector<std::int64_t> modes = tile->mode();
        // A lone mode-19 overlay (the tag layer) survives a bulk removal. The index is not
        // stepped back, so the element that moves into its place is not examined: hosts
        // depend on exactly which overlays this removes.
        if (modes.size() == 1 && modes[0] == kNone) {
            kept.erase(kept.begin() + static_cast<std::ptrdiff_t>(i));
        }
        for (std::int64_t mode : modes) {
            if (mode == kTraffic) {
                globals::setIsTrafficShowed(false);
                stopTrafficRefresh();
            }
        }
    }
    baseRemoveOverlays(kept);
    if (!hasSorvanOverlay()) {
        hideLegalLabel();
    }
}

void SorvanMapView::removeSMOverlay(std::int64_t mode) {
    if (mode == kTraffic) {
        // A toggle, kept as it stands: called before the first refresh it only sets the flag,
        // the timer keeps running and the traffic layer comes back at the next refresh.
        if (globals::isTrafficShowed()) {
            globals::setIsTrafficShowed(false);
            stopTrafficRefresh();
        } else {
            globals::setIsTrafficShowed(true);
        }
    }
    for (const auto& overlay : overlays()) {
        auto tile = std::dynamic_pointer_cast<SMTileOverlay>(overlay);
        if (!tile) {
            continue;
        }
        std::vector<std::int64_t> modes = tile->mode();
        auto at = std::find(modes.begin(), modes.end(), mode);
        if (at == modes.end()) {
            continue;
        }
        map::MapView::removeOverlay(overlay);
        if (modes.size() >= 2) {
            removeOverlay(tile, at - modes.begin());
        }
        break;
    }
    if (!hasSorvanOverlay()) {
        hideLegalLabel();
    }
}

void SorvanMapView::removeSourceLayer(const std::string& source) {
    for (const auto& overlay : overlays()) {
        auto tile = std::dynamic_pointer_cast<SMTileOverlay>(overlay);
        if (!tile) {
            continue;
        }
        std::vector<std::int64_t> modes = tile->mode();
        if (!contains(modes, kCustom) && !contains(modes, kServerLayer)) {
            continue;
        }
        std::optional<std::vector<std::string>> urls = tile->urlLayer();
        if (!urls) {
            continue;
        }
        auto at = std::find(urls->begin(), urls->end(), source);
        if (at == urls->end()) {
            continue;
        }
        map::MapView::removeOverlay(overlay);
        if (modes.size() >= 2) {
            removeOverlay(tile, at - urls->begin());
        }
        return;
    }
}

void SorvanMapView::removeOverlay(const std::shared_ptr<SMTileOverlay>& overlay,
                                  std::int64_t index) {
    if (!overlay) {
        return;
    }
    // A negative index names no layer; the rest is still added back.
    if (index >= 0) {
        overlay->removeLayerAtIndex(static_cast<std::size_t>(index));
    }
    reAddOverlay(overlay);
}

void SorvanMapView::reAddOverlay(const std::shared_ptr<SMTileOverlay>& overlay) {
    if (!overlay) {
        return;
    }
    auto copy = newOverlay(overlay->mode());
    copy->setCustomUrl(overlay->urlLayer(), overlay->tileFormat(), overlay->referer());
    copy->setCache(overlay->cache());
    copy->setAlpha(overlay->alpha());
    copy->setMinimumZ(overlay->minimumZ());
    copy->setMaximumZ(overlay->maximumZ());
    if (contains(overlay->tileFormat(), kDataFormat)) {
        copy->setDataDelegate(weakSelf());
    }
    addOverlay(copy);
}

bool SorvanMapView::hasSorvanOverlay() const {
    for (const auto& overlay : overlays()) {
        auto tile = std::dynamic_pointer_cast<SMTileOverlay>(overlay);
        if (!tile) {
            continue;
        }
        std::vector<std::int64_t> modes = tile->mode();
        if (!modes.empty() && !contains(modes, kWhiteBackground) && !contains(modes, kCustom)) {
            return true;
        }
    }
    return false;
}

}  // namespace sorvan

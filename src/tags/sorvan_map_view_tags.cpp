// The map view's tag operations: binding tags to the topmost tile overlay's renderer, moving
// them when the layer stack changes, and putting the delivered tags on the map. Main queue
// only, except tagData and removeOldTagFromZoom, which hop there.
#include <chrono>
#include <memory>

#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "SorvanMapSDK/SMTagOptions.hpp"
#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/SMTileOverlayRenderer.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "mapview/live_requests.hpp"

namespace sorvan {
namespace {

constexpr std::int64_t kTagLayer = SMLayerModeNone;

std::int64_t secondsSince1970() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

bool holdsTagLayer(const SMTileOverlay& overlay) {
    for (std::int64_t mode : overlay.mode()) {
        if (mode == kTagLayer) {
            return true;
        }
    }
    return false;
}

}  // namespace

void SorvanMapView::showTags(const std::vector<std::string>& tags) {
    showTags(tags, nullptr);
}

void SorvanMapView::showTags(const std::optional<std::vector<std::string>>& tags,
                             const std::shared_ptr<SMTagOptions>& options) {
    if (globals::tagOverlay()) {
        removeAllTags();
    }
    std::shared_ptr<SMTileOverlay> topmost;
    std::vector<std::shared_ptr<map::Overlay>> current = overlays();
    for (auto it = current.rbegin(); it != current.rend() && !topmost; ++it) {
        topmost = std::dynamic_pointer_cast<SMTileOverlay>(*it);
    }
    if (!topmost) {
        return;
    }
    // The renderer the map holds for that overlay: the tiles it draws are the ones that ask
    // for tags. A renderer of another kind binds nothing, but the tag layer still goes on.
    auto renderer =
        std::dynamic_pointer_cast<SMTileOverlayRenderer>(map::MapView::rendererForOverlay(topmost));
    globals::setTagOverlay(renderer);
    if (renderer) {
        renderer->setTagDelegate(weakSelf());
        renderer->setApikey(globals::apikey());
        renderer->setTag(tags);
        renderer->setSetId(secondsSince1970());
    }

    // Kept as they are although they differ: without options the layer's top zoom is 22,
    // with default options 23, while the renderer's range is (1, 22) both ways.
    auto layer = SMLayer::create(kTagLayer);
    if (options) {
        SMRange range = options->visibleRange();
        layer->setMinZoom(static_cast<std::int64_t>(range.location));
        layer->setMaxZoom(static_cast<std::int64_t>(range.location + range.length));
        if (renderer) {
            renderer->setVisibleRange(range);
            renderer->setTagIcon(options->icon());
        }
    } else {
        layer->setMinZoom(1);
        layer->setMaxZoom(22);
        if (renderer) {
            renderer->setTagIcon(nullptr);
            renderer->setVisibleRange({1, 22});
        }
    }
    addSMLayer(layer);

    if (renderer) {
        renderer->setLanguage(localeCode(language_));
        renderer->setBoxDomain(boxDomain_);
        renderer->reloadData();
    }
}

void SorvanMapView::reAddTag() {
    auto bound = globals::tagOverlay();
    if (!bound) {
        return;
    }
    std::int64_t lo = 1, hi = 22;
    for (const auto& overlay : overlays()) {
        auto tile = std::dynamic_pointer_cast<SMTileOverlay>(overlay);
        if (tile && holdsTagLayer(*tile)) {
            lo = tile->minimumZ();
            hi = tile->maximumZ();
            map::MapView::removeOverlay(overlay);
            break;
        }
    }
    auto options = SMTagOptions::create();
    options->setIcon(bound->tagIcon());
    options->setVisibleRange({static_cast<std::uint64_t>(lo), static_cast<std::uint64_t>(hi - lo)});
    showTags(bound->tag(), options);
}

void SorvanMapView::removeAllTags() {
    std::vector<std::shared_ptr<map::Annotation>> tags;
    for (const auto& annotation : annotations()) {
        if (std::dynamic_pointer_cast<SMTagAnnotation>(annotation)) {
            tags.push_back(annotation);
        }
    }
    for (const auto& tag : tags) {
        removeAnnotation(tag);
    }
    // The renderer keeps its tag list, delegate and stamp: answers still on their way are
    // dropped as stale when their views are asked for.
    globals::setTagOverlay(nullptr);
    removeSMOverlay(kTagLayer);
}

void SorvanMapView::tagData(const std::vector<std::shared_ptr<SMTagAnnotation>>& tags) {
    std::weak_ptr<SorvanMapView> self = weakSelf();
    std::vector<std::shared_ptr<map::Annotation>> annotations(tags.begin(), tags.end());
    // Counted as in flight until the tags are on the map, so a headless front end that waits
    // for the answers does not draw before this hop has run.
    dispatch::RunLoop::main().async(
        [self, annotations = std::move(annotations), token = mapview::beginLiveRequest()] {
            if (auto view = self.lock()) {
                view->addAnnotations(annotations);
            }
        });
}

void SorvanMapView::removeOldTagFromZoom(std::int64_t zoom) {
    std::weak_ptr<SorvanMapView> self = weakSelf();
    dispatch::RunLoop::main().async([self, zoom, token = mapview::beginLiveRequest()] {
        auto view = self.lock();
        if (!view) {
            return;
        }
        std::vector<std::shared_ptr<map::Annotation>> old;
        for (const auto& annotation : view->annotations()) {
            auto tag = std::dynamic_pointer_cast<SMTagAnnotation>(annotation);
            if (tag && tag->zoom() != zoom) {
                old.push_back(annotation);
            }
        }
        view->removeAnnotations(old);
    });
}

}  // namespace sorvan

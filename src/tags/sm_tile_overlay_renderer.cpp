#include "SorvanMapSDK/SMTileOverlayRenderer.hpp"

#include <cmath>
#include <cstdint>
#include <utility>

#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "SorvanMapSDK/SMTagDelegate.hpp"
#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "mapview/globals.hpp"
#include "mapview/live_requests.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "tags/tag_answer.hpp"
#include "tags/tag_registry.hpp"

namespace sorvan {
namespace {

// A double that does not fit the integer it is converted to gives 0 instead of undefined
// behaviour (a tile far outside the world cannot be asked for anyway).
std::int64_t truncated(double v) {
    if (!std::isfinite(v) || std::fabs(v) >= 9.2e18) {
        return 0;
    }
    return static_cast<std::int64_t>(v);
}

// 2 shifted left by z - 1 in 32 bits: the shift count wraps, so zoom 0 gives 0.
std::int32_t rowFactor(std::int64_t z) {
    auto count = static_cast<std::uint32_t>(z - 1) & 31u;
    return static_cast<std::int32_t>(std::uint32_t{2} << count);
}

}  // namespace

SMTileOverlayRenderer::SMTileOverlayRenderer(std::shared_ptr<SMTileOverlay> overlay)
    : map::TileOverlayRenderer(std::move(overlay)) {
    globals::resetPathOnMap();
}

std::shared_ptr<SMTileOverlayRenderer> SMTileOverlayRenderer::create(
    std::shared_ptr<SMTileOverlay> overlay) {
    return std::make_shared<SMTileOverlayRenderer>(std::move(overlay));
}

void SMTileOverlayRenderer::reloadData() {
    globals::resetPathOnMap();
    map::TileOverlayRenderer::reloadData();
}

void SMTileOverlayRenderer::drawMapRect(const map::MapRect& mapRect, double zoomScale,
                                        cairo_t* context) {
    map::TileOverlayRenderer::drawMapRect(mapRect, zoomScale, context);
    requestTags(mapRect, zoomScale);
}

// What one draw asks the clustering service, with what its log line needs.
struct SMTileOverlayRenderer::TagCall {
    std::optional<net::URLRequest> request;
    std::int64_t z = 0;
    double index = 0;
    std::optional<std::vector<std::string>> tags;
};

bool SMTileOverlayRenderer::prepareTagCall(const map::MapRect& mapRect, double zoomScale,
                                           TagCall& call) const {
    std::string language, key;
    std::optional<net::URL> domain;
    SMRange range;
    {
        std::lock_guard lock(mutex_);
        if (!tag_ && !tagDelegate_.lock()) {
            return false;
        }
        call.tags = tag_;
        language = language_;
        key = apikey_;
        domain = boxDomain_;
        range = visibleRange_;
    }
    call.z = truncated(std::log2(zoomScale) + 19);
    // The range is compared unsigned, so a negative zoom is never in it.
    auto uz = static_cast<std::uint64_t>(call.z);
    if (uz < range.location || uz > range.location + range.length) {
        return false;
    }
    auto overlay = tileOverlay();
    double width = overlay ? overlay->tileSize().width : 0;
    if (!(width > 0)) {
        return false;
    }
    std::int64_t tileX = truncated(mapRect.origin.x * zoomScale / width);
    std::int64_t tileY = truncated(mapRect.origin.y * zoomScale / width);
    call.index = static_cast<double>(tileX + std::int64_t{rowFactor(call.z)} * tileY);

    // The names go into the query as they are; the components encode what a query may not
    // hold.
    std::string query;
    if (call.tags) {
        for (std::size_t i = 0; i < call.tags->size(); ++i) {
            query += strformat("tag[%ld]=%s&", static_cast<long>(i), (*call.tags)[i].c_str());
        }
    }
    query += "key=" + key;
    std::string base = domain ? domain->absoluteString() : ServiceConfig::current().clusterService;
    auto components = net::URLComponents::fromString(base);
    if (!components) {
        return false;
    }
    components->setPath(strformat("/ClusterService/json/cluster/epsg3857/%ld/%.0f/%s",
                                  static_cast<long>(call.z), call.index, language.c_str()));
    components->setQuery(query);
    auto url = components->url();
    if (!url) {
        return false;
    }
    call.request.emplace(*url);
    call.request->setValue(strformat("sorvan://%s", Bundle::main().identifier().c_str()),
                           "Referer");
    return true;
}

std::optional<net::URLRequest> SMTileOverlayRenderer::tagRequest(const map::MapRect& mapRect,
                                                                 double zoomScale) const {
    TagCall call;
    if (!prepareTagCall(mapRect, zoomScale, call)) {
        return std::nullopt;
    }
    return call.request;
}

void SMTileOverlayRenderer::requestTags(const map::MapRect& mapRect, double zoomScale) {
    TagCall call;
    if (!prepareTagCall(mapRect, zoomScale, call)) {
        return;
    }
    auto self = std::static_pointer_cast<SMTileOverlayRenderer>(shared_from_this());
    std::int64_t z = call.z;
    double index = call.index;
    net::URLSession::shared().dataTask(
        *call.request,
        [self = std::move(self), z, index, tags = std::move(call.tags),
         token = mapview::beginLiveRequest()](const std::optional<net::Data>& data,
                                              const std::optional<net::HTTPURLResponse>&,
                                              const std::optional<net::Error>& error) mutable {
            if (error) {
                tags::logTagError(z, index, tags, error->localizedDescription);
                return;
            }
            std::string_view bytes;
            if (data) {
                bytes = {reinterpret_cast<const char*>(data->data()), data->size()};
            }
            json::ParseResult parsed = json::parse(bytes);
            if (!parsed.value) {
                tags::logTagError(z, index, tags, parsed.errorDescription);
                return;
            }
            // The renderer travels on to the main queue, so its last reference is dropped
            // there and not on the session's queue.
            dispatch::RunLoop::main().async([self = std::move(self),
                                             root = std::move(*parsed.value), z, index,
                                             tags = std::move(tags), token] {
                std::vector<std::shared_ptr<SMTagAnnotation>> fresh;
                try {
                    fresh = tags::readTags(root, z, self->setId(), self->tagIcon(),
                                           *globals::pathOnMap());
                } catch (const json::StructureError& e) {
                    tags::logTagError(z, index, tags, e.reason());
                    return;
                }
                if (auto delegate = self->tagDelegate()) {
                    delegate->tagData(fresh);
                }
            });
        });
}

std::shared_ptr<SMTagDelegate> SMTileOverlayRenderer::tagDelegate() const {
    std::lock_guard lock(mutex_);
    return tagDelegate_.lock();
}
void SMTileOverlayRenderer::setTagDelegate(std::weak_ptr<SMTagDelegate> delegate) {
    std::lock_guard lock(mutex_);
    tagDelegate_ = std::move(delegate);
}
std::optional<std::vector<std::string>> SMTileOverlayRenderer::tag() const {
    std::lock_guard lock(mutex_);
    return tag_;
}
void SMTileOverlayRenderer::setTag(std::optional<std::vector<std::string>> tags) {
    std::lock_guard lock(mutex_);
    tag_ = std::move(tags);
}
std::string SMTileOverlayRenderer::language() const {
    std::lock_guard lock(mutex_);
    return language_;
}
void SMTileOverlayRenderer::setLanguage(std::string language) {
    std::lock_guard lock(mutex_);
    language_ = std::move(language);
}
std::optional<net::URL> SMTileOverlayRenderer::boxDomain() const {
    std::lock_guard lock(mutex_);
    return boxDomain_;
}
void SMTileOverlayRenderer::setBoxDomain(std::optional<net::URL> domain) {
    std::lock_guard lock(mutex_);
    boxDomain_ = std::move(domain);
}
std::shared_ptr<SMIcon> SMTileOverlayRenderer::tagIcon() const {
    std::lock_guard lock(mutex_);
    return tagIcon_;
}
void SMTileOverlayRenderer::setTagIcon(std::shared_ptr<SMIcon> icon) {
    std::lock_guard lock(mutex_);
    tagIcon_ = std::move(icon);
}
SMRange SMTileOverlayRenderer::visibleRange() const {
    std::lock_guard lock(mutex_);
    return visibleRange_;
}
void SMTileOverlayRenderer::setVisibleRange(SMRange range) {
    std::lock_guard lock(mutex_);
    visibleRange_ = range;
}
std::int64_t SMTileOverlayRenderer::setId() const {
    std::lock_guard lock(mutex_);
    return setId_;
}
void SMTileOverlayRenderer::setSetId(std::int64_t setId) {
    std::lock_guard lock(mutex_);
    setId_ = setId;
}
std::string SMTileOverlayRenderer::apikey() const {
    std::lock_guard lock(mutex_);
    return apikey_;
}
void SMTileOverlayRenderer::setApikey(std::string key) {
    std::lock_guard lock(mutex_);
    apikey_ = std::move(key);
}

}  // namespace sorvan

#include "SorvanMapSDK/SMTileOverlay.hpp"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>

#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/foundation/paths.hpp"
#include "sorvan/platform/graphics/image_context.hpp"
#include "tiles/tile_address.hpp"
#include "tiles/tile_cache.hpp"
#include "tiles/tile_codec.hpp"
#include "tiles/tile_outcome.hpp"

namespace sorvan {
namespace {

constexpr double kTileSide = 256;

bool contains(const std::vector<std::int64_t>& values, std::int64_t v) {
    return std::find(values.begin(), values.end(), v) != values.end();
}

// The name lookup of the public web host that precedes every network tile request. Its
// answer is not used; the delay it adds to each request is what existing deployments have
// always seen, so it stays.
void lookUpPublicWebHost() {
    std::string host = ServiceConfig::current().publicWebHost;
    if (host.empty()) {
        return;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) == 0 && found) {
        freeaddrinfo(found);
    }
}

// A fully transparent tile: what composing nothing over nothing gives.
std::shared_ptr<gfx::Image> blankTile() {
    static const std::shared_ptr<gfx::Image> blank = gfx::Image::fromPixels(
        static_cast<int>(kTileSide), static_cast<int>(kTileSide),
        std::vector<std::uint32_t>(static_cast<std::size_t>(kTileSide * kTileSide), 0));
    return blank;
}

bool isTileSized(const gfx::Image& image) {
    return image.pixelWidth() == kTileSide && image.pixelHeight() == kTileSide;
}

// The picture a tile load builds, bottom layer first. Each layer is drawn over what is there
// (source-over, into 256 x 256 at scale 1). The layers are drawn into one surface as they
// come rather than into a fresh surface per layer: re-drawing the picture so far 1:1 into a
// new surface copies it exactly, so the pixels are the same and a surface and a copy per
// layer are saved. A single tile-sized layer is passed through without any surface at all.
class Canvas {
  public:
    explicit Canvas(std::shared_ptr<gfx::Image> picture) : image_(std::move(picture)) {}

    // Draws top over the picture; a missing top draws nothing, but there is a (transparent)
    // picture afterwards all the same.
    void draw(const std::shared_ptr<gfx::Image>& top) {
        if (context_) {
            if (top) {
                context_->drawImage(*top, all());
            }
            return;
        }
        bool imageFits = !image_ || isTileSized(*image_);
        if (!top && imageFits) {
            image_ = image_ ? image_ : blankTile();
            return;
        }
        if (top && isTileSized(*top) && (!image_ || top->isOpaque())) {
            image_ = top;  // nothing below shows through
            return;
        }
        open();
        if (top) {
            context_->drawImage(*top, all());
        }
    }

    // Opaque white under everything drawn so far.
    void whiteUnder() {
        std::shared_ptr<gfx::Image> picture = take();
        if (picture && isTileSized(*picture) && picture->isOpaque()) {
            image_ = picture;
            return;
        }
        context_ = std::make_unique<gfx::ImageContext>(gfx::Size{kTileSide, kTileSide}, 1.0);
        context_->fill(all(), gfx::Color::white());
        if (picture) {
            context_->drawImage(*picture, all());
        }
    }

    // The picture so far; nullptr when nothing was ever drawn.
    std::shared_ptr<gfx::Image> take() {
        if (context_) {
            image_ = context_->makeImage();
            context_.reset();
        }
        return image_;
    }

  private:
    static gfx::Rect all() { return {0, 0, kTileSide, kTileSide}; }

    void open() {
        context_ = std::make_unique<gfx::ImageContext>(gfx::Size{kTileSide, kTileSide}, 1.0);
        if (image_) {
            context_->drawImage(*image_, all());
        }
        image_.reset();
    }

    std::shared_ptr<gfx::Image> image_;
    std::unique_ptr<gfx::ImageContext> context_;
};

// The report of the tile load running on this thread, when someone listens (tile_outcome.hpp).
// A thread-local rather than a parameter: loadImageOn and getImageFrom keep their public
// shapes, and a load without listeners pays one null check per layer.
struct OutcomeReport {
    tiles::TileOutcome* outcome = nullptr;
    std::size_t layer = 0;
    std::int64_t mode = 0;
};
thread_local OutcomeReport currentReport;

class OutcomeScope {
  public:
    explicit OutcomeScope(tiles::TileOutcome* outcome) : saved_(currentReport) {
        currentReport = {outcome, 0, 0};
    }
    ~OutcomeScope() { currentReport = saved_; }
    OutcomeScope(const OutcomeScope&) = delete;
    OutcomeScope& operator=(const OutcomeScope&) = delete;

  private:
    OutcomeReport saved_;
};

void noteLayer(std::size_t layer, std::int64_t mode) {
    currentReport.layer = layer;
    currentReport.mode = mode;
}

void noteFailure(tiles::LayerFailure::Cause cause, std::string detail = {},
                 const std::optional<net::HTTPURLResponse>& response = std::nullopt,
                 const std::optional<net::Data>& data = std::nullopt) {
    if (!currentReport.outcome) {
        return;
    }
    tiles::LayerFailure failure;
    failure.layer = currentReport.layer;
    failure.mode = currentReport.mode;
    failure.cause = cause;
    failure.detail = std::move(detail);
    if (response) {
        failure.status = response->statusCode;
        auto type = response->headers.find("content-type");
        if (type != response->headers.end()) {
            failure.contentType = type->second;
        }
    }
    failure.bytes = data ? data->size() : 0;
    currentReport.outcome->failures.push_back(std::move(failure));
}

// Pictures of a tile at screen scales 1 to 3 are drawn as they should be; anything else is
// stretched over the tile and worth a mention.
bool isTilePicture(const gfx::Image& image) {
    int side = image.pixelWidth();
    return side == image.pixelHeight() &&
           (side == kTileSide || side == 2 * kTileSide || side == 3 * kTileSide);
}

}  // namespace

namespace tiles {

// One consistent view of the overlay's layers for the whole of a tile load: the main queue
// may change the lists or the cache mode while a tile thread is walking them.
struct LayerStack {
    std::vector<std::int64_t> modes;
    std::optional<std::vector<std::int64_t>> formats;
    std::optional<std::vector<std::string>> urls;
    std::optional<std::vector<std::string>> referers;
    std::shared_ptr<SMTileDataDelegate> delegate;
    std::int64_t cache = 2;
    std::int64_t language = 0;

    std::int64_t format(std::size_t i) const {
        return formats && i < formats->size() ? (*formats)[i] : 0;
    }
    const std::string* url(std::size_t i) const {
        return urls && i < urls->size() ? &(*urls)[i] : nullptr;
    }
    const std::string* referer(std::size_t i) const {
        return referers && i < referers->size() ? &(*referers)[i] : nullptr;
    }
};

}  // namespace tiles

namespace {

// What one layer asks for on a given tile.
struct LayerAddress {
    enum class Kind { Nothing, NoPicture, Data, Image } kind = Kind::Nothing;
    std::string address;
};

std::optional<std::string> serverBase(std::int64_t mode) {
    if (mode == 16) {
        auto traffic = globals::trafficServer();
        if (!traffic) {
            return std::nullopt;
        }
        return traffic->absoluteString();
    }
    if (mode == 14) {
        return ServiceConfig::current().partnerMapServer;
    }
    if (auto domain = globals::boxDomain()) {
        return domain->appendingPathComponent("map/msn-server/img.php").absoluteString();
    }
    if (auto layer = globals::layerServer()) {
        return layer->absoluteString();
    }
    // No usable map server: the address cannot become a URL and the layer is left out.
    return std::string();
}

LayerAddress addressOf(const tiles::LayerStack& layers, std::size_t i, const map::TilePath& path) {
    std::int64_t m = layers.modes[i];
    switch (m) {
        case 17:
        case 18:
        case 19:
            return {};
        case 21: {
            const std::string* u = layers.url(i);
            std::int64_t f = layers.format(i);
            if (!u) {
                // No template to fill: no address can be formed.
                return {LayerAddress::Kind::NoPicture, {}};
            }
            if (f == 3 && layers.delegate) {
                return {LayerAddress::Kind::Data, tiles::dataAddress(*u, path)};
            }
            if (f == 4 || f == 5) {
                return {LayerAddress::Kind::Image, tiles::wmsAddress(*u, f, path)};
            }
            return {LayerAddress::Kind::Image, tiles::xyzAddress(*u, f, path)};
        }
        default: {
            auto base = serverBase(m);
            if (!base) {
                return {LayerAddress::Kind::NoPicture, {}};
            }
            std::string name;
            if (m == 20) {
                // A missing entry prints as the platform printed a missing object.
                const std::string* u = layers.url(i);
                name = u ? *u : "(null)";
            } else {
                name = tiles::modeString(m, layers.language);
            }
            return {LayerAddress::Kind::Image,
                    tiles::mapServerAddress(*base, name, path, globals::apikey())};
        }
    }
}

}  // namespace

SMTileOverlay::SMTileOverlay(std::vector<std::int64_t> modes, const std::string& key,
                             std::optional<net::URL> domain, std::int64_t language)
    : mode_(std::move(modes)), language_(language) {
    // Every new overlay speaks for the whole process: the last one made sets the key and the
    // box domain every tile address uses.
    globals::setApikey(key);
    globals::setBoxDomain(std::move(domain));
    setCanReplaceMapContent(true);
    setTileSize({512, 512});
    if (contains(mode_, 16)) {
        setMinimumZ(7);
        setMaximumZ(16);
    } else if (contains(mode_, 13) || contains(mode_, 14)) {
        setMaximumZ(18);
    }
    tiles::TileCache::shared().open();
}

std::shared_ptr<SMTileOverlay> SMTileOverlay::create(std::vector<std::int64_t> modes,
                                                     const std::string& key,
                                                     std::optional<net::URL> domain,
                                                     std::int64_t language) {
    return std::make_shared<SMTileOverlay>(std::move(modes), key, std::move(domain), language);
}

SMTileOverlay::~SMTileOverlay() = default;

std::vector<std::int64_t> SMTileOverlay::mode() const {
    std::lock_guard lock(mutex_);
    return mode_;
}
void SMTileOverlay::setMode(std::vector<std::int64_t> modes) {
    std::lock_guard lock(mutex_);
    mode_ = std::move(modes);
}
std::optional<std::vector<std::int64_t>> SMTileOverlay::tileFormat() const {
    std::lock_guard lock(mutex_);
    return tileFormat_;
}
std::optional<std::vector<std::string>> SMTileOverlay::urlLayer() const {
    std::lock_guard lock(mutex_);
    return urlLayer_;
}
std::optional<std::vector<std::string>> SMTileOverlay::referer() const {
    std::lock_guard lock(mutex_);
    return referer_;
}
void SMTileOverlay::setCustomUrl(std::optional<std::vector<std::string>> urls,
                                 std::optional<std::vector<std::int64_t>> formats,
                                 std::optional<std::vector<std::string>> referers) {
    std::lock_guard lock(mutex_);
    urlLayer_ = std::move(urls);
    tileFormat_ = std::move(formats);
    referer_ = std::move(referers);
}
void SMTileOverlay::removeLayerAtIndex(std::size_t index) {
    auto drop = [index](auto& list) {
        if (index < list.size()) {
            list.erase(list.begin() + static_cast<std::ptrdiff_t>(index));
        }
    };
    std::lock_guard lock(mutex_);
    drop(mode_);
    if (urlLayer_) {
        drop(*urlLayer_);
    }
    if (tileFormat_) {
        drop(*tileFormat_);
    }
    if (referer_) {
        drop(*referer_);
    }
}
std::int64_t SMTileOverlay::cache() const {
    std::lock_guard lock(mutex_);
    return cache_;
}
void SMTileOverlay::setCache(std::int64_t mode) {
    std::lock_guard lock(mutex_);
    cache_ = mode;
}
std::int64_t SMTileOverlay::language() const {
    std::lock_guard lock(mutex_);
    return language_;
}
void SMTileOverlay::setLanguage(std::int64_t language) {
    std::lock_guard lock(mutex_);
    language_ = language;
}
double SMTileOverlay::alpha() const {
    std::lock_guard lock(mutex_);
    return alpha_;
}
void SMTileOverlay::setAlpha(double alpha) {
    std::lock_guard lock(mutex_);
    alpha_ = alpha;
}
std::shared_ptr<SMTileDataDelegate> SMTileOverlay::dataDelegate() const {
    std::lock_guard lock(mutex_);
    return dataDelegate_.lock();
}
void SMTileOverlay::setDataDelegate(std::weak_ptr<SMTileDataDelegate> delegate) {
    std::lock_guard lock(mutex_);
    dataDelegate_ = std::move(delegate);
}

std::string SMTileOverlay::modeString(std::int64_t mode) const {
    return tiles::modeString(mode, language());
}

std::string SMTileOverlay::SHA256String(std::string_view text) {
    return tiles::cacheName(text);
}

tiles::LayerStack SMTileOverlay::snapshot() const {
    std::lock_guard lock(mutex_);
    return {mode_, tileFormat_, urlLayer_, referer_, dataDelegate_.lock(), cache_, language_};
}

std::optional<std::string> SMTileOverlay::addressOfLayer(std::size_t index,
                                                         const map::TilePath& path) const {
    tiles::LayerStack layers = snapshot();
    if (index >= layers.modes.size()) {
        return std::nullopt;
    }
    LayerAddress a = addressOf(layers, index, path);
    if (a.kind == LayerAddress::Kind::Data || a.kind == LayerAddress::Kind::Image) {
        return a.address;
    }
    return std::nullopt;
}

void SMTileOverlay::loadTileAtPath(const map::TilePath& path, TileResult result) {
    tiles::LayerStack layers = snapshot();
    std::optional<tiles::TileOutcome> outcome;
    if (tiles::tileOutcomesObserved()) {
        outcome.emplace();
        outcome->path = path;
    }
    std::shared_ptr<gfx::Image> picture;
    {
        OutcomeScope scope(outcome ? &*outcome : nullptr);
        picture = walk(layers, 0, nullptr, path);
    }
    std::vector<std::uint8_t> data;
    if (picture) {
        data = picture->pngData(tiles::kComposedTilePNG);
    }
    // Reported before the engine hears of the tile, so whoever waits for the map to be drawn
    // has every outcome once it is.
    if (outcome) {
        outcome->picture = !data.empty();
        tiles::publishTileOutcome(*outcome);
    }
    result(std::move(data), std::nullopt);
}

std::shared_ptr<gfx::Image> SMTileOverlay::getImageFrom(std::size_t index,
                                                        std::shared_ptr<gfx::Image> picture,
                                                        const map::TilePath& path) {
    return walk(snapshot(), index, std::move(picture), path);
}

std::shared_ptr<gfx::Image> SMTileOverlay::walk(const tiles::LayerStack& layers, std::size_t index,
                                                std::shared_ptr<gfx::Image> picture,
                                                const map::TilePath& path) {
    Canvas canvas(std::move(picture));
    for (std::size_t i = index; i < layers.modes.size(); ++i) {
        std::int64_t m = layers.modes[i];
        bool last = i + 1 == layers.modes.size();
        switch (m) {
            case 17: {
                std::string file = paths::documents() + "/" + tiles::offlineGrayPath(path);
                std::error_code ignored;
                if (std::filesystem::exists(file, ignored)) {
                    canvas.draw(gfx::Image::fromFile(file, 1.0, tiles::kLayerImageLimits));
                }
                continue;
            }
            case 18:
                canvas.whiteUnder();
                continue;
            case 19:
                // A stack that ends in "none" deliberately yields no picture at all.
                if (last) {
                    return nullptr;
                }
                continue;
            default:
                break;
        }

        noteLayer(i, m);
        LayerAddress a = addressOf(layers, i, path);
        if (a.kind == LayerAddress::Kind::NoPicture) {
            noteFailure(tiles::LayerFailure::Cause::NoAddress,
                        m == 16 ? "no traffic server is configured" : "the layer has none");
            return nullptr;
        }
        if (a.kind == LayerAddress::Kind::Data) {
            fetchData(layers, a.address);
            continue;
        }
        auto url = net::URL::fromString(a.address);
        if (!url) {
            if (m == 21) {
                noteFailure(tiles::LayerFailure::Cause::NoAddress, "'" + a.address + "' is no URL");
                return nullptr;  // a host template that forms no URL: the whole tile is empty
            }
            // A server address spoiled by its key: the request could not even start.
            log::writef("TILE ERROR: %s", "unsupported URL");
            noteFailure(tiles::LayerFailure::Cause::Transport, "unsupported URL");
            canvas.draw(nullptr);
            continue;
        }
        canvas.draw(fetchImage(layers, i, *url));
    }
    return canvas.take();
}

void SMTileOverlay::fetchData(const tiles::LayerStack& layers, const std::string& address) {
    // Data answers bypass everything image layers get: no Referer, no cache, no retry.
    auto url = net::URL::fromString(address);
    if (!url) {
        return;
    }
    std::optional<net::Error> error;
    net::URLRequest request(*url);
    request.setMaximumBodySize(tiles::kMaxTileAnswerBytes);
    auto data = sendSynchronousRequest(request, nullptr, &error);
    if (!error) {
        layers.delegate->dataFromTile(data ? *data : net::Data{});
    }
}

std::shared_ptr<gfx::Image> SMTileOverlay::fetchImage(const tiles::LayerStack& layers,
                                                      std::size_t i, const net::URL& url) {
    std::string name;
    if (layers.cache != 2) {
        name = tiles::cacheName(url.absoluteString());
        // A cache file that no longer decodes (cut short, overwritten) is a miss, not a gap:
        // the download below replaces it.
        if (auto cached = tiles::TileCache::shared().read(name)) {
            return cached;
        }
    }
    net::URLRequest request(url);
    request.setMaximumBodySize(tiles::kMaxTileAnswerBytes);
    const std::string* r = layers.referer(i);
    if (layers.modes[i] == 21 && layers.referers && !layers.referers->empty()) {
        if (r) {
            request.setValue(*r, "Referer");
        }
    } else {
        request.setValue(strformat("sorvan://%s", Bundle::main().identifier().c_str()), "Referer");
    }
    lookUpPublicWebHost();
    request.setCachePolicy(net::CachePolicy::ReturnCacheDataElseLoad);
    return load(request, 0, layers.cache);
}

std::shared_ptr<gfx::Image> SMTileOverlay::loadImageOn(net::URLRequest& request,
                                                       std::int64_t attempt) {
    return load(request, attempt, cache());
}

std::shared_ptr<gfx::Image> SMTileOverlay::load(const net::URLRequest& request,
                                                std::int64_t attempt, std::int64_t cacheMode) {
    // Iterative form of "ask again at once": at most three requests for one address.
    for (std::int64_t k = attempt;; ++k) {
        std::optional<net::HTTPURLResponse> response;
        std::optional<net::Error> error;
        auto data = sendSynchronousRequest(request, &response, &error);
        if (error) {
            // A transport failure will not heal by asking again at once.
            log::writef("TILE ERROR: %s", error->localizedDescription.c_str());
            noteFailure(tiles::LayerFailure::Cause::Transport, error->localizedDescription);
            return nullptr;
        }
        if (response && response->statusCode == 200) {
            std::shared_ptr<gfx::Image> image;
            if (data) {
                image = gfx::Image::fromData(*data, 1.0, tiles::kLayerImageLimits);
            }
            if (!image) {
                // An error page sent as 200, a cut or oversized picture: kept, it would
                // answer every later load of this tile, long after the server healed.
                net::URLCache::shared().removeCachedResponse(request.url());
                if (response->url.absoluteString() != request.url().absoluteString()) {
                    net::URLCache::shared().removeCachedResponse(response->url);
                }
            }
            if (!image) {
                noteFailure(tiles::LayerFailure::Cause::NotAnImage, {}, response, data);
            } else if (!isTilePicture(*image)) {
                noteFailure(tiles::LayerFailure::Cause::WrongSize,
                            strformat("%d x %d", image->pixelWidth(), image->pixelHeight()),
                            response, data);
            }
            if (cacheMode != 2) {
                tiles::TileCache::shared().store(tiles::cacheName(request.url().absoluteString()),
                                                 image.get());
            }
            return image;
        }
        if (k >= 2) {
            noteFailure(tiles::LayerFailure::Cause::Status, {}, response, data);
            return nullptr;
        }
    }
}

std::optional<net::Data> SMTileOverlay::sendSynchronousRequest(
    const net::URLRequest& request, std::optional<net::HTTPURLResponse>* response,
    std::optional<net::Error>* error) {
    // The shared session runs the transfer on this tile thread: the answer is not handed from
    // thread to thread, and the request's own timeout ends a hung transfer as a transport
    // error, so the call always returns.
    auto result = net::URLSession::shared().sendSynchronousRequest(request);
    if (response) {
        *response = std::move(result.response);
    }
    if (error) {
        *error = std::move(result.error);
    }
    if (result.error) {
        return std::nullopt;
    }
    return std::move(result.data);
}

}  // namespace sorvan

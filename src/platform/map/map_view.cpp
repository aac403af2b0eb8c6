#include "sorvan/platform/map/map_view.hpp"

#include <cairo.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <numbers>
#include <thread>
#include <unordered_map>

#include "map/tile_store.hpp"
#include "map/user_location_view.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/map/tile_overlay.hpp"
#include "sorvan/platform/ui/controls.hpp"
#include "ui/cairo_util.hpp"

namespace sorvan::map {

// Delegate defaults: a delegate overrides only what it needs.
std::shared_ptr<AnnotationView> MapViewDelegate::viewForAnnotation(
    MapView&, const std::shared_ptr<Annotation>&) {
    return nullptr;
}
std::shared_ptr<OverlayRenderer> MapViewDelegate::rendererForOverlay(
    MapView&, const std::shared_ptr<Overlay>&) {
    return nullptr;
}
void MapViewDelegate::regionDidChangeAnimated(MapView&, bool) {}
void MapViewDelegate::didSelectAnnotationView(MapView&, const std::shared_ptr<AnnotationView>&) {}
void MapViewDelegate::didDeselectAnnotationView(MapView&, const std::shared_ptr<AnnotationView>&) {}

namespace {

constexpr double kMaxZoomLevel = 22.0;  // deepest zoom the viewport allows
constexpr std::size_t kDefaultTileCache = 64u << 20;
constexpr std::size_t kDrawnTileBudget = 96u << 20;  // drawn tiles kept beyond the visible ones
constexpr std::size_t kMaxTilesPerLayer = 4096;
constexpr double kAnnotationMargin = 50;  // points beyond the bounds where views are made

double toRadians(double degrees) {
    return degrees * std::numbers::pi / 180.0;
}

double wrapDelta(double dx) {
    if (dx > kMapWorldSize / 2 || dx < -kMapWorldSize / 2)
        dx -= std::round(dx / kMapWorldSize) * kMapWorldSize;
    return dx;
}

// A fixed set of threads running queued tasks first in, first out.
class WorkerPool {
  public:
    explicit WorkerPool(int threads) {
        for (int i = 0; i < std::max(1, threads); ++i)
            threads_.emplace_back([this] { run(); });
    }
    ~WorkerPool() {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
            tasks_.clear();
        }
        cv_.notify_all();
        for (auto& t : threads_)
            t.join();
    }
    void post(std::function<void()> task) {
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        cv_.notify_one();
    }

  private:
    void run() {
        for (;;) {
            std::function<void()> task;
            {
                std::unique_lock lock(mutex_);
                cv_.wait(lock, [this] { return stop_ || !tasks_.empty(); });
                if (stop_)
                    return;
                task = std::move(tasks_.front());
                tasks_.pop_front();
            }
            task();
        }
    }
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> tasks_;
    bool stop_ = false;
    std::vector<std::thread> threads_;
};

struct SurfaceRelease {
    void operator()(cairo_surface_t* s) const noexcept { cairo_surface_destroy(s); }
};
using SharedSurface = std::shared_ptr<cairo_surface_t>;

struct DrawKey {
    const OverlayRenderer* renderer = nullptr;
    std::int64_t z = 0, x = 0, y = 0;
    bool operator==(const DrawKey&) const = default;
};
struct DrawKeyHash {
    std::size_t operator()(const DrawKey& k) const noexcept {
        std::size_t h = std::hash<const void*>()(k.renderer);
        for (std::int64_t v : {k.z, k.x, k.y})
            h = h * 1000003u ^ std::hash<std::int64_t>()(v);
        return h;
    }
};

// A tile as the renderer last drew it, and the draw in flight for it, if any.
struct DrawnTile {
    SharedSurface surface;
    bool valid = false, opaque = false, empty = true;
    std::uint64_t generation = 0, version = 0;
    bool pending = false;
    std::uint64_t pendingGeneration = 0, pendingVersion = 0;
    std::uint64_t lastFrame = 0;
    std::size_t bytes = 0;
};

struct TileRef {
    std::int64_t x, y, ux;  // x wrapped into the world; ux as it lies on screen
};

struct LayerPlan {
    std::shared_ptr<OverlayRenderer> renderer;
    std::int64_t z = 0;
    double tileWidth = 0;  // map points
    int pixels = 0;        // surface side of a drawn tile
    std::vector<TileRef> tiles;
};

struct FramePlan {
    std::vector<LayerPlan> layers;
    std::size_t pending = 0;
    bool replacesContent = false;
};

// The annotation views' parent: not one of the map view's subviews, but it routes the views'
// needs-display requests to the map.
class AnnotationContainer : public ui::View {
  public:
    explicit AnnotationContainer(MapView* map) : map_(map) {}
    void setNeedsDisplay() override { map_->setNeedsDisplay(); }

  private:
    MapView* map_;
};

}  // namespace

// Lifetime token for tasks posted to the main queue: they hold it weakly and do nothing once
// the map view is gone. Created and destroyed on the main queue.
struct Life {
    MapView* view;
    std::uint64_t progress = 0;
};

struct MapView::Impl {
    explicit Impl(MapView& v) : view(v), life(std::make_shared<Life>(Life{&v})) {}

    MapView& view;
    std::weak_ptr<MapViewDelegate> delegate;
    double scale = 2.0;
    MapPoint center{kMapWorldSize / 2, kMapWorldSize / 2};
    double zoom = 0;  // points per map point
    double heading = 0;

    struct OverlayEntry {
        std::shared_ptr<Overlay> overlay;
        std::shared_ptr<OverlayRenderer> renderer;
        std::shared_ptr<std::atomic<bool>> live;
    };
    std::vector<OverlayEntry> overlays;

    std::vector<std::shared_ptr<Annotation>> annotations;
    std::unordered_map<const Annotation*, std::shared_ptr<AnnotationView>> views;
    std::weak_ptr<Annotation> selected;
    std::shared_ptr<AnnotationContainer> container;

    bool showsUser = false;
    std::shared_ptr<UserLocation> user = std::make_shared<UserLocation>();
    std::shared_ptr<LocationSource> source;
    bool sourceRunning = false;

    MapType mapType = MapType::Standard;
    PointOfInterestFilter poiFilter;

    std::function<void()> needsDisplayCallback;
    bool displayPosted = false;
    int renderDepth = 0;

    int tileThreads = 4;
    std::shared_ptr<detail::TileStore> store =
        std::make_shared<detail::TileStore>(kDefaultTileCache);
    std::unique_ptr<WorkerPool> loadPool, drawPool;
    std::unordered_map<DrawKey, DrawnTile, DrawKeyHash> drawn;
    std::uint64_t frame = 0;

    std::shared_ptr<Life> life;

    // Viewport ---------------------------------------------------------------------------
    double width() const { return view.bounds().size.width; }
    double height() const { return view.bounds().size.height; }
    double minZoom() const { return std::max(1.0, width()) / kMapWorldSize; }
    double maxZoom() const { return std::exp2(kMaxZoomLevel - 20.0); }

    void normalise() {
        zoom = std::clamp(zoom, minZoom(), maxZoom());
        center.x = std::fmod(center.x, kMapWorldSize);
        if (center.x < 0)
            center.x += kMapWorldSize;
        center.y = std::clamp(center.y, 0.0, kMapWorldSize);
        heading = std::fmod(heading, 360.0);
        if (heading < 0)
            heading += 360.0;
        if (heading >= 360.0)
            heading = 0;
    }

    gfx::Point pointFromMap(MapPoint p) const {
        double dx = wrapDelta(p.x - center.x) * zoom, dy = (p.y - center.y) * zoom;
        double t = toRadians(-heading), c = std::cos(t), s = std::sin(t);
        return {dx * c - dy * s + width() / 2, dx * s + dy * c + height() / 2};
    }

    // Unwrapped: x may fall outside the world when the view straddles the antimeridian.
    MapPoint mapFromPoint(gfx::Point p) const {
        double dx = p.x - width() / 2, dy = p.y - height() / 2;
        double t = toRadians(heading), c = std::cos(t), s = std::sin(t);
        return {center.x + (dx * c - dy * s) / zoom, center.y + (dx * s + dy * c) / zoom};
    }

    MapRect visibleRect() const {
        double w = width() / zoom, h = height() / zoom;
        return {{center.x - w / 2, center.y - h / 2}, {w, h}};
    }

    // The zoom that shows a map rect of this size whole.
    double zoomFitting(double w, double h) const {
        double zx = w > 0 ? width() / w : INFINITY, zy = h > 0 ? height() / h : INFINITY;
        double z = std::min(zx, zy);
        return std::isfinite(z) ? z : zoom;
    }

    static double spanHeight(const CoordinateRegion& r) {
        double top = std::min(85.0511287798, r.center.latitude + r.span.latitudeDelta / 2);
        double bottom = std::max(-85.0511287798, r.center.latitude - r.span.latitudeDelta / 2);
        return mapPointForCoordinate({bottom, r.center.longitude}).y -
               mapPointForCoordinate({top, r.center.longitude}).y;
    }

    CoordinateRegion regionFor(MapPoint c, double z) const {
        double w = width() / z, h = height() / z;
        CoordinateRegion r;
        r.center = coordinateForMapPoint({c.x, c.y});
        r.span.longitudeDelta = w * 360.0 / kMapWorldSize;
        r.span.latitudeDelta = coordinateForMapPoint({c.x, c.y - h / 2}).latitude -
                               coordinateForMapPoint({c.x, c.y + h / 2}).latitude;
        return r;
    }

    template <class F>
    void changeViewport(bool animated, F&& mutate) {
        MapPoint oldCenter = center;
        double oldZoom = zoom, oldHeading = heading;
        mutate();
        normalise();
        if (center == oldCenter && zoom == oldZoom && heading == oldHeading)
            return;
        postRegionChange(animated);
        view.setNeedsDisplay();
    }

    void postRegionChange(bool animated) {
        std::weak_ptr<Life> weak = life;
        dispatch::RunLoop::main().async([weak, animated] {
            auto l = weak.lock();
            if (!l)
                return;
            if (auto d = l->view->impl_->delegate.lock())
                d->regionDidChangeAnimated(*l->view, animated);
        });
    }

    // Overlays ---------------------------------------------------------------------------
    std::ptrdiff_t indexOf(const Overlay* o) const {
        for (std::size_t i = 0; i < overlays.size(); ++i)
            if (overlays[i].overlay.get() == o)
                return static_cast<std::ptrdiff_t>(i);
        return -1;
    }

    void insert(const std::shared_ptr<Overlay>& overlay, std::size_t index) {
        if (!overlay || indexOf(overlay.get()) >= 0)
            return;
        index = std::min(index, overlays.size());
        overlays.insert(overlays.begin() + static_cast<std::ptrdiff_t>(index),
                        {overlay, nullptr, std::make_shared<std::atomic<bool>>(true)});
        // The delegate may change the overlay list while it is asked; look the entry up again.
        std::shared_ptr<OverlayRenderer> renderer;
        if (auto d = delegate.lock())
            renderer = d->rendererForOverlay(view, overlay);
        auto i = indexOf(overlay.get());
        if (i < 0)
            return;
        overlays[static_cast<std::size_t>(i)].renderer = renderer;
        if (renderer) {
            auto self = std::static_pointer_cast<MapView>(view.weak_from_this().lock());
            renderer->attach(self);
            if (auto tile = std::dynamic_pointer_cast<TileOverlayRenderer>(renderer))
                tile->attachTileStore(store);
        }
        view.setNeedsDisplay();
    }

    void remove(const Overlay* overlay) {
        auto i = indexOf(overlay);
        if (i < 0)
            return;
        OverlayEntry entry = overlays[static_cast<std::size_t>(i)];
        overlays.erase(overlays.begin() + i);
        entry.live->store(false);
        store->forget(overlay);
        if (entry.renderer) {
            const OverlayRenderer* r = entry.renderer.get();
            std::erase_if(drawn, [r](const auto& kv) { return kv.first.renderer == r; });
            // Another map may show the same renderer; only detach it from this one.
            auto mine = view.weak_from_this().lock();
            if (entry.renderer->mapView() == mine || !entry.renderer->mapView())
                entry.renderer->attach({});
        }
        view.setNeedsDisplay();
    }

    // Annotations ------------------------------------------------------------------------
    bool onMap(const Annotation* a) const {
        if (showsUser && user->isUpdating() && a == user.get())
            return true;
        return std::any_of(annotations.begin(), annotations.end(),
                           [a](const auto& x) { return x.get() == a; });
    }

    std::vector<std::shared_ptr<Annotation>> allAnnotations() const {
        auto all = annotations;
        if (showsUser && user->isUpdating())
            all.push_back(user);
        return all;
    }

    std::shared_ptr<AnnotationView> makeView(const std::shared_ptr<Annotation>& a) {
        std::shared_ptr<AnnotationView> v;
        if (auto d = delegate.lock())
            v = d->viewForAnnotation(view, a);
        if (!onMap(a.get()))
            return nullptr;  // the delegate removed it meanwhile
        if (auto it = views.find(a.get()); it != views.end())
            return it->second;
        if (!v) {
            if (a == user) {
                v = std::make_shared<detail::UserLocationView>(a);
            } else {
                auto pin = std::make_shared<PinAnnotationView>(a);
                v = pin;
            }
        }
        views[a.get()] = v;
        container->addSubview(v);
        if (auto pin = std::dynamic_pointer_cast<PinAnnotationView>(v);
            pin && pin->animatesDrop()) {
            gfx::AffineTransform above;
            above.ty = -std::max(60.0, height() / 3);
            pin->setTransform(above);
            pin->animateTransform(gfx::AffineTransform::identity(), 0.3);
        }
        return v;
    }

    bool nearScreen(const Annotation& a) const {
        gfx::Point p = pointFromMap(mapPointForCoordinate(a.coordinate()));
        return p.x >= -kAnnotationMargin && p.y >= -kAnnotationMargin &&
               p.x <= width() + kAnnotationMargin && p.y <= height() + kAnnotationMargin;
    }

    void updateAnnotationViews() {
        for (auto& a : allAnnotations()) {
            if (views.count(a.get()) || !nearScreen(*a))
                continue;
            makeView(a);
        }
    }

    // Positions every view on its annotation; returns them bottom first.
    std::vector<std::shared_ptr<AnnotationView>> placeViews() {
        struct Placed {
            std::shared_ptr<AnnotationView> view;
            std::size_t order;
        };
        std::vector<Placed> placed;
        std::size_t order = 0;
        for (auto& a : allAnnotations()) {
            auto it = views.find(a.get());
            ++order;
            if (it == views.end())
                continue;
            auto& v = it->second;
            gfx::Point p = pointFromMap(mapPointForCoordinate(a->coordinate()));
            gfx::Size s = v->frame().size;
            gfx::Point o = v->centerOffset();
            v->setFrame({{p.x + o.x - s.width / 2, p.y + o.y - s.height / 2}, s});
            placed.push_back({v, order});
        }
        std::stable_sort(placed.begin(), placed.end(), [](const Placed& x, const Placed& y) {
            return x.view->zPosition() < y.view->zPosition();
        });
        std::vector<std::shared_ptr<AnnotationView>> out;
        out.reserve(placed.size());
        for (auto& p : placed)
            out.push_back(std::move(p.view));
        return out;
    }

    // Tiles ------------------------------------------------------------------------------
    void ensurePools() {
        if (!loadPool)
            loadPool = std::make_unique<WorkerPool>(tileThreads);
        if (!drawPool) {
            unsigned hw = std::thread::hardware_concurrency();
            drawPool = std::make_unique<WorkerPool>(static_cast<int>(std::clamp(hw, 2u, 4u)));
        }
    }

    void noteProgress() {
        ++life->progress;
        view.setNeedsDisplay();
    }

    void postLoad(const OverlayEntry& entry, const std::shared_ptr<TileOverlay>& overlay,
                  detail::TileKey key, std::uint64_t epoch) {
        ensurePools();
        std::weak_ptr<Life> weak = life;
        auto tiles = store;
        auto live = entry.live;
        loadPool->post([weak, tiles, live, overlay, key, epoch] {
            if (!live->load())
                return;  // removed from the map while queued
            auto once = std::make_shared<std::atomic<bool>>(false);
            TilePath path{key.x, key.y, key.z, 2.0};
            auto result = [weak, tiles, key, epoch, once](std::vector<std::uint8_t> data,
                                                          std::optional<std::string> error) {
                if (once->exchange(true))
                    return;
                std::shared_ptr<gfx::Image> image;
                if (!error && !data.empty())
                    image = gfx::Image::fromData(data, 2.0);
                tiles->finishLoad(key, epoch, std::move(image), error.has_value());
                dispatch::RunLoop::main().async([weak] {
                    if (auto l = weak.lock())
                        l->view->impl_->noteProgress();
                });
            };
            try {
                overlay->loadTileAtPath(path, result);
            } catch (const std::exception& e) {
                log::writef("tile load failed (%lld/%lld/%lld): %s", static_cast<long long>(key.z),
                            static_cast<long long>(key.x), static_cast<long long>(key.y), e.what());
                result({}, std::string(e.what()));
            }
        });
    }

    void postDraw(const std::shared_ptr<OverlayRenderer>& renderer, DrawKey key, MapRect rect,
                  double zoomScale, int pixels, std::uint64_t generation, std::uint64_t version) {
        ensurePools();
        std::weak_ptr<Life> weak = life;
        drawPool->post([weak, renderer, key, rect, zoomScale, pixels, generation, version] {
            SharedSurface surface;
            bool opaque = false, empty = true;
            if (renderer->canDrawMapRect(rect, zoomScale)) {
                surface.reset(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixels, pixels),
                              SurfaceRelease());
                if (cairo_surface_status(surface.get()) == CAIRO_STATUS_SUCCESS) {
                    cairo_t* cr = cairo_create(surface.get());
                    double k = pixels / rect.size.width;
                    cairo_scale(cr, k, k);
                    cairo_translate(cr, -rect.origin.x, -rect.origin.y);
                    renderer->drawMapRect(rect, zoomScale, cr);
                    cairo_destroy(cr);
                    cairo_surface_flush(surface.get());
                    auto* data = cairo_image_surface_get_data(surface.get());
                    int stride = cairo_image_surface_get_stride(surface.get());
                    opaque = true;
                    for (int y = 0; y < pixels; ++y) {
                        auto* row = reinterpret_cast<const std::uint32_t*>(data + y * stride);
                        for (int x = 0; x < pixels; ++x) {
                            std::uint32_t a = row[x] >> 24;
                            if (a != 255)
                                opaque = false;
                            if (a != 0)
                                empty = false;
                        }
                    }
                } else {
                    surface.reset();
                }
            }
            // The renderer goes back to the main queue with the result, so that the last
            // reference to it is never dropped on a draw thread.
            dispatch::RunLoop::main().async(
                [weak, renderer, key, surface, opaque, empty, generation, version] {
                    auto l = weak.lock();
                    if (!l)
                        return;
                    l->view->impl_->install(key, surface, opaque, empty, generation, version);
                });
        });
    }

    void install(DrawKey key, SharedSurface surface, bool opaque, bool empty,
                 std::uint64_t generation, std::uint64_t version) {
        auto it = drawn.find(key);
        if (it == drawn.end())
            return;  // the renderer left the map
        DrawnTile& d = it->second;
        if (d.pending && d.pendingGeneration == generation && d.pendingVersion == version)
            d.pending = false;
        if (!d.valid || generation > d.generation || version >= d.version) {
            d.surface = std::move(surface);
            d.valid = true;
            d.opaque = opaque;
            d.empty = empty || !d.surface;
            d.generation = generation;
            d.version = version;
            d.bytes =
                d.surface
                    ? static_cast<std::size_t>(cairo_image_surface_get_stride(d.surface.get())) *
                          cairo_image_surface_get_height(d.surface.get())
                    : 0;
        }
        noteProgress();
    }

    FramePlan plan() {
        ++frame;
        FramePlan fp;
        MapPoint corners[4] = {mapFromPoint({0, 0}), mapFromPoint({width(), 0}),
                               mapFromPoint({0, height()}), mapFromPoint({width(), height()})};
        double minX = corners[0].x, maxX = minX, minY = corners[0].y, maxY = minY;
        for (auto& c : corners) {
            minX = std::min(minX, c.x);
            maxX = std::max(maxX, c.x);
            minY = std::min(minY, c.y);
            maxY = std::max(maxY, c.y);
        }
        double worldPoints = kMapWorldSize * zoom;
        for (auto& entry : overlays) {
            auto tileOverlay = std::dynamic_pointer_cast<TileOverlay>(entry.overlay);
            if (tileOverlay && tileOverlay->canReplaceMapContent())
                fp.replacesContent = true;
            if (!entry.renderer)
                continue;
            LayerPlan layer;
            layer.renderer = entry.renderer;
            double tileSize = 256;
            MapRect bounds{{0, 0}, {kMapWorldSize, kMapWorldSize}};
            if (tileOverlay) {
                tileSize = tileOverlay->tileSize().width;
                if (tileSize <= 0)
                    continue;
                // Tile sizes are pixels of a 2x display: a tile covers tileSize / 2 points.
                auto z = std::llround(std::log2(worldPoints / (tileSize / 2)));
                if (z < tileOverlay->minimumZ())
                    continue;
                layer.z = std::min<std::int64_t>(z, tileOverlay->maximumZ());
                if (layer.z < 0)
                    continue;
            } else {
                layer.z =
                    std::clamp<std::int64_t>(std::llround(std::log2(worldPoints / 128)), 0, 30);
                bounds = entry.overlay->boundingMapRect();
            }
            if (layer.z > 40)
                continue;
            double n = std::exp2(static_cast<double>(layer.z));
            layer.tileWidth = kMapWorldSize / n;
            layer.pixels = std::max(1, static_cast<int>(std::lround(tileSize / 2 * scale)));
            double zoomScale = tileSize / layer.tileWidth;
            auto x0 = static_cast<std::int64_t>(std::floor(minX / layer.tileWidth));
            auto x1 = static_cast<std::int64_t>(std::ceil(maxX / layer.tileWidth)) - 1;
            auto y0 = std::max<std::int64_t>(
                0, static_cast<std::int64_t>(std::floor(minY / layer.tileWidth)));
            auto y1 = std::min<std::int64_t>(
                static_cast<std::int64_t>(n) - 1,
                static_cast<std::int64_t>(std::ceil(maxY / layer.tileWidth)) - 1);
            if (x1 < x0 || y1 < y0)
                continue;
            if (static_cast<double>(x1 - x0 + 1) * static_cast<double>(y1 - y0 + 1) >
                kMaxTilesPerLayer)
                continue;
            // Vector overlays spill a little beyond their bounds (line widths).
            double margin = 64 / zoom;
            MapRect grown{{bounds.minX() - margin, bounds.minY() - margin},
                          {bounds.size.width + 2 * margin, bounds.size.height + 2 * margin}};
            auto period = static_cast<std::int64_t>(n);
            std::uint64_t generation = entry.renderer->displayGeneration();
            for (std::int64_t y = y0; y <= y1; ++y) {
                for (std::int64_t ux = x0; ux <= x1; ++ux) {
                    std::int64_t x = ((ux % period) + period) % period;
                    MapRect rect{{static_cast<double>(x) * layer.tileWidth,
                                  static_cast<double>(y) * layer.tileWidth},
                                 {layer.tileWidth, layer.tileWidth}};
                    if (!tileOverlay && !rect.intersects(grown))
                        continue;
                    layer.tiles.push_back({x, y, ux});
                    DrawKey key{entry.renderer.get(), layer.z, x, y};
                    DrawnTile& d = drawn[key];
                    d.lastFrame = frame;
                    std::uint64_t version = 0;
                    if (tileOverlay) {
                        detail::TileKey tk{entry.overlay.get(), layer.z, x, y};
                        auto found = store->lookup(tk);
                        using State = detail::TileStore::State;
                        // A drawn tile outlives its data in the memory cache: it needs the
                        // data again only to be redrawn.
                        if (d.valid && d.generation == generation &&
                            (found.state == State::Absent || found.version == d.version))
                            continue;
                        if (found.state == State::Absent) {
                            if (auto epoch = store->beginLoad(tk))
                                postLoad(entry, tileOverlay, tk, epoch);
                            ++fp.pending;
                            continue;
                        }
                        if (found.state == State::Loading) {
                            ++fp.pending;
                            continue;
                        }
                        if (found.state == State::Failed)
                            continue;
                        version = found.version;
                    }
                    if (d.valid && d.generation == generation && d.version == version)
                        continue;
                    ++fp.pending;
                    if (d.pending && d.pendingGeneration == generation &&
                        d.pendingVersion == version)
                        continue;
                    d.pending = true;
                    d.pendingGeneration = generation;
                    d.pendingVersion = version;
                    postDraw(entry.renderer, key, rect, zoomScale, layer.pixels, generation,
                             version);
                }
            }
            fp.layers.push_back(std::move(layer));
        }
        return fp;
    }

    // Keeps the drawn tiles of this frame and as many recent others as the budget allows.
    void evictDrawn() {
        std::size_t total = 0;
        std::vector<std::pair<std::uint64_t, DrawKey>> old;
        for (auto& [k, d] : drawn) {
            total += d.bytes;
            if (d.lastFrame != frame && !d.pending)
                old.push_back({d.lastFrame, k});
        }
        std::size_t visible = 0;
        for (auto& [k, d] : drawn)
            if (d.lastFrame == frame)
                visible += d.bytes;
        std::size_t budget = visible + kDrawnTileBudget;
        if (total <= budget)
            return;
        std::sort(old.begin(), old.end(), [](auto& a, auto& b) { return a.first < b.first; });
        for (auto& [f, k] : old) {
            if (total <= budget)
                break;
            auto it = drawn.find(k);
            total -= it->second.bytes;
            drawn.erase(it);
        }
    }

    // Composition --------------------------------------------------------------------------
    void backgroundColor(const FramePlan& fp, double rgb[3]) const {
        if (fp.replacesContent) {
            rgb[0] = rgb[1] = rgb[2] = 1.0;
        } else if (mapType == MapType::MutedStandard) {
            rgb[0] = 0.96, rgb[1] = 0.953, rgb[2] = 0.933;
        } else {
            rgb[0] = 0.914, rgb[1] = 0.898, rgb[2] = 0.863;
        }
    }

    // Paints a drawn tile whose top-left corner lies at (ox, oy) map points from the centre
    // (unwrapped) and which spans tileWidth map points; clip, when given, is the part to show
    // in the same frame.
    void paintTile(cairo_t* cr, const DrawnTile& d, double ox, double oy, double tileWidth,
                   const MapRect* clip) const {
        if (!d.surface || d.empty)
            return;
        int pixels = cairo_image_surface_get_width(d.surface.get());
        double k = tileWidth / pixels;  // map points per tile pixel
        cairo_save(cr);
        cairo_matrix_t base;
        cairo_get_matrix(cr, &base);
        double devicePerPixel = base.xx * zoom * k;
        bool straight = heading == 0 && base.xy == 0 && base.yx == 0 && base.xx == base.yy &&
                        std::abs(devicePerPixel - 1) < 1e-9 && clip == nullptr;
        if (straight) {
            // One tile pixel per device pixel: place it on whole pixels so the copy is exact
            // and takes the fast path.
            double dx = width() / 2 + ox * zoom, dy = height() / 2 + oy * zoom;
            cairo_user_to_device(cr, &dx, &dy);
            cairo_identity_matrix(cr);
            cairo_translate(cr, std::round(dx), std::round(dy));
            cairo_set_source_surface(cr, d.surface.get(), 0, 0);
            cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
        } else {
            cairo_translate(cr, width() / 2, height() / 2);
            cairo_rotate(cr, toRadians(-heading));
            cairo_scale(cr, zoom, zoom);
            if (clip) {
                cairo_rectangle(cr, clip->minX(), clip->minY(), clip->size.width,
                                clip->size.height);
                cairo_clip(cr);
            }
            cairo_translate(cr, ox, oy);
            cairo_scale(cr, k, k);
            cairo_set_source_surface(cr, d.surface.get(), 0, 0);
            cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_BILINEAR);
            cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
        }
        if (d.opaque && !clip)
            cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
        if (!straight && d.opaque) {
            // Antialiased edges of neighbouring tiles would let the ground show through as a
            // faint seam; opaque tiles overlap by a pixel instead (translucent ones must not,
            // or the overlap would show darker).
            cairo_rectangle(cr, -0.5, -0.5, pixels + 1, pixels + 1);
        } else {
            cairo_rectangle(cr, 0, 0, pixels, pixels);
        }
        cairo_fill(cr);
        cairo_restore(cr);
    }

    void compose(cairo_t* cr, const FramePlan& fp) {
        double rgb[3];
        backgroundColor(fp, rgb);
        cairo_save(cr);
        cairo_set_source_rgb(cr, rgb[0], rgb[1], rgb[2]);
        cairo_rectangle(cr, 0, 0, width(), height());
        cairo_fill(cr);
        cairo_rectangle(cr, 0, 0, width(), height());
        cairo_clip(cr);
        for (const LayerPlan& layer : fp.layers) {
            for (const TileRef& t : layer.tiles) {
                double ox = static_cast<double>(t.ux) * layer.tileWidth - center.x;
                double oy = static_cast<double>(t.y) * layer.tileWidth - center.y;
                auto it = drawn.find({layer.renderer.get(), layer.z, t.x, t.y});
                if (it != drawn.end() && it->second.valid) {
                    paintTile(cr, it->second, ox, oy, layer.tileWidth, nullptr);
                    continue;
                }
                // Not drawn yet: show a coarser level's tile while this one comes.
                for (int up = 1; up <= 4 && layer.z - up >= 0; ++up) {
                    auto parent =
                        drawn.find({layer.renderer.get(), layer.z - up, t.x >> up, t.y >> up});
                    if (parent == drawn.end() || !parent->second.valid)
                        continue;
                    double pw = layer.tileWidth * std::exp2(up);
                    double pox =
                        ox - static_cast<double>(t.x - ((t.x >> up) << up)) * layer.tileWidth;
                    double poy =
                        oy - static_cast<double>(t.y - ((t.y >> up) << up)) * layer.tileWidth;
                    MapRect clip{{ox, oy}, {layer.tileWidth, layer.tileWidth}};
                    paintTile(cr, parent->second, pox, poy, pw, &clip);
                    break;
                }
            }
        }
        for (auto& v : placeViews()) {
            if (v->isHidden())
                continue;
            gfx::Rect f = v->frame();
            double reach = std::max(f.size.width, f.size.height);
            if (f.maxX() + reach < 0 || f.maxY() + reach < 0 || f.minX() - reach > width() ||
                f.minY() - reach > height())
                continue;
            v->drawHierarchy(cr);
        }
        cairo_restore(cr);
    }

    void startSource() {
        if (!source || sourceRunning || !showsUser)
            return;
        sourceRunning = true;
        std::weak_ptr<Life> weak = life;
        LocationSource::Listener listener;
        listener.didUpdateLocation = [weak](const LocationFix& fix) {
            auto l = weak.lock();
            if (!l)
                return;
            auto& impl = *l->view->impl_;
            if (fix.horizontalAccuracy < 0)
                return;
            impl.user->update(fix.coordinate, impl.user->heading());
            impl.view.setNeedsDisplay();
        };
        listener.didUpdateHeading = [weak](const HeadingFix& h) {
            auto l = weak.lock();
            if (!l)
                return;
            auto& impl = *l->view->impl_;
            if (!impl.user->isUpdating())
                return;
            std::optional<double> degrees;
            if (h.headingAccuracy > 0)
                degrees = h.trueHeading >= 0 ? h.trueHeading : h.magneticHeading;
            impl.user->update(impl.user->coordinate(), degrees);
            impl.view.setNeedsDisplay();
        };
        listener.didFail = [](const std::string&) {};
        source->start(std::move(listener));
    }

    void stopSource() {
        if (source && sourceRunning)
            source->stop();
        sourceRunning = false;
    }
};

// MapView ----------------------------------------------------------------------------------

MapView::MapView(gfx::Rect frame) : ui::View(frame), impl_(std::make_unique<Impl>(*this)) {
    impl_->container = std::make_shared<AnnotationContainer>(this);
    impl_->zoom = impl_->minZoom();
    impl_->normalise();
}

MapView::~MapView() {
    impl_->stopSource();
    impl_->life.reset();
    // Joins the pools: a tile load in progress finishes first.
    impl_->loadPool.reset();
    impl_->drawPool.reset();
}

void MapView::setDelegate(std::weak_ptr<MapViewDelegate> delegate) {
    impl_->delegate = std::move(delegate);
}

std::shared_ptr<MapViewDelegate> MapView::delegate() const {
    return impl_->delegate.lock();
}

double MapView::screenScale() const {
    return impl_->scale;
}

void MapView::setScreenScale(double scale) {
    scale = std::clamp(std::round(scale), 1.0, 3.0);
    if (scale == impl_->scale)
        return;
    impl_->scale = scale;
    impl_->drawn.clear();
    setNeedsDisplay();
}

Coordinate MapView::centerCoordinate() const {
    return coordinateForMapPoint(impl_->center);
}

void MapView::setCenterCoordinate(Coordinate c, bool animated) {
    impl_->changeViewport(animated, [&] { impl_->center = mapPointForCoordinate(c); });
}

CoordinateRegion MapView::region() const {
    return impl_->regionFor(impl_->center, impl_->zoom);
}

CoordinateRegion MapView::regionThatFits(const CoordinateRegion& region) const {
    double w = region.span.longitudeDelta * kMapWorldSize / 360.0;
    double z = std::clamp(impl_->zoomFitting(w, Impl::spanHeight(region)), impl_->minZoom(),
                          impl_->maxZoom());
    return impl_->regionFor(mapPointForCoordinate(region.center), z);
}

void MapView::setRegion(const CoordinateRegion& region, bool animated) {
    if (!std::isfinite(region.center.latitude) || !std::isfinite(region.center.longitude) ||
        !std::isfinite(region.span.latitudeDelta) || !std::isfinite(region.span.longitudeDelta))
        return;
    double w = region.span.longitudeDelta * kMapWorldSize / 360.0;
    double h = Impl::spanHeight(region);
    impl_->changeViewport(animated, [&] {
        impl_->center = mapPointForCoordinate(region.center);
        impl_->zoom = impl_->zoomFitting(w, h);
    });
}

MapRect MapView::visibleMapRect() const {
    return impl_->visibleRect();
}

void MapView::setVisibleMapRect(const MapRect& rect, bool animated) {
    impl_->changeViewport(animated, [&] {
        impl_->center = {rect.origin.x + rect.size.width / 2, rect.origin.y + rect.size.height / 2};
        impl_->zoom = impl_->zoomFitting(rect.size.width, rect.size.height);
    });
}

double MapView::cameraHeading() const {
    return impl_->heading;
}

void MapView::setCameraHeading(double degrees, bool animated) {
    if (!std::isfinite(degrees))
        return;
    impl_->changeViewport(animated, [&] { impl_->heading = degrees; });
}

gfx::Point MapView::convertCoordinateToPoint(Coordinate c, const ui::View* toView) const {
    gfx::Point p = impl_->pointFromMap(mapPointForCoordinate(c));
    return toView ? convertPoint(p, toView) : p;
}

Coordinate MapView::convertPointToCoordinate(gfx::Point p, const ui::View* fromView) const {
    if (fromView && fromView != this)
        p = fromView->convertPoint(p, this);
    MapPoint m = impl_->mapFromPoint(p);
    m.x = std::fmod(m.x, kMapWorldSize);
    if (m.x < 0)
        m.x += kMapWorldSize;
    return coordinateForMapPoint(m);
}

void MapView::setFrame(gfx::Rect frame) {
    gfx::Size old = this->frame().size;
    ui::View::setFrame(frame);
    if (!(old == frame.size)) {
        impl_->normalise();
        impl_->postRegionChange(false);
    }
}

void MapView::panBy(double dx, double dy) {
    impl_->changeViewport(false, [&] {
        double t = toRadians(impl_->heading), c = std::cos(t), s = std::sin(t);
        impl_->center.x -= (dx * c - dy * s) / impl_->zoom;
        impl_->center.y -= (dx * s + dy * c) / impl_->zoom;
    });
}

void MapView::zoomBy(double factor, gfx::Point about) {
    if (!(factor > 0) || !std::isfinite(factor))
        return;
    impl_->changeViewport(false, [&] {
        MapPoint fixed = impl_->mapFromPoint(about);
        impl_->zoom = std::clamp(impl_->zoom * factor, impl_->minZoom(), impl_->maxZoom());
        double vx = about.x - impl_->width() / 2, vy = about.y - impl_->height() / 2;
        double t = toRadians(impl_->heading), c = std::cos(t), s = std::sin(t);
        impl_->center = {fixed.x - (vx * c - vy * s) / impl_->zoom,
                         fixed.y - (vx * s + vy * c) / impl_->zoom};
    });
}

void MapView::rotateBy(double degrees) {
    if (!std::isfinite(degrees))
        return;
    impl_->changeViewport(false, [&] { impl_->heading += degrees; });
}

void MapView::tapAt(gfx::Point point) {
    // Furniture above the map takes the tap first; only buttons act on it.
    std::vector<std::shared_ptr<ui::View>> subs = subviews();
    std::stable_sort(subs.begin(), subs.end(),
                     [](auto& a, auto& b) { return a->zPosition() < b->zPosition(); });
    for (auto it = subs.rbegin(); it != subs.rend(); ++it) {
        auto hit = (*it)->hitTest(convertPoint(point, it->get()));
        for (auto v = hit; v; v = v->superview()) {
            if (v.get() == this)
                break;
            if (auto button = std::dynamic_pointer_cast<ui::Button>(v)) {
                button->sendActions(ui::ControlEvent::TouchUpInside);
                return;
            }
        }
    }
    impl_->updateAnnotationViews();
    auto placed = impl_->placeViews();
    for (auto it = placed.rbegin(); it != placed.rend(); ++it) {
        auto& v = *it;
        if (v->isHidden() || v->alpha() <= 0.01)
            continue;
        gfx::Point local = impl_->container->convertPoint(point, v.get());
        if (!v->bounds().contains(local))
            continue;
        if (auto a = v->annotation()) {
            selectAnnotation(a, true);
            return;
        }
    }
    if (auto s = impl_->selected.lock())
        deselectAnnotation(s, true);
}

// Overlays ---------------------------------------------------------------------------------

std::vector<std::shared_ptr<Overlay>> MapView::overlays() const {
    std::vector<std::shared_ptr<Overlay>> out;
    out.reserve(impl_->overlays.size());
    for (auto& e : impl_->overlays)
        out.push_back(e.overlay);
    return out;
}

void MapView::addOverlay(const std::shared_ptr<Overlay>& overlay) {
    baseAddOverlay(overlay);
}

void MapView::baseAddOverlay(const std::shared_ptr<Overlay>& overlay) {
    impl_->insert(overlay, impl_->overlays.size());
}

void MapView::insertOverlayAbove(const std::shared_ptr<Overlay>& overlay,
                                 const std::shared_ptr<Overlay>& sibling) {
    auto i = impl_->indexOf(sibling.get());
    impl_->insert(overlay, i < 0 ? impl_->overlays.size() : static_cast<std::size_t>(i) + 1);
}

void MapView::insertOverlayAtIndex(const std::shared_ptr<Overlay>& overlay, std::size_t index) {
    impl_->insert(overlay, index);
}

void MapView::removeOverlay(const std::shared_ptr<Overlay>& overlay) {
    baseRemoveOverlays({overlay});
}

void MapView::removeOverlays(const std::vector<std::shared_ptr<Overlay>>& overlays) {
    baseRemoveOverlays(overlays);
}

void MapView::baseRemoveOverlays(const std::vector<std::shared_ptr<Overlay>>& overlays) {
    for (auto& o : overlays)
        if (o)
            impl_->remove(o.get());
}

std::shared_ptr<OverlayRenderer> MapView::rendererForOverlay(
    const std::shared_ptr<Overlay>& o) const {
    auto i = impl_->indexOf(o.get());
    return i < 0 ? nullptr : impl_->overlays[static_cast<std::size_t>(i)].renderer;
}

// Annotations ------------------------------------------------------------------------------

std::vector<std::shared_ptr<Annotation>> MapView::annotations() const {
    return impl_->allAnnotations();
}

void MapView::addAnnotation(const std::shared_ptr<Annotation>& annotation) {
    if (!annotation || impl_->onMap(annotation.get()))
        return;
    impl_->annotations.push_back(annotation);
    setNeedsDisplay();
}

void MapView::addAnnotations(const std::vector<std::shared_ptr<Annotation>>& annotations) {
    for (auto& a : annotations)
        addAnnotation(a);
}

void MapView::removeAnnotation(const std::shared_ptr<Annotation>& annotation) {
    if (!annotation)
        return;
    auto& list = impl_->annotations;
    auto it = std::find(list.begin(), list.end(), annotation);
    if (it == list.end())
        return;
    list.erase(it);
    if (auto v = impl_->views.find(annotation.get()); v != impl_->views.end()) {
        auto view = v->second;
        impl_->views.erase(v);
        view->setSelected(false);
        view->removeFromSuperview();
    }
    if (impl_->selected.lock() == annotation)
        impl_->selected.reset();
    setNeedsDisplay();
}

void MapView::removeAnnotations(const std::vector<std::shared_ptr<Annotation>>& annotations) {
    for (auto& a : annotations)
        removeAnnotation(a);
}

std::shared_ptr<AnnotationView> MapView::viewForAnnotation(
    const std::shared_ptr<Annotation>& annotation) const {
    if (!annotation)
        return nullptr;
    auto it = impl_->views.find(annotation.get());
    return it == impl_->views.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<Annotation>> MapView::selectedAnnotations() const {
    auto s = impl_->selected.lock();
    if (!s || !impl_->onMap(s.get()))
        return {};
    return {s};
}

void MapView::selectAnnotation(const std::shared_ptr<Annotation>& annotation, bool animated) {
    if (!annotation || !impl_->onMap(annotation.get()))
        return;
    if (impl_->selected.lock() == annotation)
        return;
    if (auto previous = impl_->selected.lock())
        deselectAnnotation(previous, animated);
    auto view = viewForAnnotation(annotation);
    if (!view)
        view = impl_->makeView(annotation);
    if (!view)
        return;
    impl_->selected = annotation;
    view->setSelected(true);
    // Selection is recorded before the delegate hears of it, so that the delegate may undo it.
    if (auto d = impl_->delegate.lock())
        d->didSelectAnnotationView(*this, view);
}

void MapView::deselectAnnotation(const std::shared_ptr<Annotation>& annotation, bool) {
    if (!annotation || impl_->selected.lock() != annotation)
        return;
    impl_->selected.reset();
    auto view = viewForAnnotation(annotation);
    if (!view)
        return;
    view->setSelected(false);
    if (auto d = impl_->delegate.lock())
        d->didDeselectAnnotationView(*this, view);
}

// User location ----------------------------------------------------------------------------

bool MapView::showsUserLocation() const {
    return impl_->showsUser;
}

void MapView::setShowsUserLocation(bool shows) {
    if (shows == impl_->showsUser)
        return;
    impl_->showsUser = shows;
    if (shows) {
        impl_->startSource();
    } else {
        impl_->stopSource();
        if (auto v = impl_->views.find(impl_->user.get()); v != impl_->views.end()) {
            v->second->removeFromSuperview();
            impl_->views.erase(v);
        }
    }
    setNeedsDisplay();
}

std::shared_ptr<UserLocation> MapView::userLocation() const {
    return impl_->user;
}

void MapView::setLocationSource(std::shared_ptr<LocationSource> source) {
    impl_->stopSource();
    impl_->source = std::move(source);
    impl_->startSource();
}

// Appearance -------------------------------------------------------------------------------

MapType MapView::mapType() const {
    return impl_->mapType;
}

void MapView::setMapType(MapType type) {
    impl_->mapType = type;
    setNeedsDisplay();
}

PointOfInterestFilter MapView::pointOfInterestFilter() const {
    return impl_->poiFilter;
}

void MapView::setPointOfInterestFilter(PointOfInterestFilter filter) {
    impl_->poiFilter = std::move(filter);
}

// Frames -----------------------------------------------------------------------------------

void MapView::setNeedsDisplayCallback(std::function<void()> callback) {
    impl_->needsDisplayCallback = std::move(callback);
}

void MapView::setNeedsDisplay() {
    // Placing annotation views while composing a frame is not news for the front end.
    if (impl_->renderDepth > 0 || impl_->displayPosted)
        return;
    impl_->displayPosted = true;
    std::weak_ptr<Life> weak = impl_->life;
    dispatch::RunLoop::main().async([weak] {
        auto l = weak.lock();
        if (!l)
            return;
        MapView& view = *l->view;
        view.impl_->displayPosted = false;
        view.layoutIfNeeded();
        view.impl_->updateAnnotationViews();
        if (auto callback = view.impl_->needsDisplayCallback)
            callback();
    });
}

void MapView::setTileThreadCount(int count) {
    impl_->tileThreads = std::max(1, count);
}

void MapView::setTileCacheLimit(std::size_t bytes) {
    impl_->store->setLimit(bytes);
}

std::size_t MapView::tileCacheBytes() const {
    return impl_->store->bytes();
}

void MapView::layoutSubviews() {
    ui::View::layoutSubviews();
}

void MapView::draw(cairo_t* context, gfx::Rect) {
    ++impl_->renderDepth;
    FramePlan fp = impl_->plan();
    impl_->compose(context, fp);
    impl_->evictDrawn();
    --impl_->renderDepth;
}

void MapView::drawFrame(cairo_t* context) {
    layoutIfNeeded();
    impl_->updateAnnotationViews();
    draw(context, bounds());
    ++impl_->renderDepth;
    std::vector<std::shared_ptr<ui::View>> subs = subviews();
    std::stable_sort(subs.begin(), subs.end(),
                     [](auto& a, auto& b) { return a->zPosition() < b->zPosition(); });
    for (auto& s : subs)
        s->drawHierarchy(context);
    --impl_->renderDepth;
}

std::shared_ptr<gfx::Image> MapView::render(std::chrono::duration<double> timeout) {
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(timeout);
    auto& loop = dispatch::RunLoop::main();
    layoutIfNeeded();
    impl_->updateAnnotationViews();
    for (;;) {
        ++impl_->renderDepth;
        FramePlan fp = impl_->plan();
        --impl_->renderDepth;
        bool animating = isAnimating() || impl_->container->isAnimating();
        if (fp.pending == 0 && !animating)
            break;
        auto now = Clock::now();
        if (now >= deadline)
            break;
        std::uint64_t before = impl_->life->progress;
        std::chrono::duration<double> wait = deadline - now;
        if (animating)
            wait = std::min(wait, std::chrono::duration<double>(1.0 / 60));
        auto life = impl_->life;
        loop.runUntil([life, before] { return life->progress != before; }, wait);
        layoutIfNeeded();
        impl_->updateAnnotationViews();
    }
    int w = static_cast<int>(std::ceil(impl_->width() * impl_->scale));
    int h = static_cast<int>(std::ceil(impl_->height() * impl_->scale));
    w = std::max(w, 1);
    h = std::max(h, 1);
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
    {
        ui::detail::SurfacePtr surface(cairo_image_surface_create_for_data(
            reinterpret_cast<unsigned char*>(pixels.data()), CAIRO_FORMAT_ARGB32, w, h, w * 4));
        ui::detail::ContextPtr cr(cairo_create(surface.get()));
        cairo_scale(cr.get(), impl_->scale, impl_->scale);
        drawFrame(cr.get());
        cairo_surface_flush(surface.get());
    }
    return gfx::Image::fromPixels(w, h, std::move(pixels), impl_->scale);
}

}  // namespace sorvan::map

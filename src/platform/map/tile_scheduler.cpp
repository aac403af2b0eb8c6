#include "map/tile_scheduler.hpp"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "map/tile_draw.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/overlay.hpp"
#include "sorvan/platform/map/overlay_renderer.hpp"
#include "sorvan/platform/map/tile_overlay.hpp"

namespace sorvan::map::detail {

namespace {

// A tile overlay's picture is decoded only when its header claims a size a tile can have (up
// to 1024 points at scale 2 and some room): a few bytes must not claim gigabytes.
constexpr gfx::ImageLimits kTileImageLimits{4096, 4096u * 4096u};

}  // namespace

// A fixed set of threads running queued tasks first in, first out.
class TileScheduler::WorkerPool {
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

// What results on their way to the main queue reach, while the scheduler lives. Created and
// destroyed on the main queue, where the results are delivered.
struct TileScheduler::Token {
    DrawnTileCache* drawn;
    std::function<void()> progress;
};

// A queued load: whoever moves it out of Queued first decides whether it runs (a tile thread)
// or is taken back (the main queue).
struct TileScheduler::LoadTicket {
    enum : int { Queued, Started, Cancelled };
    std::atomic<int> state{Queued};
    std::uint64_t epoch = 0;
    std::uint64_t wantedFrame = 0;  // main queue only
};

TileScheduler::TileScheduler(DrawnTileCache& drawn, std::function<void()> progress)
    : drawn_(drawn),
      token_(std::make_shared<Token>(Token{&drawn, std::move(progress)})),
      store_(std::make_shared<TileStore>(kDefaultStoreLimit)) {}

TileScheduler::~TileScheduler() {
    token_.reset();
    // Joins the pools: a load or draw in progress finishes first.
    loadPool_.reset();
    drawPool_.reset();
}

void TileScheduler::setLoadThreadCount(int count) {
    loadThreads_ = std::max(1, count);
}

void TileScheduler::ensurePools() {
    if (!loadPool_)
        loadPool_ = std::make_unique<WorkerPool>(loadThreads_);
    if (!drawPool_) {
        unsigned hw = std::thread::hardware_concurrency();
        drawPool_ = std::make_unique<WorkerPool>(static_cast<int>(std::clamp(hw, 2u, 4u)));
    }
}

void TileScheduler::forget(const LayerSource& layer) {
    plan_.layers.clear();  // it may hold the layer's renderer
    for (auto it = queued_.begin(); it != queued_.end();) {
        if (it->first.overlay == layer.overlay.get()) {
            int expected = LoadTicket::Queued;
            it->second->state.compare_exchange_strong(expected, LoadTicket::Cancelled);
            it = queued_.erase(it);
        } else {
            ++it;
        }
    }
    store_->forget(layer.overlay.get());
    if (layer.renderer)
        drawn_.forget(layer.renderer.get());
}

void TileScheduler::postLoad(const LayerSource& layer, const std::shared_ptr<TileOverlay>& overlay,
                             TileKey key, std::uint64_t epoch) {
    ensurePools();
    auto ticket = std::make_shared<LoadTicket>();
    ticket->epoch = epoch;
    ticket->wantedFrame = frame_;
    queued_[key] = ticket;
    std::weak_ptr<Token> weak = token_;
    auto tiles = store_;
    auto live = layer.live;
    loadPool_->post([weak, tiles, live, overlay, key, epoch, ticket] {
        int expected = LoadTicket::Queued;
        if (!ticket->state.compare_exchange_strong(expected, LoadTicket::Started))
            return;  // taken back: scrolled away while queued
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
                image = gfx::Image::fromData(data, 2.0, kTileImageLimits);
            tiles->finishLoad(key, epoch, std::move(image), error.has_value());
            dispatch::RunLoop::main().async([weak] {
                if (auto t = weak.lock())
                    t->progress();
            });
        };
        try {
            overlay->loadTileAtPath(path, result);
        } catch (const std::exception& e) {
            log::error("tile load failed (%lld/%lld/%lld): %s", static_cast<long long>(key.z),
                       static_cast<long long>(key.x), static_cast<long long>(key.y), e.what());
            result({}, std::string(e.what()));
        } catch (...) {
            log::error("tile load failed (%lld/%lld/%lld): unknown exception",
                       static_cast<long long>(key.z), static_cast<long long>(key.x),
                       static_cast<long long>(key.y));
            result({}, std::string("unknown exception"));
        }
    });
}

void TileScheduler::cancelUnwanted() {
    for (auto it = queued_.begin(); it != queued_.end();) {
        LoadTicket& t = *it->second;
        if (t.state.load() != LoadTicket::Queued) {
            it = queued_.erase(it);  // started: it runs to its end
            continue;
        }
        if (t.wantedFrame == frame_) {
            ++it;
            continue;
        }
        int expected = LoadTicket::Queued;
        if (t.state.compare_exchange_strong(expected, LoadTicket::Cancelled))
            store_->cancelLoad(it->first, t.epoch);
        it = queued_.erase(it);
    }
}

void TileScheduler::postDraw(const std::shared_ptr<OverlayRenderer>& renderer, DrawKey key,
                             MapRect rect, double zoomScale, int pixels, std::uint64_t generation,
                             std::uint64_t version) {
    ensurePools();
    std::weak_ptr<Token> weak = token_;
    drawPool_->post([weak, renderer, key, rect, zoomScale, pixels, generation, version] {
        DrawResult result = drawTile(*renderer, key, rect, zoomScale, pixels);
        // The renderer goes back to the main queue with the result, so that the last
        // reference to it is never dropped on a draw thread.
        dispatch::RunLoop::main().async(
            [weak, renderer, key, result = std::move(result), generation, version]() mutable {
                auto t = weak.lock();
                if (!t)
                    return;
                if (t->drawn->install(key, std::move(result), generation, version))
                    t->progress();
            });
    });
}

const FramePlan& TileScheduler::plan(const Viewport& viewport,
                                     const std::vector<LayerSource>& layers) {
    drawn_.beginFrame();
    ++frame_;
    newLoads_.clear();
    // The last frame's plan is filled again, keeping its storage.
    FramePlan& fp = plan_;
    fp.pending = 0;
    fp.replacesContent = false;
    std::size_t used = 0;
    MapRect covered = viewport.coveredRect();
    double minX = covered.minX(), maxX = covered.maxX();
    double minY = covered.minY(), maxY = covered.maxY();
    for (const LayerSource& entry : layers) {
        auto tileOverlay = std::dynamic_pointer_cast<TileOverlay>(entry.overlay);
        if (tileOverlay && tileOverlay->canReplaceMapContent())
            fp.replacesContent = true;
        if (!entry.renderer)
            continue;
        if (used == fp.layers.size())
            fp.layers.emplace_back();
        LayerPlan& layer = fp.layers[used];
        layer.renderer = entry.renderer;
        layer.tiles.clear();
        double tileSize = 256;
        MapRect bounds{{0, 0}, {kMapWorldSize, kMapWorldSize}};
        if (tileOverlay) {
            tileSize = tileOverlay->tileSize().width;
            if (tileSize <= 0)
                continue;
            auto z = viewport.tileLevel(tileSize);
            if (z < tileOverlay->minimumZ())
                continue;
            layer.z = std::min<std::int64_t>(z, tileOverlay->maximumZ());
            if (layer.z < 0)
                continue;
        } else {
            layer.z = std::clamp<std::int64_t>(viewport.tileLevel(256), 0, 30);
            bounds = entry.overlay->boundingMapRect();
        }
        if (layer.z > 40)
            continue;
        double n = std::exp2(static_cast<double>(layer.z));
        layer.tileWidth = kMapWorldSize / n;
        layer.pixels = std::max(1, static_cast<int>(std::lround(tileSize / 2 * viewport.scale())));
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
        if (static_cast<double>(x1 - x0 + 1) * static_cast<double>(y1 - y0 + 1) > kMaxTilesPerLayer)
            continue;
        // Vector overlays spill a little beyond their bounds (line widths).
        double margin = 64 / viewport.camera().zoom;
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
                DrawnTile& d = drawn_.touch(key);
                std::uint64_t version = 0;
                if (tileOverlay) {
                    TileKey tk{entry.overlay.get(), layer.z, x, y};
                    auto found = store_->lookup(tk);
                    using State = TileStore::State;
                    // A drawn tile outlives its data in the memory cache: it needs the data
                    // again only to be redrawn.
                    if (d.valid && d.generation == generation &&
                        (found.state == State::Absent || found.version == d.version))
                        continue;
                    if (found.state == State::Absent) {
                        if (auto epoch = store_->beginLoad(tk)) {
                            double dx = (static_cast<double>(ux) + 0.5) * layer.tileWidth -
                                        viewport.camera().center.x;
                            double dy = (static_cast<double>(y) + 0.5) * layer.tileWidth -
                                        viewport.camera().center.y;
                            newLoads_.push_back(
                                {&entry, tileOverlay, tk, epoch, std::hypot(dx, dy)});
                        }
                        ++fp.pending;
                        continue;
                    }
                    if (found.state == State::Loading) {
                        if (auto q = queued_.find(tk); q != queued_.end())
                            q->second->wantedFrame = frame_;
                        ++fp.pending;
                        continue;
                    }
                    if (found.state == State::Failed)
                        continue;
                    version = found.version;
                }
                if (DrawnTileCache::isCurrent(d, generation, version))
                    continue;
                ++fp.pending;
                if (!DrawnTileCache::beginDraw(d, generation, version))
                    continue;
                postDraw(entry.renderer, key, rect, zoomScale, layer.pixels, generation, version);
            }
        }
        ++used;
    }
    fp.layers.resize(used);
    // What the user looks at first comes first.
    std::stable_sort(newLoads_.begin(), newLoads_.end(),
                     [](const NewLoad& a, const NewLoad& b) { return a.distance < b.distance; });
    for (const NewLoad& load : newLoads_)
        postLoad(*load.layer, load.overlay, load.key, load.epoch);
    newLoads_.clear();
    cancelUnwanted();
    return fp;
}

}  // namespace sorvan::map::detail

// The map engine's frame cost: a 1280 x 720 view at scale 2 with two tile overlays (an opaque
// base and a translucent layer above it) and 500 annotation views, every tile already in
// memory.
//   FullFrame   every visible tile redrawn by its renderer, then composed
//   PanFrame    a small pan that re-uses the drawn tiles, composed into the front end's own
//               surface (drawFrame), and the same through render(), which also hands back a
//               new image
//   PanFrameManyViews  the pan into the front end's surface with 2,000 image views (a 16-point
//               icon) all on screen, as a busy tag and event layer gives; PanFrameNoViews is the
//               same pan without views, the tiles' share of it
// Peak resident memory is reported as the counter peak_rss_mb.
#include <benchmark/benchmark.h>
#include <cairo.h>
#include <sys/resource.h>

#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <random>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/map/map_view.hpp"

namespace {

using namespace sorvan;

// Serves tiles encoded once and kept in memory.
class MemoryTileOverlay : public map::TileOverlay {
  public:
    explicit MemoryTileOverlay(bool translucent) : translucent_(translucent) {}
    void loadTileAtPath(const map::TilePath& path, TileResult result) override {
        std::vector<std::uint8_t> bytes;
        {
            std::lock_guard lock(mutex_);
            auto key = std::make_tuple(path.z, path.x, path.y);
            auto it = tiles_.find(key);
            if (it == tiles_.end())
                it = tiles_.emplace(key, encode(path)).first;
            bytes = it->second;
        }
        result(std::move(bytes), std::nullopt);
    }

  private:
    std::vector<std::uint8_t> encode(const map::TilePath& path) const {
        cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 256, 256);
        cairo_t* cr = cairo_create(s);
        if (translucent_) {
            cairo_set_source_rgba(cr, 0.9, 0.3, 0.1, 0.7);
            cairo_set_line_width(cr, 6);
            cairo_move_to(cr, 0, 40 + path.x % 50);
            cairo_curve_to(cr, 80, 200, 180, 20, 256, 150);
            cairo_stroke(cr);
        } else {
            cairo_set_source_rgb(cr, 0.85 + 0.02 * (path.x % 3), 0.86, 0.8 + 0.03 * (path.y % 2));
            cairo_paint(cr);
            cairo_set_source_rgb(cr, 1, 1, 1);
            cairo_set_line_width(cr, 10);
            for (int i = 0; i < 4; ++i) {
                cairo_move_to(cr, 0, 30 + i * 60);
                cairo_line_to(cr, 256, 10 + i * 70);
            }
            cairo_stroke(cr);
        }
        cairo_destroy(cr);
        cairo_surface_flush(s);
        std::vector<std::uint32_t> px(256 * 256);
        for (int y = 0; y < 256; ++y)
            std::memcpy(&px[static_cast<std::size_t>(y) * 256],
                        cairo_image_surface_get_data(s) + y * cairo_image_surface_get_stride(s),
                        256 * 4);
        cairo_surface_destroy(s);
        return gfx::Image::fromPixels(256, 256, std::move(px), 2.0)->pngData();
    }

    bool translucent_;
    std::mutex mutex_;
    std::map<std::tuple<std::int64_t, std::int64_t, std::int64_t>, std::vector<std::uint8_t>>
        tiles_;
};

class Delegate : public map::MapViewDelegate {
  public:
    std::shared_ptr<gfx::Image> icon;
    gfx::Point offset{0, -12};
    std::shared_ptr<map::OverlayRenderer> rendererForOverlay(
        map::MapView&, const std::shared_ptr<map::Overlay>& overlay) override {
        auto r = std::make_shared<map::TileOverlayRenderer>(
            std::dynamic_pointer_cast<map::TileOverlay>(overlay));
        return r;
    }
    std::shared_ptr<map::AnnotationView> viewForAnnotation(
        map::MapView&, const std::shared_ptr<map::Annotation>& annotation) override {
        auto v = std::make_shared<map::AnnotationView>(annotation);
        v->setImage(icon);
        v->setCenterOffset(offset);
        return v;
    }
};

// A disc icon of side pixels at scale 2.
std::shared_ptr<gfx::Image> makeIcon(int side) {
    cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, side, side);
    cairo_t* cr = cairo_create(s);
    cairo_arc(cr, side / 2.0, side * 5 / 12.0, side / 3.0, 0, 2 * M_PI);
    cairo_set_source_rgba(cr, 0.1, 0.4, 0.9, 0.9);
    cairo_fill(cr);
    cairo_destroy(cr);
    cairo_surface_flush(s);
    std::vector<std::uint32_t> px(static_cast<std::size_t>(side) * side);
    for (int y = 0; y < side; ++y)
        std::memcpy(&px[static_cast<std::size_t>(y) * side],
                    cairo_image_surface_get_data(s) + y * cairo_image_surface_get_stride(s),
                    static_cast<std::size_t>(side) * 4);
    cairo_surface_destroy(s);
    return gfx::Image::fromPixels(side, side, std::move(px), 2.0);
}

struct Scene {
    std::shared_ptr<map::MapView> view = std::make_shared<map::MapView>(gfx::Rect{0, 0, 1280, 720});
    std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
    std::shared_ptr<MemoryTileOverlay> base = std::make_shared<MemoryTileOverlay>(false);
    std::shared_ptr<MemoryTileOverlay> top = std::make_shared<MemoryTileOverlay>(true);

    explicit Scene(int annotations = 500, int iconPixels = 48) {
        delegate->icon = makeIcon(iconPixels);
        delegate->offset = {0, -iconPixels / 4.0};
        view->setDelegate(delegate);
        view->setScreenScale(2);
        // Level 14 exactly: one tile pixel per screen pixel.
        map::MapPoint c = map::mapPointForCoordinate({13.7563, 100.5018});
        double zoom = 128.0 * std::exp2(14) / map::kMapWorldSize;
        double w = 1280 / zoom, h = 720 / zoom;
        view->setVisibleMapRect({{c.x - w / 2, c.y - h / 2}, {w, h}});
        view->addOverlay(base);
        view->addOverlay(top);
        std::mt19937 rng(7);
        std::uniform_real_distribution<double> x(0, 1280), y(0, 720);
        for (int i = 0; i < annotations; ++i)
            view->addAnnotation(std::make_shared<map::PointAnnotation>(
                view->convertPointToCoordinate({x(rng), y(rng)}, nullptr)));
        // Load every tile of the area a pan may reach, and make every view.
        view->render(std::chrono::seconds(60));
    }
};

Scene& scene() {
    static Scene s;
    return s;
}

Scene& busyScene() {
    static Scene s(2000, 32);
    return s;
}

Scene& bareScene() {
    static Scene s(0, 32);
    return s;
}

void reportMemory(benchmark::State& state) {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["peak_rss_mb"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void BM_FullFrame(benchmark::State& state) {
    Scene& s = scene();
    for (auto _ : state) {
        s.view->rendererForOverlay(s.base)->setNeedsDisplay();
        s.view->rendererForOverlay(s.top)->setNeedsDisplay();
        auto image = s.view->render(std::chrono::seconds(30));
        benchmark::DoNotOptimize(image);
    }
    reportMemory(state);
}
BENCHMARK(BM_FullFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

void panIntoSurface(benchmark::State& state, Scene& s) {
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 2560, 1440);
    cairo_t* cr = cairo_create(surface);
    cairo_scale(cr, 2, 2);
    int step = 0;
    for (auto _ : state) {
        s.view->panBy(step++ % 2 ? -7 : 7, 0);
        s.view->drawFrame(cr);
        cairo_surface_flush(surface);
    }
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    dispatch::RunLoop::main().drain();
    reportMemory(state);
}

void BM_PanFrameIntoSurface(benchmark::State& state) {
    panIntoSurface(state, scene());
}
BENCHMARK(BM_PanFrameIntoSurface)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PanFrameManyViews(benchmark::State& state) {
    panIntoSurface(state, busyScene());
}
BENCHMARK(BM_PanFrameManyViews)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PanFrameNoViews(benchmark::State& state) {
    panIntoSurface(state, bareScene());
}
BENCHMARK(BM_PanFrameNoViews)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PanFrameRender(benchmark::State& state) {
    Scene& s = scene();
    int step = 0;
    for (auto _ : state) {
        s.view->panBy(step++ % 2 ? -7 : 7, 0);
        auto image = s.view->render(std::chrono::seconds(30));
        benchmark::DoNotOptimize(image);
    }
    dispatch::RunLoop::main().drain();
    reportMemory(state);
}
BENCHMARK(BM_PanFrameRender)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

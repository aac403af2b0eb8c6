// First frame of a map view whose tiles are all in the disk cache: a 1280 x 720 view at
// scale 2 with three stacked layers (base, hydro, icons) over Bangkok, against the embedded
// service in this process. Each iteration builds a new view (empty in-memory tile store), so
// every tile comes from the disk cache: decode three layers, compose, encode, draw.
// Peak memory is the process's high-water mark (service included); bench/render_vs_gdal.sh
// measures a lone `sorvan render` process.
#include <sys/resource.h>

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/map/geometry.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace {

using sorvan::SorvanMapView;

struct Environment {
    std::string home;
    std::unique_ptr<sorvan::server::EmbeddedService> service;

    Environment() {
        char pattern[] = "/tmp/sorvan-bench-XXXXXX";
        home = mkdtemp(pattern);
        setenv("SORVAN_HOME", home.c_str(), 1);
        service = std::make_unique<sorvan::server::EmbeddedService>();
        sorvan::ServiceConfig::setCurrent(sorvan::ServiceConfig{}.pointedAt(service->origin()));
        sorvan::globals::resetForTesting();
    }
    ~Environment() {
        service.reset();
        std::error_code ec;
        std::filesystem::remove_all(home, ec);
    }
};

Environment& environment() {
    static Environment e;
    return e;
}

std::shared_ptr<sorvan::gfx::Image> firstFrame(double width, double height, double scale) {
    auto view = SorvanMapView::create({0, 0, width, height});
    view->setScreenScale(scale);
    view->setKey("bench");
    view->setCache(1);
    sorvan::map::MapPoint c = sorvan::map::mapPointForCoordinate({13.7563, 100.5018});
    double w = width * std::exp2(20.0 - 15.0), h = height * std::exp2(20.0 - 15.0);
    view->setVisibleMapRect({{c.x - w / 2, c.y - h / 2}, {w, h}});
    view->addSMLayers({sorvan::SMLayer::create(sorvan::SMLayerModeBase),
                       sorvan::SMLayer::create(sorvan::SMLayerModeHydro),
                       sorvan::SMLayer::create(sorvan::SMLayerModeIcons)});
    return view->render(std::chrono::seconds(60));
}

void BM_FirstFrameAllTilesCached(benchmark::State& state) {
    environment();
    sorvan::log::Capture quiet;            // the version banner
    auto warm = firstFrame(1280, 720, 2);  // fills the disk cache
    if (!warm) {
        state.SkipWithError("the map could not be drawn");
        return;
    }
    for (auto _ : state) {
        auto frame = firstFrame(1280, 720, 2);
        benchmark::DoNotOptimize(frame);
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["peak_rss_MB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
    state.counters["frame_px"] = warm->pixelWidth() * warm->pixelHeight();
}
BENCHMARK(BM_FirstFrameAllTilesCached)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

// Composed tiles from the embedded service through SMTileOverlay, side by side with a plain
// loop doing the same work (libcurl on one connection, decode, composite, encode with the same
// codec and level), warm tiles from the disk cache against decoding the same files, and one
// cached download with a long "tileList" against one with a short list.
//
//   scripts/bench bench_tiles            (or build-release/bench/bench_tiles)
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <stdlib.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "mapview/globals.hpp"
#include "paired.hpp"
#include "sorvan/platform/foundation/defaults.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/graphics/image_context.hpp"
#include "sorvan/server/embedded_service.hpp"
#include "tiles/tile_cache.hpp"
#include "tiles/tile_codec.hpp"

namespace {
using namespace sorvan;
namespace fs = std::filesystem;

constexpr std::int64_t kZoom = 16;
constexpr std::int64_t kFirstX = 51000, kFirstY = 30300;  // around Bangkok
constexpr int kTilesPerRun = 96;

// One service, one scratch home and one defaults store for the whole run.
struct World {
    std::string home;
    std::unique_ptr<server::EmbeddedService> service;
    std::unique_ptr<Defaults> defaults;
    std::atomic<int> nextRow{0};  // every run takes fresh rows, so nothing is warm by accident

    World() {
        char dir[] = "/tmp/bench_tiles.XXXXXX";
        home = mkdtemp(dir);
        setenv("SORVAN_HOME", home.c_str(), 1);
        service = std::make_unique<server::EmbeddedService>();
        ServiceConfig::setCurrent(ServiceConfig{}.pointedAt(service->origin()));
        globals::resetForTesting();
        defaults = Defaults::open(home + "/defaults.sqlite");
        tiles::TileCache::shared().setDefaultsForTesting(defaults.get());
    }
    ~World() {
        tiles::TileCache::shared().setDefaultsForTesting(nullptr);
        service->stop();
        std::error_code ignored;
        fs::remove_all(home, ignored);
    }

    std::vector<std::string> templates(int layers) const {
        std::vector<std::string> all{
            service->origin() + "/tiles/{z}/{x}/{y}.png",
            service->origin() + "/overlay/{z}/{x}/{y}.png",
            service->origin() + "/overlay/{z}/{x}/{y}.png?l=2",
            service->origin() + "/overlay/{z}/{x}/{y}.png?l=3",
        };
        all.resize(static_cast<std::size_t>(layers));
        return all;
    }

    // Fresh tiles for one run: a band of rows no earlier run used.
    std::vector<map::TilePath> freshTiles(int count) {
        int rows = (count + 31) / 32;
        int first = nextRow.fetch_add(rows);
        std::vector<map::TilePath> out;
        for (int i = 0; i < count; ++i) {
            out.push_back({kFirstX + i % 32, kFirstY + first + i / 32, kZoom, 2.0});
        }
        return out;
    }

    static std::string fill(std::string t, const map::TilePath& p) {
        auto put = [&](const std::string& key, std::int64_t v) {
            t.replace(t.find(key), key.size(), std::to_string(v));
        };
        put("{z}", p.z);
        put("{x}", p.x);
        put("{y}", p.y);
        return t;
    }

    std::shared_ptr<SMTileOverlay> overlay(int layers, std::int64_t cache) const {
        auto t = templates(layers);
        auto o = SMTileOverlay::create(std::vector<std::int64_t>(t.size(), 21), "bench",
                                       std::nullopt, 0);
        o->setCustomUrl(t, std::vector<std::int64_t>(t.size(), 0), std::nullopt);
        o->setCache(cache);
        return o;
    }
};

World& world() {
    static World w;
    return w;
}

struct Curl {
    CURL* easy = curl_easy_init();
    ~Curl() { curl_easy_cleanup(easy); }
    std::string get(const std::string& url) {
        std::string body;
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(
            easy, CURLOPT_WRITEFUNCTION, +[](char* p, size_t s, size_t n, void* out) {
                static_cast<std::string*>(out)->append(p, s * n);
                return s * n;
            });
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
        curl_easy_perform(easy);
        return body;
    }
};

// The service paints a tile the first time it is asked; ask beforehand so neither side of a
// comparison pays for painting.
void prewarmService(const std::vector<std::string>& templates,
                    const std::vector<map::TilePath>& tiles) {
    Curl curl;
    for (const auto& p : tiles) {
        for (const auto& t : templates) {
            curl.get(World::fill(t, p));
        }
    }
}

std::vector<std::uint8_t> composeAndEncode(const std::vector<std::shared_ptr<gfx::Image>>& layers) {
    gfx::ImageContext context({256, 256}, 1.0);
    for (const auto& image : layers) {
        if (image) {
            context.drawImage(*image, {0, 0, 256, 256});
        }
    }
    return context.makeImage()->pngData(tiles::kComposedTilePNG);
}

void PlainLoopCold(benchmark::State& state) {
    int layers = static_cast<int>(state.range(0));
    auto templates = world().templates(layers);
    Curl curl;
    std::size_t bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto tiles = world().freshTiles(kTilesPerRun);
        prewarmService(templates, tiles);
        state.ResumeTiming();
        for (const auto& p : tiles) {
            std::vector<std::shared_ptr<gfx::Image>> images;
            for (const auto& t : templates) {
                std::string body = curl.get(World::fill(t, p));
                images.push_back(gfx::Image::fromData(
                    {reinterpret_cast<const std::uint8_t*>(body.data()), body.size()}));
            }
            bytes += composeAndEncode(images).size();
        }
    }
    benchmark::DoNotOptimize(bytes);
    state.counters["tiles/s"] =
        benchmark::Counter(double(state.iterations()) * kTilesPerRun, benchmark::Counter::kIsRate);
}

void OverlayCold(benchmark::State& state) {
    int layers = static_cast<int>(state.range(0));
    int threads = static_cast<int>(state.range(1));
    std::int64_t cache = state.range(2);
    auto overlay = world().overlay(layers, cache);
    auto templates = world().templates(layers);
    std::atomic<std::size_t> bytes{0};
    for (auto _ : state) {
        state.PauseTiming();
        auto tiles = world().freshTiles(kTilesPerRun);
        prewarmService(templates, tiles);
        net::URLCache::shared().removeAllCachedResponses();
        state.ResumeTiming();
        std::atomic<int> next{0};
        auto work = [&] {
            for (int i; (i = next.fetch_add(1)) < kTilesPerRun;) {
                overlay->loadTileAtPath(
                    tiles[i], [&](std::vector<std::uint8_t> d, auto) { bytes += d.size(); });
            }
        };
        std::vector<std::thread> pool;
        for (int t = 1; t < threads; ++t) {
            pool.emplace_back(work);
        }
        work();
        for (auto& t : pool) {
            t.join();
        }
    }
    state.counters["tiles/s"] =
        benchmark::Counter(double(state.iterations()) * kTilesPerRun, benchmark::Counter::kIsRate);
}

// Warm: every layer of every tile is in the disk cache.
struct WarmSet {
    std::shared_ptr<SMTileOverlay> overlay;
    std::vector<map::TilePath> tiles;
    std::vector<std::vector<std::string>> files;  // per tile, per layer
};

WarmSet warmSet(int layers) {
    WarmSet set{world().overlay(layers, 1), world().freshTiles(kTilesPerRun), {}};
    for (const auto& p : set.tiles) {
        set.overlay->loadTileAtPath(p, [](auto, auto) {});
        std::vector<std::string> files;
        for (const auto& t : world().templates(layers)) {
            files.push_back(tiles::TileCache::shared().filePath(
                SMTileOverlay::SHA256String(World::fill(t, p))));
        }
        set.files.push_back(files);
    }
    return set;
}

void OverlayWarm(benchmark::State& state) {
    auto set = warmSet(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        for (const auto& p : set.tiles) {
            set.overlay->loadTileAtPath(
                p, [](std::vector<std::uint8_t> d, auto) { benchmark::DoNotOptimize(d.data()); });
        }
    }
    state.counters["tiles/s"] =
        benchmark::Counter(double(state.iterations()) * kTilesPerRun, benchmark::Counter::kIsRate);
}

void DecodeFilesEncodeOne(benchmark::State& state) {
    auto set = warmSet(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        for (const auto& files : set.files) {
            std::shared_ptr<gfx::Image> last;
            for (const auto& f : files) {
                last = gfx::Image::fromFile(f);
            }
            auto png = last->pngData(tiles::kComposedTilePNG);
            benchmark::DoNotOptimize(png.data());
        }
    }
    state.counters["tiles/s"] =
        benchmark::Counter(double(state.iterations()) * kTilesPerRun, benchmark::Counter::kIsRate);
}

// One cached download with `listed` names already in "tileList".
void CachedDownload(benchmark::State& state) {
    auto listed = static_cast<std::size_t>(state.range(0));
    std::vector<std::string> names;
    for (std::size_t i = 0; i < listed; ++i) {
        names.push_back(strformat("%076zu", i));
    }
    world().defaults->setStringArray(names, "tileList");
    auto overlay = world().overlay(1, 1);  // reloads the list
    auto templates = world().templates(1);
    for (auto _ : state) {
        state.PauseTiming();
        auto tiles = world().freshTiles(32);
        prewarmService(templates, tiles);
        // Keep the list at its length: a long list stays long, a short one short. The bulk
        // rewrite is checkpointed here, not by the first download timed below.
        world().defaults->setStringArray(names, "tileList");
        world().defaults->synchronize();
        overlay = world().overlay(1, 1);
        state.ResumeTiming();
        for (const auto& p : tiles) {
            overlay->loadTileAtPath(p, [](auto, auto) {});
        }
    }
    state.counters["downloads/s"] =
        benchmark::Counter(double(state.iterations()) * 32, benchmark::Counter::kIsRate);
}

// Side by side: plain loop, then the overlay on one thread, then four tile threads.
BENCHMARK(PlainLoopCold)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(OverlayCold)
    ->Args({1, 1, 2})
    ->Args({2, 1, 2})
    ->Args({4, 1, 2})
    ->Args({1, 4, 2})
    ->Args({2, 4, 2})
    ->Args({4, 4, 2})
    ->Args({1, 1, 1})
    ->Args({4, 1, 1})
    ->ArgNames({"layers", "threads", "cache"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(DecodeFilesEncodeOne)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(OverlayWarm)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CachedDownload)->Arg(10)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

namespace {

// The blocking fetch the tile loader makes (SMTileOverlay::sendSynchronousRequest over the shared
// URL session, with the loader's cache policy) against plain libcurl on one kept-alive
// connection, paired: every tile is fetched both ways, the order alternating from tile to tile
// and from round to round. The URL cache is emptied between rounds, so every fetch goes to the
// service. Counters, from each way's median fetch: requests per second each way, and the
// session's rate over libcurl's.
void FetchOnlyPaired(benchmark::State& state) {
    auto t = world().templates(1)[0];
    auto tiles = world().freshTiles(kTilesPerRun);
    prewarmService({t}, tiles);
    std::vector<std::string> addresses;
    std::vector<net::URLRequest> requests;
    for (const auto& p : tiles) {
        addresses.push_back(World::fill(t, p));
        requests.emplace_back(*net::URL::fromString(addresses.back()));
        requests.back().setCachePolicy(net::CachePolicy::ReturnCacheDataElseLoad);
    }
    net::URLCache::shared().removeAllCachedResponses();
    Curl curl;
    bench::PairedTimer timer(2);
    std::size_t round = 0;
    for (auto _ : state) {
        for (std::size_t i = 0; i < addresses.size(); ++i) {
            for (std::size_t k = 0; k < 2; ++k) {
                std::size_t way = (round + i + k) % 2;
                bool ok = timer.time(way, [&] {
                    return way == 0
                               ? !curl.get(addresses[i]).empty()
                               : SMTileOverlay::sendSynchronousRequest(requests[i]).has_value();
                });
                if (!ok) {
                    state.SkipWithError("no answer");
                    return;
                }
            }
        }
        ++round;
        state.PauseTiming();
        net::URLCache::shared().removeAllCachedResponses();
        state.ResumeTiming();
    }
    double curlUs = timer.medianMicros(0), sessionUs = timer.medianMicros(1);
    state.counters["curl_req/s"] = 1e6 / curlUs;
    state.counters["session_req/s"] = 1e6 / sessionUs;
    state.counters["session/curl"] = curlUs / sessionUs;
}

// Decoding alone, for comparison with the fetches.
void DecodeOnly(benchmark::State& state) {
    auto t = world().templates(4)[state.range(0)];
    auto tiles = world().freshTiles(kTilesPerRun);
    Curl curl;
    std::vector<std::string> bodies;
    for (const auto& p : tiles) {
        bodies.push_back(curl.get(World::fill(t, p)));
    }
    for (auto _ : state) {
        for (const auto& b : bodies) {
            benchmark::DoNotOptimize(
                gfx::Image::fromData({reinterpret_cast<const std::uint8_t*>(b.data()), b.size()}));
        }
    }
    state.counters["per/s"] =
        benchmark::Counter(double(state.iterations()) * kTilesPerRun, benchmark::Counter::kIsRate);
}
BENCHMARK(FetchOnlyPaired)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(DecodeOnly)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
}  // namespace

int main(int argc, char** argv) {
    log::setLevel(log::Level::off);
    benchmark::Initialize(&argc, argv);
    world();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

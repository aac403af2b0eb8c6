// PNG encoding, decoding and layer composition of map tiles: the costs that bound how fast a
// tile overlay turns layer PNGs into one composed tile.
//
//   scripts/bench png
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "sorvan/platform/graphics/image_context.hpp"
#include "tile_painter.hpp"

namespace {

using sorvan::gfx::Image;
using sorvan::gfx::ImageContext;
using sorvan::gfx::PNGOptions;

// Bangkok at zoom 15: streets, the river, parks, labels.
constexpr int kZ = 15;
constexpr long kX = 25530, kY = 15116;

const std::vector<std::shared_ptr<Image>>& layers() {
    static const std::vector<std::shared_ptr<Image>> l = {
        sorvan::server::paintTile("normal", kZ, kX, kY),
        sorvan::server::paintTile("icons", kZ, kX, kY),
        sorvan::server::paintTile("trafficoverlay", kZ, kX, kY),
        sorvan::server::paintTile("iconstransp", kZ, kX + 1, kY),
    };
    return l;
}

std::shared_ptr<Image> compose(const std::vector<std::shared_ptr<Image>>& parts) {
    ImageContext ctx({256, 256}, 1);
    for (const auto& p : parts) {
        ctx.drawImage(*p, {0, 0, 256, 256});
    }
    return ctx.makeImage();
}

const std::shared_ptr<Image>& composedTile() {
    static const auto tile = compose(layers());
    return tile;
}

// The same stack over a satellite-like base: noisy, photo-like content.
const std::shared_ptr<Image>& composedSatelliteTile() {
    static const auto tile = [] {
        auto parts = layers();
        parts[0] = sorvan::server::paintTile("thaichote", kZ, kX, kY);
        return compose(parts);
    }();
    return tile;
}

void BM_EncodeComposedTile(benchmark::State& state) {
    PNGOptions options{static_cast<int>(state.range(0)),
                       static_cast<PNGOptions::Filter>(state.range(1))};
    const auto& tile = state.range(2) == 0 ? composedTile() : composedSatelliteTile();
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto png = tile->pngData(options);
        bytes = png.size();
        benchmark::DoNotOptimize(png.data());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
    static const char* kFilters[] = {"default", "none", "sub", "up", "paeth", "adaptive"};
    state.SetLabel(std::string(state.range(2) == 0 ? "map" : "satellite") + ", level " +
                   std::to_string(options.compressionLevel) + ", " + kFilters[state.range(1)]);
}
BENCHMARK(BM_EncodeComposedTile)
    ->ArgsProduct({{1, 3, 6}, {0, 1, 2, 3, 4, 5}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// A transparent overlay layer alone: RGBA with mostly clear pixels.
void BM_EncodeOverlayLayer(benchmark::State& state) {
    PNGOptions options{static_cast<int>(state.range(0)), PNGOptions::Filter::Default};
    const auto& layer = layers()[2];
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto png = layer->pngData(options);
        bytes = png.size();
        benchmark::DoNotOptimize(png.data());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_EncodeOverlayLayer)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond);

void BM_DecodeComposedTile(benchmark::State& state) {
    auto png = composedTile()->pngData(PNGOptions::fast());
    for (auto _ : state) {
        auto img = Image::fromData(png);
        benchmark::DoNotOptimize(img.get());
    }
    state.counters["bytes"] = static_cast<double>(png.size());
}
BENCHMARK(BM_DecodeComposedTile)->Unit(benchmark::kMillisecond);

void BM_ComposeFourLayers(benchmark::State& state) {
    const auto& parts = layers();
    for (auto _ : state) {
        auto img = compose(parts);
        benchmark::DoNotOptimize(img.get());
    }
}
BENCHMARK(BM_ComposeFourLayers)->Unit(benchmark::kMillisecond);

// The whole tile path of one overlay tile: decode four layer PNGs, compose, encode.
void BM_DecodeComposeEncode(benchmark::State& state) {
    std::vector<std::vector<std::uint8_t>> encoded;
    for (const auto& l : layers()) {
        encoded.push_back(l->pngData(PNGOptions::fast()));
    }
    for (auto _ : state) {
        ImageContext ctx({256, 256}, 1);
        for (const auto& bytes : encoded) {
            ctx.drawImage(*Image::fromData(bytes), {0, 0, 256, 256});
        }
        auto png = ctx.makeImage()->pngData(PNGOptions::fast());
        benchmark::DoNotOptimize(png.data());
    }
}
BENCHMARK(BM_DecodeComposeEncode)->Unit(benchmark::kMillisecond);

// Painting one tile of the embedded service's synthetic map (the route caches the result).
void BM_PaintTile(benchmark::State& state) {
    static const char* kStyles[] = {"normal", "thaichote", "trafficoverlay"};
    const char* style = kStyles[state.range(0)];
    for (auto _ : state) {
        auto img = sorvan::server::paintTile(style, kZ, kX, kY);
        benchmark::DoNotOptimize(img.get());
    }
    state.SetLabel(style);
}
BENCHMARK(BM_PaintTile)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

// The tile scheduler without a map view: which tiles a frame needs, what is loaded and drawn,
// in which order, and what is taken back when the view moves on.
#include "map/tile_scheduler.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/map/overlay.hpp"
#include "support/engine_fixtures.hpp"

namespace sorvan::map::detail {
namespace {

constexpr Coordinate kBangkok{13.7563, 100.5018};

// Holds every load until opened.
class GatedTileOverlay : public test::GeneratedTileOverlay {
  public:
    void loadTileAtPath(const TilePath& path, TileResult result) override {
        ++entered;
        gate_.wait();
        GeneratedTileOverlay::loadTileAtPath(path, std::move(result));
    }
    void open() {
        std::call_once(once_, [this] { opener_.set_value(); });
    }
    std::atomic<int> entered{0};

  private:
    std::once_flag once_;
    std::promise<void> opener_;
    std::shared_future<void> gate_ = opener_.get_future().share();
};

struct SchedulerFixture {
    Viewport viewport{{400, 300}};
    DrawnTileCache drawn;
    int progress = 0;
    TileScheduler scheduler{drawn, [this] { ++progress; }};
    std::vector<LayerSource> layers;

    SchedulerFixture() { show(10, mapPointForCoordinate(kBangkok)); }
    void show(int z, MapPoint center) {
        viewport.moveTo({center, 128.0 * std::exp2(z) / kMapWorldSize, 0});
    }
    LayerSource& add(std::shared_ptr<Overlay> overlay, std::shared_ptr<OverlayRenderer> renderer) {
        if (auto tile = std::dynamic_pointer_cast<TileOverlayRenderer>(renderer))
            tile->attachTileStore(scheduler.store());
        layers.push_back(
            {std::move(overlay), std::move(renderer), std::make_shared<std::atomic<bool>>(true)});
        return layers.back();
    }
    std::shared_ptr<test::CountingTileRenderer> addTiles(
        std::shared_ptr<test::GeneratedTileOverlay> overlay) {
        auto r = std::make_shared<test::CountingTileRenderer>(overlay);
        add(overlay, r);
        return r;
    }
    // Plans frames until nothing is pending; the last plan.
    FramePlan settle() {
        FramePlan fp = scheduler.plan(viewport, layers);
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (fp.pending > 0 && std::chrono::steady_clock::now() < deadline) {
            int before = progress;
            dispatch::RunLoop::main().runUntil([&] { return progress != before; },
                                               std::chrono::seconds(1));
            fp = scheduler.plan(viewport, layers);
        }
        return fp;
    }
};

std::set<std::tuple<std::int64_t, std::int64_t, std::int64_t>> paths(
    const std::vector<TilePath>& list) {
    std::set<std::tuple<std::int64_t, std::int64_t, std::int64_t>> s;
    for (auto& p : list)
        s.insert({p.z, p.x, p.y});
    return s;
}

TEST(TileScheduler, PlansEachLayersVisibleTilesAtItsLevel) {
    SchedulerFixture f;
    auto base = std::make_shared<test::GeneratedTileOverlay>();
    auto capped = std::make_shared<test::GeneratedTileOverlay>();
    capped->setMaximumZ(8);
    auto deep = std::make_shared<test::GeneratedTileOverlay>();
    deep->setMinimumZ(11);
    auto replacing = std::make_shared<test::GeneratedTileOverlay>();
    replacing->setCanReplaceMapContent(true);
    MapPoint c = mapPointForCoordinate(kBangkok);
    auto line = std::make_shared<Polyline>(std::vector<MapPoint>{{c.x, c.y}, {c.x + 10, c.y}});
    f.addTiles(base);
    f.addTiles(capped);
    f.addTiles(deep);
    f.add(replacing, nullptr);  // no renderer: nothing planned, but it replaces the ground
    f.add(line, std::make_shared<OverlayRenderer>(line));

    FramePlan fp = f.scheduler.plan(f.viewport, f.layers);
    EXPECT_TRUE(fp.replacesContent);
    ASSERT_EQ(fp.layers.size(), 3u) << "below minimumZ and without a renderer: no layer";
    const LayerPlan& b = fp.layers[0];
    EXPECT_EQ(b.z, 10);
    EXPECT_EQ(b.pixels, 256) << "128 points at scale 2";
    EXPECT_DOUBLE_EQ(b.tileWidth, kMapWorldSize / 1024);
    // 400 x 300 points of 128-point tiles, wherever the centre falls.
    EXPECT_GE(b.tiles.size(), 12u);
    EXPECT_LE(b.tiles.size(), 20u);
    MapRect visible = f.viewport.visibleRect();
    for (auto& t : b.tiles) {
        MapRect r{{static_cast<double>(t.x) * b.tileWidth, static_cast<double>(t.y) * b.tileWidth},
                  {b.tileWidth, b.tileWidth}};
        EXPECT_TRUE(r.intersects(visible)) << t.x << "," << t.y;
    }
    EXPECT_EQ(fp.layers[1].z, 8) << "capped at maximumZ: the deepest level, upscaled";
    EXPECT_LE(fp.layers[1].tiles.size(), 4u);
    EXPECT_EQ(fp.layers[2].renderer->overlay(), line);
    EXPECT_GE(fp.layers[2].tiles.size(), 1u);
    EXPECT_LE(fp.layers[2].tiles.size(), 4u) << "only tiles near the shape";
    EXPECT_EQ(fp.pending, b.tiles.size() + fp.layers[1].tiles.size() + fp.layers[2].tiles.size());

    // Across the antimeridian the columns wrap while keeping their place on screen.
    f.show(3, {100, kMapWorldSize / 2});
    fp = f.scheduler.plan(f.viewport, f.layers);
    std::set<std::int64_t> columns, onScreen;
    for (auto& t : fp.layers[0].tiles) {
        columns.insert(t.x);
        onScreen.insert(t.ux);
    }
    EXPECT_TRUE(columns.count(7) && columns.count(0));
    EXPECT_TRUE(onScreen.count(-1) && !onScreen.count(7));
}

TEST(TileScheduler, LoadsEachTileOnceAndDrawsItWhenItsDataArrives) {
    SchedulerFixture f;
    auto overlay = std::make_shared<test::GeneratedTileOverlay>();
    auto renderer = f.addTiles(overlay);
    FramePlan fp = f.settle();
    ASSERT_EQ(fp.pending, 0u);
    std::size_t tiles = fp.layers[0].tiles.size();
    EXPECT_EQ(overlay->requestCount(), tiles);
    EXPECT_EQ(paths(overlay->requests()).size(), tiles);
    EXPECT_EQ(renderer->drawCount(), tiles);
    for (auto& t : fp.layers[0].tiles) {
        const DrawnTile* d = f.drawn.find({renderer.get(), 10, t.x, t.y});
        ASSERT_NE(d, nullptr);
        EXPECT_TRUE(d->valid);
        EXPECT_TRUE(d->drawn.opaque);
    }

    // Planned again, nothing is loaded or drawn again; after setNeedsDisplay it is drawn, not
    // loaded; after reloadData both.
    f.settle();
    EXPECT_EQ(overlay->requestCount(), tiles);
    EXPECT_EQ(renderer->drawCount(), tiles);
    renderer->setNeedsDisplay();
    EXPECT_GT(f.scheduler.plan(f.viewport, f.layers).pending, 0u);
    f.settle();
    EXPECT_EQ(overlay->requestCount(), tiles);
    EXPECT_EQ(renderer->drawCount(), 2 * tiles);
    renderer->reloadData();
    f.settle();
    EXPECT_EQ(overlay->requestCount(), 2 * tiles);
    EXPECT_EQ(renderer->drawCount(), 3 * tiles);

    // A layer that left the map: its tiles are let go.
    f.scheduler.forget(f.layers[0]);
    EXPECT_EQ(f.drawn.size(), 0u);
    EXPECT_EQ(f.scheduler.store()->bytes(), 0u);
}

TEST(TileScheduler, LoadsNearestTheCentreFirstAndTakesBackTilesScrolledAway) {
    auto overlay = std::make_shared<GatedTileOverlay>();
    struct Opener {
        GatedTileOverlay& o;
        ~Opener() { o.open(); }  // never leave the tile thread waiting
    } opener{*overlay};
    SchedulerFixture f;
    f.scheduler.setLoadThreadCount(1);
    f.addTiles(overlay);
    MapPoint a = mapPointForCoordinate(kBangkok);
    FramePlan atA = f.scheduler.plan(f.viewport, f.layers);
    auto aTiles = atA.layers[0].tiles;
    // The one tile thread now holds the first load at the gate; the rest of A is queued.
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (overlay->entered == 0 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(overlay->entered, 1);

    // Far away before the gate opens: A's queued tiles are taken back.
    MapPoint b{a.x + 40 * kMapWorldSize / 1024, a.y};
    f.show(10, b);
    f.scheduler.plan(f.viewport, f.layers);
    overlay->open();
    FramePlan atB = f.settle();
    ASSERT_EQ(atB.pending, 0u);
    auto requests = overlay->requests();
    ASSERT_EQ(requests.size(), atB.layers[0].tiles.size() + 1);
    // The first is the tile under A's centre, nearest of all.
    double tw = kMapWorldSize / 1024;
    EXPECT_EQ(requests[0].x, static_cast<std::int64_t>(a.x / tw));
    EXPECT_EQ(requests[0].y, static_cast<std::int64_t>(a.y / tw));
    double last = 0;
    for (std::size_t i = 1; i < requests.size(); ++i) {
        double d = std::hypot((requests[i].x + 0.5) * tw - b.x, (requests[i].y + 0.5) * tw - b.y);
        EXPECT_GE(d, last) << "nearest the centre first";
        last = d;
    }

    // Back at A, the taken-back tiles load (each once), the one already loaded does not.
    f.show(10, a);
    f.settle();
    auto all = overlay->requests();
    EXPECT_EQ(all.size(), requests.size() + aTiles.size() - 1);
    EXPECT_EQ(paths(all).size(), all.size()) << "no tile was loaded twice";
}

}  // namespace
}  // namespace sorvan::map::detail

// Tile levels, loading and drawing: which tiles the engine asks for, how often, and when
// renderers draw.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>

#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "support/engine_fixtures.hpp"

namespace sorvan::map {
namespace {

using test::CountingTileRenderer;
using test::GeneratedTileOverlay;

constexpr Coordinate kBangkok{13.7563, 100.5018};

struct TileFixture {
    std::shared_ptr<MapView> view = std::make_shared<MapView>(gfx::Rect{0, 0, 400, 300});
    std::shared_ptr<test::RecordingDelegate> delegate = std::make_shared<test::RecordingDelegate>();
    std::shared_ptr<GeneratedTileOverlay> overlay = std::make_shared<GeneratedTileOverlay>();

    TileFixture() {
        delegate->makeRenderer =
            [](const std::shared_ptr<Overlay>& o) -> std::shared_ptr<OverlayRenderer> {
            if (auto t = std::dynamic_pointer_cast<TileOverlay>(o))
                return std::make_shared<CountingTileRenderer>(t);
            return nullptr;
        };
        view->setDelegate(delegate);
    }
    std::shared_ptr<CountingTileRenderer> renderer() const {
        return std::dynamic_pointer_cast<CountingTileRenderer>(view->rendererForOverlay(overlay));
    }
    std::set<std::int64_t> levels() const {
        std::set<std::int64_t> zs;
        for (auto& p : overlay->requests())
            zs.insert(p.z);
        return zs;
    }
};

std::size_t distinct(const std::vector<TilePath>& paths) {
    std::set<std::tuple<std::int64_t, std::int64_t, std::int64_t>> s;
    for (auto& p : paths)
        s.insert({p.z, p.x, p.y});
    return s.size();
}

TEST(TileOverlay, LevelFollowsTheZoomInTilePointsAndItsRange) {
    {
        TileFixture f;
        f.view->addOverlay(f.overlay);
        test::showLevel(*f.view, 10, mapPointForCoordinate(kBangkok));
        ASSERT_TRUE(f.view->render(std::chrono::seconds(5)));
        EXPECT_EQ(f.levels(), (std::set<std::int64_t>{10}));
        // 400 x 300 points of 128-point tiles: 4 to 5 columns, 3 to 4 rows.
        EXPECT_GE(f.overlay->requestCount(), 12u);
        EXPECT_LE(f.overlay->requestCount(), 20u);
        for (auto& p : f.overlay->requests())
            EXPECT_EQ(p.contentScaleFactor, 2.0);
    }
    {
        // Between levels the nearest one is shown; the real screen scale does not matter.
        TileFixture f;
        f.view->setScreenScale(1);
        f.view->addOverlay(f.overlay);
        test::showLevel(*f.view, 10, mapPointForCoordinate(kBangkok));
        f.view->zoomBy(std::exp2(0.45), {200, 150});
        f.view->render(std::chrono::seconds(5));
        EXPECT_EQ(f.levels(), (std::set<std::int64_t>{10}));
        f.view->zoomBy(std::exp2(0.1), {200, 150});
        f.view->render(std::chrono::seconds(5));
        EXPECT_EQ(f.levels(), (std::set<std::int64_t>{10, 11}));
    }
    {
        // 512-pixel tiles cover 256 points: one level less for the same view.
        TileFixture f;
        f.overlay->setTileSize({512, 512});
        f.view->addOverlay(f.overlay);
        test::showLevel(*f.view, 10, mapPointForCoordinate(kBangkok));
        f.view->render(std::chrono::seconds(5));
        EXPECT_EQ(f.levels(), (std::set<std::int64_t>{9}));
        for (double zs : f.renderer()->zoomScales())
            EXPECT_NEAR(std::log2(zs) + 19, 9, 1e-9) << "log2(zoomScale) + 19 is the level";
    }
    {
        // Above maximumZ the deepest level is shown, upscaled; below minimumZ nothing.
        TileFixture f;
        f.overlay->setMaximumZ(8);
        f.view->addOverlay(f.overlay);
        test::showLevel(*f.view, 10, mapPointForCoordinate(kBangkok));
        f.view->render(std::chrono::seconds(5));
        EXPECT_EQ(f.levels(), (std::set<std::int64_t>{8}));
        EXPECT_LE(f.overlay->requestCount(), 4u);
        f.overlay->setMinimumZ(11);
        f.renderer()->reloadData();
        std::size_t before = f.overlay->requestCount();
        f.view->render(std::chrono::seconds(5));
        EXPECT_EQ(f.overlay->requestCount(), before);
    }
}

TEST(TileOverlay, LoadsEachTileAtMostOnceWhileItStaysCached) {
    TileFixture f;
    f.overlay->failPaths({{10, 1, 0}});
    f.view->addOverlay(f.overlay);
    MapPoint c = mapPointForCoordinate(kBangkok);
    test::showLevel(*f.view, 10, c);
    f.view->render(std::chrono::seconds(5));
    std::size_t first = f.overlay->requestCount();
    for (int i = 0; i < 6; ++i) {
        f.view->panBy(i % 2 ? -150 : 150, i % 3 ? 40 : -40);
        f.view->render(std::chrono::seconds(5));
    }
    auto all = f.overlay->requests();
    EXPECT_GT(all.size(), first);
    EXPECT_EQ(distinct(all), all.size()) << "no tile was loaded twice";

    // A tile that failed is not asked again, and a frame does not wait for it.
    f.overlay->failPaths({{10, static_cast<std::int64_t>(c.x / (kMapWorldSize / 1024)),
                           static_cast<std::int64_t>(c.y / (kMapWorldSize / 1024))}});
    f.renderer()->reloadData();
    test::showLevel(*f.view, 10, c);
    auto start = std::chrono::steady_clock::now();
    f.view->render(std::chrono::seconds(20));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    std::size_t afterFailure = f.overlay->requestCount();
    f.view->render(std::chrono::seconds(5));
    EXPECT_EQ(f.overlay->requestCount(), afterFailure);

    // Drawn tiles outlive their data; once evicted from the memory cache, tiles load again
    // only when they must be redrawn.
    constexpr std::size_t kLimit = 3u << 20;  // less than one screen of decoded tiles
    f.view->setTileCacheLimit(kLimit);
    f.view->panBy(900, 0);
    f.view->render(std::chrono::seconds(5));
    f.view->panBy(-900, 0);
    std::size_t beforeReturn = f.overlay->requestCount();
    f.view->render(std::chrono::seconds(5));
    // Only the failed tile, whose failure was evicted too, is asked again.
    EXPECT_LE(f.overlay->requestCount(), beforeReturn + 1);
    beforeReturn = f.overlay->requestCount();
    f.renderer()->setNeedsDisplay();
    f.view->render(std::chrono::seconds(5));
    EXPECT_GT(f.overlay->requestCount(), beforeReturn);
    EXPECT_LE(f.view->tileCacheBytes(), kLimit);
}

TEST(TileOverlayRenderer, DrawsWhenTilesShowOrChangeAndReusesDrawnTilesWhilePanning) {
    TileFixture f;
    f.view->addOverlay(f.overlay);
    test::showLevel(*f.view, 12, mapPointForCoordinate(kBangkok));
    f.view->render(std::chrono::seconds(5));
    auto r = f.renderer();
    std::size_t visible = f.overlay->requestCount();
    EXPECT_EQ(r->drawCount(), visible) << "one draw per tile when its data arrives";
    EXPECT_EQ(distinct(r->drawn()), visible);
    for (double zs : r->zoomScales())
        EXPECT_NEAR(std::log2(zs) + 20, 12, 1e-9);

    // Small pans show the same tiles: nothing is drawn again.
    for (int i = 0; i < 5; ++i) {
        f.view->panBy(i % 2 ? -10 : 10, 3);
        f.view->render(std::chrono::seconds(5));
    }
    EXPECT_EQ(r->drawCount(), visible);

    // A longer pan draws only the tiles that came into view.
    f.view->panBy(-384, 0);
    f.view->render(std::chrono::seconds(5));
    std::size_t newly = f.overlay->requestCount() - visible;
    EXPECT_GT(newly, 0u);
    EXPECT_EQ(r->drawCount(), visible + newly);

    // setNeedsDisplay redraws what is visible without loading; reloadData loads and redraws.
    std::size_t loads = f.overlay->requestCount(), draws = r->drawCount();
    r->setNeedsDisplay();
    f.view->render(std::chrono::seconds(5));
    EXPECT_EQ(f.overlay->requestCount(), loads);
    std::size_t redrawn = r->drawCount() - draws;
    EXPECT_GE(redrawn, 12u);
    r->reloadData();
    f.view->render(std::chrono::seconds(5));
    EXPECT_EQ(f.overlay->requestCount(), loads + redrawn);
    EXPECT_EQ(r->drawCount(), draws + 2 * redrawn);

    EXPECT_GE(r->maxConcurrent(), 2) << "tiles are drawn on several threads at once";
}

TEST(TileOverlayRenderer, DrawsTheTileImageWithItsAlphaAndNothingBelowMinimumZ) {
    TileFixture f;
    f.delegate->makeRenderer = [](const std::shared_ptr<Overlay>& o) {
        auto r = std::make_shared<TileOverlayRenderer>(std::dynamic_pointer_cast<TileOverlay>(o));
        r->setAlpha(0.5);
        return r;
    };
    f.view->addOverlay(f.overlay);
    MapPoint c{kMapWorldSize / 2 + 10, kMapWorldSize / 2 + 10};  // inside tile (512, 512) of 10
    test::showLevel(*f.view, 10, c);
    auto frame = f.view->render(std::chrono::seconds(5));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->pixelWidth(), 800);
    EXPECT_EQ(frame->pixelHeight(), 600);
    // Half of the tile's colour over the neutral ground.
    auto tile = gfx::Image::fromData(f.overlay->tileData({512, 512, 10}));
    ASSERT_TRUE(tile);
    auto inTile = tile->rgbaAt(128, 128);
    auto shown = frame->rgbaAt(528, 428);  // the tile's pixel (128, 128)
    gfx::Color ground{0.914, 0.898, 0.863, 1};
    EXPECT_NEAR(shown[0], (inTile[0] + ground.r * 255) / 2, 3);
    EXPECT_NEAR(shown[1], (inTile[1] + ground.g * 255) / 2, 3);
    EXPECT_NEAR(shown[2], (inTile[2] + ground.b * 255) / 2, 3);
    EXPECT_EQ(shown[3], 255);

    // Below minimumZ the plain ground shows; muted standard is lighter.
    f.overlay->setMinimumZ(15);
    f.view->rendererForOverlay(f.overlay)->setNeedsDisplay();
    auto plain = f.view->render(std::chrono::seconds(5))->rgbaAt(528, 428);
    EXPECT_NEAR(plain[0], ground.r * 255, 1);
    f.view->setMapType(MapType::MutedStandard);
    auto muted = f.view->render(std::chrono::seconds(5))->rgbaAt(528, 428);
    EXPECT_GT(muted[0], plain[0]);
    EXPECT_GT(muted[2], plain[2]);
}

// Throws from drawMapRect for two tiles: a standard exception for one, an int for the other.
class ThrowingRenderer : public TileOverlayRenderer {
  public:
    using TileOverlayRenderer::TileOverlayRenderer;
    TilePath failing, alsoFailing;
    void drawMapRect(const MapRect& rect, double zoomScale, cairo_t* context) override {
        TilePath p = tilePath(rect, zoomScale);
        {
            std::lock_guard lock(mutex_);
            ++calls_[{p.x, p.y}];
        }
        TileOverlayRenderer::drawMapRect(rect, zoomScale, context);  // half drawn, then...
        if (p == failing)
            throw std::runtime_error("no paint left");
        if (p == alsoFailing)
            throw 42;
    }
    int calls(const TilePath& p) {
        std::lock_guard lock(mutex_);
        return calls_[{p.x, p.y}];
    }

  private:
    std::mutex mutex_;
    std::map<std::pair<std::int64_t, std::int64_t>, int> calls_;
};

TEST(TileOverlayRenderer, ADrawThatThrowsLeavesItsTileBlankOnceAndTheRestGoesOn) {
    TileFixture f;
    f.delegate->makeRenderer = [](const std::shared_ptr<Overlay>& o) {
        return std::make_shared<ThrowingRenderer>(std::dynamic_pointer_cast<TileOverlay>(o));
    };
    f.view->addOverlay(f.overlay);
    auto r = std::dynamic_pointer_cast<ThrowingRenderer>(f.view->rendererForOverlay(f.overlay));
    MapPoint c{kMapWorldSize / 2 + 10, kMapWorldSize / 2 + 10};  // inside tile (512, 512) of 10
    r->failing = {512, 512, 10, 2.0};
    r->alsoFailing = {513, 512, 10, 2.0};
    test::showLevel(*f.view, 10, c);
    log::Capture capture;
    auto frame = f.view->render(std::chrono::seconds(5));
    ASSERT_TRUE(frame);
    auto line = [&](const TilePath& p, const char* what) {
        char text[256];
        std::snprintf(text, sizeof text,
                      "drawMapRect Error (sorvan::map::(anonymous namespace)::ThrowingRenderer "
                      "%p, tile %lld/%lld/%lld): %s",
                      static_cast<const void*>(r.get()), static_cast<long long>(p.z),
                      static_cast<long long>(p.x), static_cast<long long>(p.y), what);
        return std::string(text);
    };
    auto lines = capture.lines();
    std::sort(lines.begin(), lines.end());
    for (auto& entry : capture.entries())
        EXPECT_EQ(entry.level, log::Level::error);
    EXPECT_EQ(lines, (std::vector<std::string>{line(r->failing, "no paint left"),
                                               line(r->alsoFailing, "unknown exception")}));
    // The failed tiles show the ground, the others their picture.
    gfx::Color ground{0.914, 0.898, 0.863, 1};
    auto blank = frame->rgbaAt(528, 428);   // tile (512, 512)'s pixel (128, 128)
    auto blank2 = frame->rgbaAt(784, 428);  // tile (513, 512)'s
    auto drawn = frame->rgbaAt(528, 100);   // tile (512, 511)'s
    auto picture = gfx::Image::fromData(f.overlay->tileData({512, 511, 10}));
    for (int ch = 0; ch < 3; ++ch) {
        EXPECT_NEAR(blank[ch], (&ground.r)[ch] * 255, 1);
        EXPECT_NEAR(blank2[ch], (&ground.r)[ch] * 255, 1);
        EXPECT_EQ(drawn[ch], picture->rgbaAt(128, 56)[ch]);
    }

    // The failure is not retried frame after frame, nor while panning.
    for (int i = 0; i < 3; ++i) {
        f.view->panBy(i % 2 ? -5 : 5, 0);
        f.view->render(std::chrono::seconds(5));
    }
    EXPECT_EQ(r->calls(r->failing), 1);
    EXPECT_EQ(r->calls(r->alsoFailing), 1);
    EXPECT_EQ(capture.lines().size(), 2u);
    // Asked to draw again, the renderer is called again; now it succeeds.
    r->failing = r->alsoFailing = {};
    r->setNeedsDisplay();
    frame = f.view->render(std::chrono::seconds(5));
    EXPECT_EQ(r->calls({512, 512, 10, 2.0}), 2);
    auto tile = gfx::Image::fromData(f.overlay->tileData({512, 512, 10}));
    EXPECT_EQ(frame->rgbaAt(528, 428), tile->rgbaAt(128, 128));
    EXPECT_EQ(capture.lines().size(), 2u);
}

TEST(TileOverlay, ARemovedOverlayStopsLoadingAndItsLateResultsAreDropped) {
    // A loader that answers from another thread after the overlay left the map.
    class SlowOverlay : public TileOverlay {
      public:
        void loadTileAtPath(const TilePath&, TileResult result) override {
            ++calls;
            std::thread([result] {
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                result({}, std::nullopt);
                result({}, std::nullopt);  // a second answer is ignored
            }).detach();
        }
        std::atomic<int> calls{0};
    };
    TileFixture f;
    auto slow = std::make_shared<SlowOverlay>();
    f.view->addOverlay(slow);
    test::showLevel(*f.view, 8, mapPointForCoordinate(kBangkok));
    f.view->render(std::chrono::milliseconds(1));
    f.view->removeOverlay(slow);
    test::pumpMainQueue(0.2);
    int calls = slow->calls;
    f.view->render(std::chrono::seconds(1));
    EXPECT_EQ(slow->calls, calls);
    f.view->addOverlay(slow);
    f.view->render(std::chrono::seconds(5));
    EXPECT_GT(slow->calls, calls) << "back on the map, it loads afresh";
    test::pumpMainQueue(0.1);
}

}  // namespace
}  // namespace sorvan::map

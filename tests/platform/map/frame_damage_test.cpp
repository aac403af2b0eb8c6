// Drawing only what changed: a picture kept between frames and updated by drawChanges must
// equal a frame drawn whole, and the parts redrawn must be those that changed.
#include <cairo.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "graphics/cairo_handles.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "support/engine_fixtures.hpp"

namespace sorvan::map {
namespace {

using test::CountingTileRenderer;
using test::GeneratedTileOverlay;
using test::pumpMainQueue;

constexpr Coordinate kBangkok{13.7563, 100.5018};

// A front end's kept picture of a map view, at the view's screen scale.
class KeptPicture {
  public:
    explicit KeptPicture(MapView& view) : view_(view) {}

    std::vector<gfx::Rect> update() {
        auto size = view_.bounds().size;
        double scale = view_.screenScale();
        int w = static_cast<int>(std::ceil(size.width * scale));
        int h = static_cast<int>(std::ceil(size.height * scale));
        bool fresh = !surface_ || cairo_image_surface_get_width(surface_.get()) != w ||
                     cairo_image_surface_get_height(surface_.get()) != h;
        if (fresh)
            surface_.reset(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h));
        gfx::ContextPtr cr(cairo_create(surface_.get()));
        cairo_scale(cr.get(), scale, scale);
        auto rects = view_.drawChanges(cr.get(), fresh);
        cairo_surface_flush(surface_.get());
        return rects;
    }

    // The number of pixels differing from a frame drawn whole by more than tolerance steps
    // in a channel. A straight map must match exactly. A turned map's
    // tiles have antialiased edges, and where two meet, cairo's coverage of the seam pixels
    // moves by a few steps with the extent drawn: the seams are allowed that.
    std::size_t differenceFromWhole() {
        const int tolerance = view_.cameraHeading() == 0 ? 0 : 8;
        int w = cairo_image_surface_get_width(surface_.get());
        int h = cairo_image_surface_get_height(surface_.get());
        gfx::SurfacePtr whole(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h));
        {
            gfx::ContextPtr cr(cairo_create(whole.get()));
            cairo_scale(cr.get(), view_.screenScale(), view_.screenScale());
            view_.drawFrame(cr.get());
        }
        cairo_surface_flush(whole.get());
        std::size_t differing = 0;
        const auto* a = cairo_image_surface_get_data(surface_.get());
        const auto* b = cairo_image_surface_get_data(whole.get());
        int stride = cairo_image_surface_get_stride(whole.get());
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w * 4; x += 4) {
                int step = 0;
                for (int c = 0; c < 4; ++c)
                    step = std::max(step, std::abs(a[y * stride + x + c] - b[y * stride + x + c]));
                differing += step > tolerance ? 1 : 0;
            }
        }
        if (differing > 0 && std::getenv("SORVAN_DAMAGE_PNG")) {
            cairo_surface_write_to_png(surface_.get(), "damage_kept.png");
            cairo_surface_write_to_png(whole.get(), "damage_whole.png");
        }
        return differing;
    }

  private:
    MapView& view_;
    gfx::SurfacePtr surface_;
};

// Holds each tile's answer until the test lets it through, so that tiles arrive one at a time.
class GatedTileOverlay : public GeneratedTileOverlay {
  public:
    void loadTileAtPath(const TilePath& path, TileResult result) override {
        {
            std::unique_lock lock(mutex_);
            if (!gated_) {
                lock.unlock();
                GeneratedTileOverlay::loadTileAtPath(path, std::move(result));
                return;
            }
            ++waiting_;
            changed_.wait(lock, [&] { return passes_ > 0 || !gated_; });
            --waiting_;
            if (passes_ > 0)
                --passes_;
        }
        GeneratedTileOverlay::loadTileAtPath(path, std::move(result));
    }
    void setGated(bool gated) {
        std::lock_guard lock(mutex_);
        gated_ = gated;
        changed_.notify_all();
    }
    // Lets one waiting tile through; false when none waits.
    bool passOne() {
        std::lock_guard lock(mutex_);
        if (waiting_ == 0)
            return false;
        ++passes_;
        changed_.notify_all();
        return true;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool gated_ = false;
    int waiting_ = 0, passes_ = 0;
};

double area(const std::vector<gfx::Rect>& rects) {
    double a = 0;
    for (auto& r : rects)
        a += r.size.width * r.size.height;
    return a;
}

bool covers(const std::vector<gfx::Rect>& rects, const gfx::Rect& bounds) {
    return rects.size() == 1 && rects[0] == bounds;
}

struct DamageFixture {
    std::shared_ptr<MapView> view = std::make_shared<MapView>(gfx::Rect{0, 0, 400, 300});
    std::shared_ptr<test::RecordingDelegate> delegate = std::make_shared<test::RecordingDelegate>();
    std::shared_ptr<GatedTileOverlay> overlay = std::make_shared<GatedTileOverlay>();
    KeptPicture picture{*view};

    explicit DamageFixture(double scale) {
        view->setScreenScale(scale);
        delegate->makeRenderer =
            [](const std::shared_ptr<Overlay>& o) -> std::shared_ptr<OverlayRenderer> {
            if (auto t = std::dynamic_pointer_cast<TileOverlay>(o))
                return std::make_shared<CountingTileRenderer>(t);
            return nullptr;
        };
        delegate->makeView = [](const std::shared_ptr<Annotation>& a) {
            auto pin = std::make_shared<PinAnnotationView>(a);
            pin->setCanShowCallout(true);
            return pin;
        };
        view->setDelegate(delegate);
    }

    // Updates the picture as tiles come, checking each update against a whole frame, until
    // every tile is in.
    void updateUntilLoaded() {
        for (int round = 0; round < 400; ++round) {
            pumpMainQueue(0.01);
            auto rects = picture.update();
            EXPECT_EQ(picture.differenceFromWhole(), 0u) << "round " << round;
            if (view->pendingTiles() == 0 && rects.empty())
                break;
        }
        EXPECT_EQ(view->pendingTiles(), 0u);
    }
};

TEST(FrameDamage, TilesArrivingRedrawTheirOwnBoxesAndThePictureMatchesAWholeFrame) {
    for (double heading : {0.0, 30.0}) {
        for (double scale : {1.0, 2.0}) {
            SCOPED_TRACE("heading " + std::to_string(heading) + ", scale " + std::to_string(scale));
            DamageFixture f(scale);
            test::showLevel(*f.view, 12, mapPointForCoordinate(kBangkok));
            f.view->setCameraHeading(heading, false);
            EXPECT_TRUE(covers(f.picture.update(), f.view->bounds())) << "the first frame";
            f.view->addOverlay(f.overlay);
            EXPECT_TRUE(covers(f.picture.update(), f.view->bounds())) << "a layer added";
            f.updateUntilLoaded();
            EXPECT_TRUE(f.picture.update().empty()) << "nothing changed";

            // A level in: a new camera, then its tiles replace the stand-ins one box at a time.
            f.overlay->setGated(true);
            f.view->zoomBy(2, {200, 150});
            EXPECT_TRUE(covers(f.picture.update(), f.view->bounds()));
            EXPECT_EQ(f.picture.differenceFromWhole(), 0u) << "zoomed";
            double tile = 128 * 128;  // a tile of this level, in points
            int arrived = 0;
            for (int round = 0; round < 200 && f.view->pendingTiles() > 0; ++round) {
                if (!f.overlay->passOne()) {
                    pumpMainQueue(0.01);
                    continue;
                }
                // Until its drawing is in and shown.
                std::vector<gfx::Rect> rects;
                for (int wait = 0; wait < 200 && rects.empty(); ++wait) {
                    pumpMainQueue(0.005);
                    rects = f.picture.update();
                }
                ++arrived;
                // The box of a turned tile is at most twice the tile.
                EXPECT_LE(area(rects), 2.1 * tile) << "tile " << arrived;
                EXPECT_EQ(f.picture.differenceFromWhole(), 0u) << "tile " << arrived;
            }
            f.overlay->setGated(false);
            EXPECT_GE(arrived, 6);
            EXPECT_EQ(f.view->pendingTiles(), 0u);
        }
    }
}

TEST(FrameDamage, ViewsComingMovingGoingAndTheirCalloutRedrawAroundThemOnly) {
    DamageFixture f(2);
    test::showLevel(*f.view, 14, mapPointForCoordinate(kBangkok));
    f.view->addOverlay(f.overlay);
    f.picture.update();
    f.updateUntilLoaded();
    const double whole = 400 * 300;
    auto check = [&](const char* what, double most) {
        SCOPED_TRACE(what);
        pumpMainQueue(0.01);
        auto rects = f.picture.update();
        EXPECT_FALSE(rects.empty());
        EXPECT_LE(area(rects), most * whole);
        EXPECT_EQ(f.picture.differenceFromWhole(), 0u);
        EXPECT_TRUE(f.picture.update().empty()) << "redrawn once only";
    };

    auto temple = std::make_shared<PointAnnotation>(kBangkok, "Wat Pho");
    f.view->addAnnotation(temple);
    check("a view added", 0.15);
    temple->setCoordinate({13.7540, 100.5050});
    check("a view moved", 0.2);
    f.view->selectAnnotation(temple, false);
    check("a callout opened", 0.25);
    f.view->deselectAnnotation(temple, false);
    check("a callout closed", 0.25);
    f.view->removeAnnotation(temple);
    check("a view removed", 0.15);

    // A change the frames do not describe redraws everything.
    f.view->setNeedsDisplay();
    EXPECT_TRUE(covers(f.picture.update(), f.view->bounds()));
    f.view->panBy(10, 0);
    EXPECT_TRUE(covers(f.picture.update(), f.view->bounds()));
}

class StepSource : public LocationSource {
  public:
    void start(Listener listener) override { listener_ = std::move(listener); }
    void stop() override { listener_ = {}; }
    void move(Coordinate c) {
        LocationFix fix;
        fix.coordinate = c;
        fix.horizontalAccuracy = 5;
        if (listener_.didUpdateLocation)
            listener_.didUpdateLocation(fix);
    }

  private:
    Listener listener_;
};

TEST(FrameDamage, TheUserPositionMovingRedrawsTheDotOnly) {
    DamageFixture f(1);
    test::showLevel(*f.view, 14, mapPointForCoordinate(kBangkok));
    f.view->addOverlay(f.overlay);
    auto source = std::make_shared<StepSource>();
    f.view->setLocationSource(source);
    f.view->setShowsUserLocation(true);
    source->move(kBangkok);
    f.picture.update();
    f.updateUntilLoaded();
    int notified = 0;
    f.view->setNeedsDisplayCallback([&] { ++notified; });
    for (int i = 1; i <= 5; ++i) {
        source->move({kBangkok.latitude + i * 0.0002, kBangkok.longitude + i * 0.0001});
        pumpMainQueue(0.01);
        EXPECT_EQ(notified, i) << "each fix asks for a frame";
        auto rects = f.picture.update();
        ASSERT_FALSE(rects.empty());
        EXPECT_LT(area(rects), 0.15 * 400 * 300);
        EXPECT_EQ(f.picture.differenceFromWhole(), 0u);
    }
}

}  // namespace
}  // namespace sorvan::map

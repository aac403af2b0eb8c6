// The kept picture of the annotation views: a pan by whole device pixels blends it instead of
// drawing every view, and gives the pixels a full draw at the new camera gives; anything else
// draws the views again.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <vector>

#include "graphics/cairo_handles.hpp"
#include "map/annotation_layer.hpp"

namespace sorvan::map::detail {
namespace {

constexpr Coordinate kBangkok{13.7563, 100.5018};
constexpr int kWidth = 400, kHeight = 300, kScale = 2;

// Counts its draws: a subclass is drawn in full, so every draw reaches draw().
class CountingView : public AnnotationView {
  public:
    using AnnotationView::AnnotationView;
    static inline int draws = 0;
    void draw(cairo_t* context, gfx::Rect bounds) override {
        ++draws;
        cairo_set_source_rgba(context, 0.1, 0.3, 0.8, 0.9);
        cairo_rectangle(context, bounds.origin.x + 1, bounds.origin.y + 1, bounds.size.width - 2,
                        bounds.size.height - 2);
        cairo_fill(context);
    }
};

// A 12 x 12 point icon at scale 2 with a translucent rim.
std::shared_ptr<gfx::Image> icon() {
    std::vector<std::uint32_t> px(24 * 24);
    for (int y = 0; y < 24; ++y)
        for (int x = 0; x < 24; ++x) {
            bool rim = x < 3 || y < 3 || x > 20 || y > 20;
            std::uint32_t a = rim ? 0x60 : 0xff;
            px[y * 24 + x] = a << 24 | (a * 200 / 255) << 16 | (a * x * 10 / 255) << 8;
        }
    return gfx::Image::fromPixels(24, 24, std::move(px), 2);
}

// The kind of view an annotation gets: drawn in full, a faded icon or a plain icon.
struct KindAnnotation : PointAnnotation {
    KindAnnotation(Coordinate c, int k) : PointAnnotation(c), kind(k) {}
    int kind;
};

class Host : public AnnotationLayer::Host {
  public:
    std::shared_ptr<AnnotationView> askViewForAnnotation(
        const std::shared_ptr<Annotation>& a) override {
        int kind = static_cast<const KindAnnotation&>(*a).kind;
        if (kind == 0) {
            auto v = std::make_shared<CountingView>(a);
            v->setFrame({0, 0, 16, 10});
            return v;
        }
        auto v = std::make_shared<AnnotationView>(a);
        v->setImage(image_);
        if (kind == 1)
            v->setAlpha(0.6);
        return v;
    }
    void didSelectAnnotationView(const std::shared_ptr<AnnotationView>&) override {}
    void didDeselectAnnotationView(const std::shared_ptr<AnnotationView>&) override {}
    void annotationsNeedDisplay() override {}

  private:
    std::shared_ptr<gfx::Image> image_ = icon();
};

// A layer with annotations scattered over the screen and a margin around it.
struct Scene {
    Host host;
    AnnotationLayer layer{host, std::make_shared<UserLocation>()};
    Viewport viewport{{kWidth, kHeight}};
    std::vector<std::shared_ptr<KindAnnotation>> annotations;

    explicit Scene(const Camera& camera) {
        viewport.setScale(kScale);
        viewport.moveTo(camera);
    }
    void addScattered(const Viewport& around) {
        std::srand(3);
        for (std::size_t i = 0; i < AnnotationLayer::kPanPictureMinViews + 120; ++i) {
            // On screen, so that every view is made in the first frame: a view made later is
            // a change of what the views show.
            double x = std::rand() % kWidth, y = std::rand() % kHeight;
            auto a = std::make_shared<KindAnnotation>(
                coordinateForMapPoint(around.mapFromPoint({x + 0.3, y + 0.7})),
                static_cast<int>(i % 3));
            annotations.push_back(a);
            layer.add(a);
        }
    }
    // One frame of the layer over an opaque ground, as the map view draws it.
    std::vector<std::uint32_t> frame() {
        gfx::SurfacePtr s(
            cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kWidth * kScale, kHeight * kScale));
        gfx::ContextPtr cr(cairo_create(s.get()));
        cairo_set_source_rgb(cr.get(), 0.9, 0.88, 0.85);
        cairo_paint(cr.get());
        cairo_scale(cr.get(), kScale, kScale);
        layer.makeViewsNearScreen(viewport);
        layer.place(viewport);
        layer.draw(cr.get());
        cairo_surface_flush(s.get());
        auto* data = reinterpret_cast<std::uint32_t*>(cairo_image_surface_get_data(s.get()));
        return {data, data + kWidth * kScale * kHeight * kScale};
    }
};

// The largest channel difference between two frames.
int worstDifference(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b) {
    int worst = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        for (int shift = 0; shift < 32; shift += 8)
            worst = std::max(worst, std::abs(static_cast<int>((a[i] >> shift) & 0xff) -
                                             static_cast<int>((b[i] >> shift) & 0xff)));
    return worst;
}

// What a layer that never saw an earlier camera draws at the scene's camera now.
std::vector<std::uint32_t> freshFrame(const Scene& scene) {
    Scene fresh(scene.viewport.camera());
    for (auto& a : scene.annotations)
        fresh.layer.add(a);
    return fresh.frame();
}

TEST(AnnotationLayerPan, BlendsTheKeptPictureOnlyForWholePixelPansOfUnchangedViews) {
    Camera start{mapPointForCoordinate(kBangkok), 128.0 * 4096 / kMapWorldSize, 0};
    Scene scene(start);
    scene.addScattered(scene.viewport);
    scene.frame();
    ASSERT_GT(CountingView::draws, 0);

    // Whole device pixels, either way, up to the margin: no view is drawn, and the pixels are
    // a full draw's (blending the picture rounds a little differently from view by view).
    for (auto [dx, dy] : {std::pair{7.0, 0.0}, {-30.5, 12.0}, {0.0, -60.0}, {60.0, 60.0}}) {
        SCOPED_TRACE(testing::Message() << dx << "," << dy);
        scene.viewport.moveTo(scene.viewport.panned(dx, dy));
        int before = CountingView::draws;
        auto panned = scene.frame();
        EXPECT_EQ(CountingView::draws, before);
        EXPECT_LE(worstDifference(panned, freshFrame(scene)), 2);
    }

    // Draws after a change; a fresh layer makes its own views, so the frames are compared
    // unless the change was made to a view.
    auto drawsFor = [&](const std::function<void()>& change, bool compare = true) {
        change();
        int before = CountingView::draws;
        auto frame = scene.frame();
        int draws = CountingView::draws - before;
        if (compare) {
            EXPECT_LE(worstDifference(frame, freshFrame(scene)), 2);
        }
        return draws;
    };
    // A quarter of a point is half a device pixel: views would land between pixels.
    EXPECT_GT(drawsFor([&] { scene.viewport.moveTo(scene.viewport.panned(0.25, 0)); }), 0);
    EXPECT_EQ(drawsFor([&] { scene.viewport.moveTo(scene.viewport.panned(0.5, 0)); }), 0);
    // Beyond the margin the picture has nothing to show.
    double beyond = AnnotationLayer::kPanMargin / kScale + 1;
    EXPECT_GT(drawsFor([&] { scene.viewport.moveTo(scene.viewport.panned(beyond, 0)); }), 0);
    EXPECT_GT(drawsFor([&] { scene.viewport.moveTo(scene.viewport.panned(-beyond, 0)); }), 0);
    EXPECT_GT(drawsFor([&] { scene.viewport.moveTo(scene.viewport.zoomed(2, {200, 150})); }), 0);
    EXPECT_GT(drawsFor([&] { scene.viewport.moveTo(scene.viewport.zoomed(0.5, {200, 150})); }), 0);
    EXPECT_GT(drawsFor([&] { scene.viewport.moveTo(scene.viewport.rotated(15)); }), 0);
    EXPECT_GT(drawsFor([&] { scene.viewport.moveTo(scene.viewport.rotated(-15)); }), 0);

    // A view that changes, an annotation that moves, comes or goes: drawn again.
    auto plain = scene.layer.viewFor(scene.annotations[2].get());
    ASSERT_NE(plain, nullptr);
    EXPECT_GT(drawsFor([&] { plain->setAlpha(0.3); }, false), 0);
    EXPECT_GT(drawsFor([&] { plain->setHidden(true); }, false), 0);
    EXPECT_GT(drawsFor([&] { plain->setHidden(false); }, false), 0);
    EXPECT_GT(drawsFor([&] { plain->setAlpha(1); }), 0);
    EXPECT_GT(drawsFor([&] {
                  scene.annotations[1]->setCoordinate(
                      coordinateForMapPoint(scene.viewport.mapFromPoint({120, 80})));
              }),
              0);
    EXPECT_GT(drawsFor([&] {
                  scene.layer.remove(scene.annotations.back());
                  scene.annotations.pop_back();
              }),
              0);
    EXPECT_GT(drawsFor([&] {
                  auto a = std::make_shared<KindAnnotation>(
                      coordinateForMapPoint(scene.viewport.mapFromPoint({200, 150})), 0);
                  scene.annotations.push_back(a);
                  scene.layer.add(a);
              }),
              0);
    // And nothing changed: the picture again.
    EXPECT_EQ(drawsFor([] {}), 0);

    // Few views near the screen are drawn one by one, whole-pixel pan or not.
    while (scene.annotations.size() >= AnnotationLayer::kPanPictureMinViews) {
        scene.layer.remove(scene.annotations.back());
        scene.annotations.pop_back();
    }
    scene.frame();
    EXPECT_GT(drawsFor([&] { scene.viewport.moveTo(scene.viewport.panned(7, 0)); }), 0);
    EXPECT_GT(drawsFor([] {}), 0);
}

}  // namespace
}  // namespace sorvan::map::detail

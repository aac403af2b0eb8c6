// The annotation layer without a map view or a frame: which views are asked for and kept,
// where they are placed, which is on top, and selection.
#include "map/annotation_layer.hpp"

#include <gtest/gtest.h>

#include <functional>

namespace sorvan::map::detail {
namespace {

constexpr Coordinate kBangkok{13.7563, 100.5018};

class FakeHost : public AnnotationLayer::Host {
  public:
    std::function<std::shared_ptr<AnnotationView>(const std::shared_ptr<Annotation>&)> makeView;
    std::vector<const Annotation*> asked;
    std::vector<std::shared_ptr<AnnotationView>> selected, deselected;
    int displays = 0;

    std::shared_ptr<AnnotationView> askViewForAnnotation(
        const std::shared_ptr<Annotation>& a) override {
        asked.push_back(a.get());
        if (makeView)
            return makeView(a);
        auto v = std::make_shared<AnnotationView>(a);
        v->setFrame({0, 0, 10, 10});
        return v;
    }
    void didSelectAnnotationView(const std::shared_ptr<AnnotationView>& v) override {
        selected.push_back(v);
    }
    void didDeselectAnnotationView(const std::shared_ptr<AnnotationView>& v) override {
        deselected.push_back(v);
    }
    void annotationsNeedDisplay() override { ++displays; }
};

struct LayerFixture {
    FakeHost host;
    AnnotationLayer layer{host, std::make_shared<UserLocation>()};
    Viewport viewport{{400, 300}};

    LayerFixture() {
        // Level 12 of 256-pixel tiles on Bangkok: 1 point = 2^28 / (128 * 4096) map points.
        viewport.moveTo({mapPointForCoordinate(kBangkok), 128.0 * 4096 / kMapWorldSize, 0});
    }
    // An annotation dx, dy points from the view's centre.
    std::shared_ptr<PointAnnotation> at(double dx, double dy) {
        MapPoint m = viewport.mapFromPoint({200 + dx, 150 + dy});
        return std::make_shared<PointAnnotation>(coordinateForMapPoint(m));
    }
};

TEST(AnnotationLayer, AsksForViewsOnceWhenNearTheScreenAndKeepsThem) {
    LayerFixture f;
    auto inside = f.at(0, 0);
    auto nearRight = f.at(200 + AnnotationLayer::kViewMargin - 5, 0);
    auto farRight = f.at(200 + AnnotationLayer::kViewMargin + 5, 0);
    EXPECT_TRUE(f.layer.add(inside));
    EXPECT_FALSE(f.layer.add(inside)) << "already on the map";
    EXPECT_FALSE(f.layer.add(nullptr));
    f.layer.add(nearRight);
    f.layer.add(farRight);
    EXPECT_EQ(f.host.asked.size(), 0u) << "nothing is asked until views are wanted";
    f.layer.makeViewsNearScreen(f.viewport);
    EXPECT_EQ(f.host.asked, (std::vector<const Annotation*>{inside.get(), nearRight.get()}));
    f.layer.makeViewsNearScreen(f.viewport);
    EXPECT_EQ(f.host.asked.size(), 2u) << "views are kept";
    EXPECT_EQ(f.layer.viewFor(inside.get())->superview().get(), &f.layer.container());

    // The engine's own views: a pin for a null answer.
    f.host.makeView = [](const std::shared_ptr<Annotation>&) { return nullptr; };
    f.viewport.moveTo(f.viewport.panned(-100, 0));
    f.layer.makeViewsNearScreen(f.viewport);
    EXPECT_TRUE(std::dynamic_pointer_cast<PinAnnotationView>(f.layer.viewFor(farRight.get())));

    // The host may remove the annotation it is asked about, or add others meanwhile.
    auto stale = f.at(10, 10), added = f.at(20, 20);
    f.host.makeView = [&](const std::shared_ptr<Annotation>& a) -> std::shared_ptr<AnnotationView> {
        if (a == stale) {
            f.layer.remove(a);
            f.layer.add(added);
        }
        return std::make_shared<AnnotationView>(a);
    };
    f.layer.add(stale);
    f.layer.makeViewsNearScreen(f.viewport);
    EXPECT_EQ(f.layer.viewFor(stale.get()), nullptr);
    EXPECT_FALSE(f.layer.contains(stale.get()));
    EXPECT_EQ(f.layer.viewFor(added.get()), nullptr) << "added during the walk: the next one";
    f.layer.makeViewsNearScreen(f.viewport);
    EXPECT_NE(f.layer.viewFor(added.get()), nullptr);
}

TEST(AnnotationLayer, PlacesViewsOnTheirPointsAndFollowsMovedAnnotations) {
    LayerFixture f;
    auto a = f.at(-50, 20);
    f.host.makeView = [](const std::shared_ptr<Annotation>& ann) {
        auto v = std::make_shared<AnnotationView>(ann);
        v->setFrame({0, 0, 20, 10});
        v->setCenterOffset({3, -4});
        return v;
    };
    f.layer.add(a);
    f.layer.makeViewsNearScreen(f.viewport);
    f.layer.place(f.viewport);
    auto v = f.layer.viewFor(a.get());
    EXPECT_NEAR(v->frame().origin.x, 150 + 3 - 10, 1e-6);
    EXPECT_NEAR(v->frame().origin.y, 170 - 4 - 5, 1e-6);
    EXPECT_EQ(v->frame().size, (gfx::Size{20, 10}));

    // Annotations announce no moves: each frame reads the coordinate again.
    a->setCoordinate(coordinateForMapPoint(f.viewport.mapFromPoint({100, 100})));
    f.layer.place(f.viewport);
    EXPECT_NEAR(v->frame().origin.x, 100 + 3 - 10, 1e-6);
    EXPECT_NEAR(v->frame().origin.y, 100 - 4 - 5, 1e-6);

    // Frames fall on whole device pixels (halves of points at scale 2), so icons stay crisp.
    a->setCoordinate(coordinateForMapPoint(f.viewport.mapFromPoint({100.3, 99.8})));
    f.layer.place(f.viewport);
    EXPECT_NEAR(v->frame().origin.x, 93.5, 1e-9);
    EXPECT_NEAR(v->frame().origin.y, 91, 1e-9);
    f.viewport.setScale(3);
    f.layer.place(f.viewport);
    EXPECT_NEAR(v->frame().origin.x, 93 + 1.0 / 3, 1e-9);
    f.viewport.setScale(2);
    a->setCoordinate(coordinateForMapPoint(f.viewport.mapFromPoint({100, 100})));
    f.layer.place(f.viewport);

    // Far off screen a view keeps the frame it had; back near the screen it follows again.
    gfx::Rect before = v->frame();
    f.viewport.moveTo(f.viewport.panned(-2000, 0));
    f.layer.place(f.viewport);
    EXPECT_EQ(v->frame(), before);
    f.viewport.moveTo(f.viewport.panned(1990, 0));
    f.layer.place(f.viewport);
    EXPECT_NEAR(v->frame().origin.x, 100 - 10 + 3 - 10, 1e-6);
}

TEST(AnnotationLayer, HitsTheTopmostShownViewByZThenListOrder) {
    LayerFixture f;
    auto first = f.at(0, 0), second = f.at(2, 2), raised = f.at(4, 4), hidden = f.at(6, 6);
    auto faint = f.at(8, 8);
    f.host.makeView = [&](const std::shared_ptr<Annotation>& a) {
        auto v = std::make_shared<AnnotationView>(a);
        v->setFrame({0, 0, 30, 30});
        if (a == raised)
            v->setZPosition(1);
        if (a == hidden)
            v->setHidden(true);
        if (a == faint)
            v->setAlpha(0.005);
        return v;
    };
    for (auto& a : {raised, first, second, hidden, faint})
        f.layer.add(a);
    f.layer.makeViewsNearScreen(f.viewport);
    auto hit = [&](gfx::Point p) {
        f.layer.place(f.viewport);
        auto v = f.layer.hitTest(p);
        return v ? v->annotation() : nullptr;
    };
    EXPECT_EQ(hit({200, 150}), raised) << "z-position first, though added first";
    f.layer.viewFor(raised.get())->setZPosition(0);
    EXPECT_EQ(hit({200, 150}), second) << "then the later in the list";
    EXPECT_EQ(hit({216, 166}), second) << "hidden and faint views above are not hit";
    EXPECT_EQ(hit({300, 50}), nullptr);
    f.layer.remove(second);
    EXPECT_EQ(hit({200, 150}), first);
}

TEST(AnnotationLayer, ThousandsComeAndGoInOrderAndTheirViewsAreLetGo) {
    LayerFixture f;
    std::vector<std::shared_ptr<PointAnnotation>> all;
    for (int i = 0; i < 3000; ++i)
        all.push_back(f.at(i % 300 - 150, i / 30 - 50));
    for (auto& a : all)
        f.layer.add(a);
    f.layer.makeViewsNearScreen(f.viewport);
    std::vector<std::weak_ptr<AnnotationView>> views;
    for (auto& a : all)
        views.push_back(f.layer.viewFor(a.get()));
    f.layer.select(all[7], f.viewport);
    f.host.selected.clear();
    // Every odd one goes, one call each, then a few even ones.
    for (std::size_t i = 1; i < all.size(); i += 2)
        EXPECT_TRUE(f.layer.remove(all[i]));
    EXPECT_FALSE(f.layer.remove(all[1])) << "already gone";
    f.layer.remove(all[0]);
    f.layer.remove(all[2998]);
    EXPECT_EQ(f.layer.selected(), nullptr) << "the selected one left";
    auto left = f.layer.annotations();
    ASSERT_EQ(left.size(), 1498u);
    EXPECT_EQ(f.layer.count(), 1498u);
    for (std::size_t i = 0; i < left.size(); ++i)
        EXPECT_EQ(left[i], all[2 * i + 2]) << i;
    for (std::size_t i = 0; i < all.size(); ++i) {
        bool kept = i % 2 == 0 && i != 0 && i != 2998;
        EXPECT_EQ(f.layer.contains(all[i].get()), kept) << i;
        EXPECT_EQ(views[i].expired(), !kept) << i;
        if (kept) {
            EXPECT_EQ(f.layer.viewFor(all[i].get()), views[i].lock());
        }
    }
    EXPECT_EQ(f.layer.container().subviews().size(), 1498u);
    // Re-added, an annotation is new to the map: it is asked for a new view, at the end.
    f.layer.add(all[1]);
    EXPECT_EQ(f.layer.annotations().back(), all[1]);
    std::size_t asked = f.host.asked.size();
    f.layer.makeViewsNearScreen(f.viewport);
    EXPECT_EQ(f.host.asked.size(), asked + 1);
}

TEST(AnnotationLayer, SelectsOneAtATimeEvenOffScreen) {
    LayerFixture f;
    auto a = f.at(0, 0), off = f.at(5000, 0);
    f.layer.add(a);
    f.layer.add(off);
    f.layer.select(a, f.viewport);
    EXPECT_EQ(f.layer.selected(), a);
    ASSERT_EQ(f.host.selected.size(), 1u);
    EXPECT_TRUE(f.host.selected[0]->isSelected());
    f.layer.select(a, f.viewport);
    EXPECT_EQ(f.host.selected.size(), 1u) << "selecting the selected one again is nothing";

    // Selecting an annotation off screen makes its view.
    f.layer.select(off, f.viewport);
    EXPECT_EQ(f.layer.selected(), off);
    ASSERT_EQ(f.host.deselected.size(), 1u);
    EXPECT_EQ(f.host.deselected[0], f.layer.viewFor(a.get()));
    EXPECT_FALSE(f.layer.viewFor(a.get())->isSelected());
    ASSERT_NE(f.layer.viewFor(off.get()), nullptr);

    // Deselecting what is not selected, or selecting what is not on the map, changes nothing
    // (a host undoing a selection at once is pinned through the map view's taps).
    std::size_t calls = f.host.deselected.size();
    f.layer.deselect(a);
    f.layer.select(std::make_shared<PointAnnotation>(), f.viewport);
    EXPECT_EQ(f.host.deselected.size(), calls);
    EXPECT_EQ(f.layer.selected(), off);
}

TEST(AnnotationLayer, UserLocationComesLastOnceLocatedAndHidingDropsItsView) {
    LayerFixture f;
    auto a = f.at(0, 0);
    f.layer.add(a);
    auto user = f.layer.userLocation();
    f.layer.setShowsUserLocation(true);
    EXPECT_EQ(f.layer.annotations().size(), 1u) << "not on the map until located";
    user->update(coordinateForMapPoint(f.viewport.mapFromPoint({10, 10})), std::nullopt);
    EXPECT_EQ(f.layer.annotations(), (std::vector<std::shared_ptr<Annotation>>{a, user}));
    EXPECT_FALSE(f.layer.add(user));
    EXPECT_FALSE(f.layer.remove(user)) << "shown or hidden, not removed";
    f.host.makeView = [](const std::shared_ptr<Annotation>&) { return nullptr; };
    f.layer.makeViewsNearScreen(f.viewport);
    auto dot = f.layer.viewFor(user.get());
    ASSERT_NE(dot, nullptr);
    EXPECT_FALSE(std::dynamic_pointer_cast<PinAnnotationView>(dot)) << "the engine's dot";
    f.layer.setShowsUserLocation(false);
    EXPECT_EQ(f.layer.viewFor(user.get()), nullptr);
    EXPECT_EQ(dot->superview(), nullptr);
    EXPECT_EQ(f.layer.annotations().size(), 1u);
}

}  // namespace
}  // namespace sorvan::map::detail

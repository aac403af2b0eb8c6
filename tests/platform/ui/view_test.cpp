#include <cairo.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/ui/controls.hpp"
#include "sorvan/platform/ui/layout_constraint.hpp"
#include "sorvan/platform/ui/view.hpp"

namespace sorvan::ui {
namespace {

using A = LayoutAttribute;
using R = LayoutRelation;

std::shared_ptr<LayoutConstraint> make(const std::shared_ptr<View>& a, A aa, R r,
                                       const std::shared_ptr<View>& b, A ba, double c) {
    return LayoutConstraint::create(a, aa, r, b, ba, 1.0, c);
}

TEST(LayoutConstraint, PlacesALabelAtTheBottomLeftWithMinimumWidth) {
    auto root = std::make_shared<View>(gfx::Rect{0, 0, 320, 480});
    auto label = std::make_shared<View>(gfx::Rect{0, 0, 100, 16});
    root->addSubview(label);
    label->setTranslatesAutoresizingMaskIntoConstraints(false);
    auto height = make(label, A::Height, R::Equal, nullptr, A::NotAnAttribute, 16);
    auto width = make(label, A::Width, R::GreaterThanOrEqual, nullptr, A::NotAnAttribute, 100);
    auto left = make(label, A::Left, R::Equal, root, A::Left, 10);
    auto bottom = make(label, A::Bottom, R::Equal, root, A::Bottom, -20);
    LayoutConstraint::activate({height, width, left, bottom});
    EXPECT_TRUE(height->isActive());
    // Constant sizes live on the item; relations to the parent on the parent.
    EXPECT_EQ(label->constraints().size(), 2u);
    EXPECT_EQ(root->constraints().size(), 2u);
    root->layoutIfNeeded();
    EXPECT_EQ(label->frame(), (gfx::Rect{10, 444, 100, 16}));

    // The parent grows: the label follows its bottom edge.
    root->setFrame({0, 0, 320, 600});
    root->layoutIfNeeded();
    EXPECT_EQ(label->frame(), (gfx::Rect{10, 564, 100, 16}));

    // A narrower frame is widened back to the minimum; a wider one is kept.
    label->setFrame({0, 0, 40, 16});
    root->setNeedsLayout();
    root->layoutIfNeeded();
    EXPECT_EQ(label->frame().size.width, 100);
    label->setFrame({0, 0, 180, 16});
    root->setNeedsLayout();
    root->layoutIfNeeded();
    EXPECT_EQ(label->frame().size.width, 180);

    // Inactive constraints do nothing; constants can change.
    bottom->setActive(false);
    EXPECT_EQ(root->constraints().size(), 1u);
    left->setConstant(30);
    root->layoutIfNeeded();
    EXPECT_EQ(label->frame().origin.x, 30);
}

TEST(LayoutConstraint, ContentSizeWinsWhereTheInequalitiesAllowIt) {
    TextAttributes bold;
    bold.weight = FontWeight::Bold;
    bold.size = 9;
    AttributedString longTitle("Sorvan Map \u00a9 TV, Kerova, OSM and friends", bold);
    gfx::Size oneLine = measureText(longTitle, 0);
    ASSERT_GT(oneLine.width, 100);

    auto root = std::make_shared<View>(gfx::Rect{0, 0, 320, 480});
    auto label = std::make_shared<Button>(gfx::Rect{0, 0, 100, 16});
    label->setAttributedTitle(longTitle);
    root->addSubview(label);
    label->setTranslatesAutoresizingMaskIntoConstraints(false);
    auto width = make(label, A::Width, R::GreaterThanOrEqual, nullptr, A::NotAnAttribute, 100);
    LayoutConstraint::activate({
        make(label, A::Height, R::Equal, nullptr, A::NotAnAttribute, 16),
        width,
        make(label, A::Left, R::Equal, root, A::Left, 10),
        make(label, A::Bottom, R::Equal, root, A::Bottom, -20),
    });
    root->layoutIfNeeded();
    // Wide enough for one line (and no wider than a pixel's rounding); the height stays fixed.
    EXPECT_GE(label->frame().size.width, oneLine.width);
    EXPECT_LT(label->frame().size.width, oneLine.width + 1);
    EXPECT_EQ(label->frame().size.height, 16);
    EXPECT_EQ(label->frame().origin.x, 10);
    EXPECT_DOUBLE_EQ(measureText(longTitle, label->frame().size.width).height, oneLine.height);

    // A short title is held at the minimum; a new title lays the parent out again.
    label->setAttributedTitle(AttributedString("OK", bold));
    root->layoutIfNeeded();
    EXPECT_EQ(label->frame().size.width, 100);

    // At most: the content size is cut back to the bound.
    label->setAttributedTitle(longTitle);
    width->setActive(false);
    LayoutConstraint::activate(
        {make(label, A::Width, R::LessThanOrEqual, nullptr, A::NotAnAttribute, 60)});
    root->layoutIfNeeded();
    EXPECT_EQ(label->frame().size.width, 60);

    // Placed but not sized: an image view takes its image's size in points; one that keeps
    // translating its autoresizing mask keeps the frame it was given.
    auto image = gfx::Image::fromPixels(48, 32, std::vector<std::uint32_t>(48 * 32), 2.0);
    auto icon = std::make_shared<ImageView>(image);
    auto framed = std::make_shared<ImageView>(image);
    framed->setFrame({0, 0, 50, 50});
    root->addSubview(icon);
    root->addSubview(framed);
    icon->setTranslatesAutoresizingMaskIntoConstraints(false);
    LayoutConstraint::activate({
        make(icon, A::CenterX, R::Equal, root, A::CenterX, 0),
        make(icon, A::Top, R::Equal, root, A::Top, 8),
        make(framed, A::Top, R::Equal, root, A::Top, 100),
    });
    root->layoutIfNeeded();
    EXPECT_EQ(icon->frame(), (gfx::Rect{148, 8, 24, 16}));
    EXPECT_EQ(framed->frame(), (gfx::Rect{0, 100, 50, 50}));
}

TEST(LayoutConstraint, CentresTrailingEdgesAndSiblingsResolve) {
    auto root = std::make_shared<View>(gfx::Rect{0, 0, 200, 100});
    auto a = std::make_shared<View>(gfx::Rect{0, 0, 20, 10});
    auto b = std::make_shared<View>(gfx::Rect{0, 0, 30, 30});
    root->addSubview(a);
    root->addSubview(b);
    LayoutConstraint::activate({
        make(a, A::CenterX, R::Equal, root, A::CenterX, 0),
        make(a, A::CenterY, R::Equal, root, A::CenterY, 5),
        make(b, A::Leading, R::Equal, a, A::Trailing, 4),
        make(b, A::Trailing, R::Equal, root, A::Trailing, -6),
        make(b, A::Top, R::Equal, a, A::Bottom, 0),
        make(b, A::Height, R::Equal, a, A::Height, 0),
    });
    root->layoutIfNeeded();
    EXPECT_EQ(a->frame(), (gfx::Rect{90, 50, 20, 10}));
    // Leading and trailing pin both edges: the width follows.
    EXPECT_EQ(b->frame(), (gfx::Rect{114, 60, 80, 10}));
}

class CountingView : public View {
  public:
    using View::View;
    void layoutSubviews() override {
        ++layouts;
        View::layoutSubviews();
    }
    int layouts = 0;
};

TEST(View, LayoutSubviewsIsTheHookAndFlexibleSubviewsFollowTheParent) {
    auto root = std::make_shared<CountingView>(gfx::Rect{0, 0, 100, 100});
    auto flexible = std::make_shared<View>(gfx::Rect{0, 0, 70, 70});
    flexible->setAutoresizingMask(kFlexibleWidth | kFlexibleHeight);
    root->addSubview(flexible);
    root->layoutIfNeeded();
    root->layoutIfNeeded();
    EXPECT_EQ(root->layouts, 1) << "only when needed";
    root->setFrame({0, 0, 130, 90});
    EXPECT_EQ(flexible->frame(), (gfx::Rect{0, 0, 100, 60}));
    root->layoutIfNeeded();
    EXPECT_EQ(root->layouts, 2);
}

TEST(View, AnimatedTransformMovesOverItsDuration) {
    auto clock = std::make_shared<dispatch::ManualClock>();
    dispatch::RunLoop::main().setClock(clock);
    auto v = std::make_shared<View>(gfx::Rect{0, 0, 70, 70});
    auto quarter = gfx::AffineTransform::rotation(std::numbers::pi / 2);
    v->animateTransform(quarter, 0.1);
    EXPECT_TRUE(v->isAnimating());
    EXPECT_EQ(v->targetTransform(), quarter);
    EXPECT_TRUE(v->transform().isIdentity());
    clock->advance(std::chrono::milliseconds(50));
    auto half = v->transform();
    EXPECT_NEAR(std::atan2(half.b, half.a), std::numbers::pi / 4, 1e-9);
    EXPECT_NEAR(std::hypot(half.a, half.b), 1, 1e-9) << "a rotation, not a blend of matrices";
    clock->advance(std::chrono::milliseconds(60));
    EXPECT_FALSE(v->isAnimating());
    EXPECT_EQ(v->transform(), quarter);

    // A new animation starts from where the running one is, and setTransform is immediate.
    v->animateTransform(gfx::AffineTransform::identity(), 1.0);
    clock->advance(std::chrono::milliseconds(500));
    v->animateTransform(quarter, 1.0);
    EXPECT_NEAR(std::atan2(v->transform().b, v->transform().a), std::numbers::pi / 4, 1e-9);
    v->setTransform(gfx::AffineTransform::identity());
    EXPECT_TRUE(v->transform().isIdentity());
    EXPECT_FALSE(v->isAnimating());
    dispatch::RunLoop::main().setClock(nullptr);
}

TEST(View, HitTestAndConversionRespectHiddenZOrderAndTransforms) {
    auto root = std::make_shared<View>(gfx::Rect{0, 0, 100, 100});
    auto low = std::make_shared<View>(gfx::Rect{10, 10, 40, 40});
    auto high = std::make_shared<View>(gfx::Rect{30, 30, 40, 40});
    root->addSubview(high);
    root->addSubview(low);
    high->setZPosition(1);
    EXPECT_EQ(root->hitTest({35, 35}), high);
    EXPECT_EQ(root->hitTest({15, 15}), low);
    high->setHidden(true);
    EXPECT_EQ(root->hitTest({35, 35}), low);
    EXPECT_EQ(root->hitTest({95, 95}), root);
    EXPECT_EQ(root->hitTest({150, 5}), nullptr);

    // A half turn about the centre maps the top-left corner onto the bottom-right one.
    low->setTransform(gfx::AffineTransform::rotation(std::numbers::pi));
    gfx::Point p = low->convertPoint({0, 0}, root.get());
    EXPECT_NEAR(p.x, 50, 1e-9);
    EXPECT_NEAR(p.y, 50, 1e-9);
    gfx::Point back = root->convertPoint(p, low.get());
    EXPECT_NEAR(back.x, 0, 1e-9);
    EXPECT_NEAR(back.y, 0, 1e-9);

    // Re-adding brings a view to the front; removal lets it go.
    root->addSubview(low);
    EXPECT_EQ(root->subviews().back(), low);
    std::weak_ptr<View> weak = low;
    low->removeFromSuperview();
    low.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(root->subviews().size(), 1u);
}

// The opacity of a view applies to it and its subviews as one, also where a subview reaches
// beyond its parent's bounds (and where a turned subview does).
TEST(View, AFadedViewFadesItsSubviewsOutsideItsBoundsToo) {
    std::vector<std::uint32_t> pixels(100 * 100, 0);
    cairo_surface_t* surface = cairo_image_surface_create_for_data(
        reinterpret_cast<unsigned char*>(pixels.data()), CAIRO_FORMAT_ARGB32, 100, 100, 400);
    cairo_t* cr = cairo_create(surface);
    auto parent = std::make_shared<View>(gfx::Rect{10, 10, 20, 20});
    parent->setBackgroundColor({1, 0, 0, 1});
    parent->setAlpha(0.5);
    auto outside = std::make_shared<View>(gfx::Rect{50, 50, 20, 20});
    outside->setBackgroundColor({0, 0, 1, 1});
    auto turned = std::make_shared<View>(gfx::Rect{-8, 30, 4, 40});
    turned->setBackgroundColor({0, 1, 0, 1});
    turned->setTransform(gfx::AffineTransform::rotation(std::numbers::pi / 2));
    parent->addSubview(outside);
    parent->addSubview(turned);
    parent->drawHierarchy(cr);
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    auto alphaAt = [&](int x, int y) {
        return pixels[static_cast<std::size_t>(y) * 100 + x] >> 24;
    };
    EXPECT_NEAR(alphaAt(20, 20), 128, 1);  // the parent
    EXPECT_NEAR(alphaAt(70, 70), 128, 1);  // the subview beyond its bounds
    EXPECT_NEAR(alphaAt(10, 60), 128, 1);  // the turned subview, now lying left of it
    EXPECT_EQ(alphaAt(90, 10), 0u);
}

TEST(AttributedText, MeasuresLatinAndThaiWithRealFonts) {
    TextAttributes bold;
    bold.weight = FontWeight::Bold;
    bold.size = 9;
    AttributedString latin("Sorvan Map", bold);
    gfx::Size ls = measureText(latin, 0);
    EXPECT_GT(ls.width, 30);
    EXPECT_LT(ls.width, 80);
    EXPECT_GT(ls.height, 8);
    EXPECT_LT(ls.height, 16);

    // Thai shapes with combining marks: the width is that of the base letters, not of every
    // code point, and nothing falls back to boxes of a missing font.
    TextAttributes plain;
    plain.size = 20;
    AttributedString thai("แผนที่", plain);
    gfx::Size ts = measureText(thai, 0);
    EXPECT_GT(ts.width, 30);
    EXPECT_LT(ts.width, 90);

    // Runs concatenate; a narrow width wraps onto more lines.
    AttributedString both = latin;
    both.append(AttributedString(" กรุงเทพ", plain));
    EXPECT_EQ(both.string(), "Sorvan Map กรุงเทพ");
    EXPECT_EQ(both.runs().size(), 2u);
    EXPECT_GT(measureText(both, 40).height, measureText(both, 0).height);
}

TEST(Button, RunsTheActionsOfTheSentEventOnly) {
    auto b = std::make_shared<Button>(gfx::Rect{0, 0, 100, 16});
    int up = 0, down = 0;
    int token = b->addTarget([&] { ++up; }, ControlEvent::TouchUpInside);
    b->addTarget([&] { ++down; }, ControlEvent::TouchDown);
    b->sendActions(ControlEvent::TouchUpInside);
    EXPECT_EQ(up, 1);
    EXPECT_EQ(down, 0);
    b->removeTarget(token);
    b->sendActions(ControlEvent::TouchUpInside);
    EXPECT_EQ(up, 1);

    EXPECT_EQ(b->attributedTitle(), nullptr);
    b->setAttributedTitle(AttributedString("x", {}));
    ASSERT_TRUE(b->attributedTitle(ControlState::Highlighted)) << "falls back to normal";
    EXPECT_EQ(b->attributedTitle(ControlState::Highlighted)->string(), "x");

    // An action may drop the last reference to the button that sends it.
    auto held = std::make_shared<Button>();
    std::weak_ptr<Button> weak = held;
    Button* raw = held.get();
    raw->addTarget([&held] { held.reset(); }, ControlEvent::TouchUpInside);
    auto extra = held;  // keeps it alive until the action has run
    extra.reset();
    raw->sendActions(ControlEvent::TouchUpInside);
    EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace sorvan::ui

// Frames compared with reference pictures in tests/render/<case>/expected.png.
#include <cairo.h>
#include <gtest/gtest.h>

#include <cstring>
#include <numbers>

#include "sorvan/platform/location/replay_location_source.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "sorvan/platform/ui/controls.hpp"
#include "sorvan/platform/ui/layout_constraint.hpp"
#include "support/engine_fixtures.hpp"
#include "support/render_compare.hpp"

namespace sorvan::map {
namespace {

constexpr Coordinate kBangkok{13.7563, 100.5018};

// A picture drawn with cairo: an arrow pointing up on a coloured square, pixels x pixels.
std::shared_ptr<gfx::Image> arrowImage(int pixels, double scale, gfx::Color c) {
    cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixels, pixels);
    cairo_t* cr = cairo_create(s);
    cairo_scale(cr, pixels, pixels);
    cairo_set_source_rgba(cr, c.r, c.g, c.b, c.a);
    cairo_rectangle(cr, 0.05, 0.05, 0.9, 0.9);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_move_to(cr, 0.5, 0.12);
    cairo_line_to(cr, 0.85, 0.6);
    cairo_line_to(cr, 0.15, 0.6);
    cairo_close_path(cr);
    cairo_fill(cr);
    cairo_destroy(cr);
    cairo_surface_flush(s);
    std::vector<std::uint32_t> px(static_cast<std::size_t>(pixels) * pixels);
    for (int y = 0; y < pixels; ++y)
        std::memcpy(&px[static_cast<std::size_t>(y) * pixels],
                    cairo_image_surface_get_data(s) + y * cairo_image_surface_get_stride(s),
                    static_cast<std::size_t>(pixels) * 4);
    cairo_surface_destroy(s);
    return gfx::Image::fromPixels(pixels, pixels, std::move(px), scale);
}

struct RenderFixture {
    std::shared_ptr<MapView> view = std::make_shared<MapView>(gfx::Rect{0, 0, 320, 240});
    std::shared_ptr<test::RecordingDelegate> delegate = std::make_shared<test::RecordingDelegate>();
    double overlayAlpha = 1.0;

    RenderFixture() {
        delegate->makeRenderer =
            [this](const std::shared_ptr<Overlay>& o) -> std::shared_ptr<OverlayRenderer> {
            if (auto t = std::dynamic_pointer_cast<TileOverlay>(o)) {
                auto r = std::make_shared<TileOverlayRenderer>(t);
                r->setAlpha(overlayAlpha);
                return r;
            }
            if (auto line = std::dynamic_pointer_cast<Polyline>(o)) {
                auto r = std::make_shared<PolylineRenderer>(line);
                r->setStrokeColor({0.1, 0.3, 0.9, 0.8});
                r->setLineWidth(6);
                return r;
            }
            return nullptr;
        };
        view->setDelegate(delegate);
        test::showLevel(*view, 12, mapPointForCoordinate(kBangkok));
    }
    std::shared_ptr<gfx::Image> frame() {
        auto image = view->render(std::chrono::seconds(10));
        EXPECT_TRUE(image);
        return image;
    }
};

TEST(RenderFrame, TwoTileOverlaysWithAlpha) {
    RenderFixture f;
    f.view->addOverlay(std::make_shared<test::GeneratedTileOverlay>());
    f.overlayAlpha = 0.8;
    f.view->addOverlay(
        std::make_shared<test::GeneratedTileOverlay>(test::GeneratedTileOverlay::Style::Disc));
    EXPECT_TRUE(test::matchesReference(*f.frame(), "tiles_two_overlays"));
}

TEST(RenderFrame, RotatedMapAndUpscaledDeepestLevel) {
    RenderFixture f;
    auto base = std::make_shared<test::GeneratedTileOverlay>();
    base->setMaximumZ(11);  // the view shows level 12: level 11 is drawn twice as large
    f.view->addOverlay(base);
    f.view->setCameraHeading(30);
    EXPECT_TRUE(test::matchesReference(*f.frame(), "rotation_upscaled"));
}

TEST(RenderFrame, PolylineOverNeutralGround) {
    RenderFixture f;
    std::vector<Coordinate> route = {
        {13.74, 100.48}, {13.75, 100.50}, {13.765, 100.495}, {13.77, 100.52}};
    auto line = Polyline::withCoordinates(route.data(), route.size());
    f.view->addOverlay(line);
    f.view->addOverlay(std::make_shared<Polyline>());  // no renderer: draws nothing
    f.view->setMapType(MapType::MutedStandard);
    EXPECT_TRUE(test::matchesReference(*f.frame(), "polyline"));
}

TEST(RenderFrame, AnnotationViewsWithScaleOffsetAlphaHiddenAndZOrder) {
    RenderFixture f;
    auto at = [&](double dx, double dy) {
        // A coordinate dx, dy points from the centre.
        return std::make_shared<PointAnnotation>(
            f.view->convertPointToCoordinate({160 + dx, 120 + dy}, nullptr));
    };
    auto big = at(-100, -50);    // a 40-pixel picture at scale 1: 40 points
    auto small = at(-40, -50);   // the same pixels at scale 2: 20 points
    auto offset = at(20, -50);   // centre offset (10, -10)
    auto faded = at(80, -50);    // alpha 0.4
    auto hidden = at(120, -50);  // hidden: nothing drawn
    auto under = at(-60, 40);    // two overlapping views: z decides, not the order added
    auto over = at(-50, 50);
    auto turned = at(60, 40);  // a quarter turn, with a subview
    auto red = arrowImage(40, 1, {0.85, 0.2, 0.2, 1});
    auto blue = arrowImage(40, 2, {0.2, 0.3, 0.85, 1});
    f.delegate->makeView = [&](const std::shared_ptr<Annotation>& a) {
        auto v = std::make_shared<AnnotationView>(a);
        v->setImage(a == small ? blue : red);
        if (a == offset)
            v->setCenterOffset({10, -10});
        if (a == faded)
            v->setAlpha(0.4);
        if (a == hidden)
            v->setHidden(true);
        if (a == under) {
            v->setImage(arrowImage(60, 1, {0.2, 0.7, 0.3, 1}));
            v->setZPosition(2);
        }
        if (a == over)
            v->setZPosition(1);
        if (a == turned) {
            v->setTransform(gfx::AffineTransform::rotation(std::numbers::pi / 2));
            auto badge = std::make_shared<ui::View>(gfx::Rect{0, 0, 12, 12});
            badge->setBackgroundColor({1, 0.8, 0, 1});
            v->addSubview(badge);
        }
        return v;
    };
    f.view->addAnnotations({big, small, offset, faded, hidden, over, under, turned});
    EXPECT_TRUE(test::matchesReference(*f.frame(), "annotation_views"));
}

TEST(RenderFrame, PinsAndTheDefaultUserDot) {
    RenderFixture f;
    auto a =
        std::make_shared<PointAnnotation>(f.view->convertPointToCoordinate({100, 120}, nullptr));
    auto b =
        std::make_shared<PointAnnotation>(f.view->convertPointToCoordinate({160, 120}, nullptr));
    f.delegate->makeView =
        [&](const std::shared_ptr<Annotation>& ann) -> std::shared_ptr<AnnotationView> {
        if (ann == b) {
            auto pin = std::make_shared<PinAnnotationView>(ann);
            pin->setPinTintColor({0.1, 0.6, 0.2, 1});
            pin->setAnimatesDrop(true);  // the headless frame waits for the drop to end
            return pin;
        }
        return nullptr;  // a: the default red pin; the user location: the blue dot
    };
    f.view->addAnnotations({a, b});
    LocationFix here;
    here.coordinate = f.view->convertPointToCoordinate({230, 150}, nullptr);
    auto source = std::make_shared<location::ReplayLocationSource>(std::vector<LocationFix>{here});
    f.view->setLocationSource(source);
    f.view->setShowsUserLocation(true);
    dispatch::RunLoop::main().runUntil([&] { return f.view->userLocation()->isUpdating(); },
                                       std::chrono::seconds(2));
    EXPECT_TRUE(test::matchesReference(*f.frame(), "pins_and_user_dot"));
}

TEST(RenderFrame, SubviewsLaidOutByConstraintsWithLatinAndThaiText) {
    RenderFixture f;
    f.view->setMapType(MapType::MutedStandard);
    auto label = std::make_shared<ui::Button>(gfx::Rect{0, 0, 100, 16});
    ui::TextAttributes attrs;
    attrs.weight = ui::FontWeight::Bold;
    attrs.size = 9;
    attrs.foreground = gfx::Color::darkGray();
    attrs.underline = true;
    attrs.alignment = ui::TextAlignment::Right;
    ui::AttributedString title("Sorvan Map © ", attrs);
    attrs.weight = ui::FontWeight::Regular;
    attrs.size = 11;
    title.append(ui::AttributedString("แผนที่กรุงเทพ", attrs));
    label->setAttributedTitle(title);
    f.view->addSubview(label);
    label->setTranslatesAutoresizingMaskIntoConstraints(false);
    using A = ui::LayoutAttribute;
    using R = ui::LayoutRelation;
    ui::LayoutConstraint::activate({
        ui::LayoutConstraint::create(label, A::Height, R::Equal, nullptr, A::NotAnAttribute, 1, 16),
        ui::LayoutConstraint::create(label, A::Width, R::GreaterThanOrEqual, nullptr,
                                     A::NotAnAttribute, 1, 160),
        ui::LayoutConstraint::create(label, A::Left, R::Equal, f.view, A::Left, 1, 10),
        ui::LayoutConstraint::create(label, A::Bottom, R::Equal, f.view, A::Bottom, 1, -20),
    });
    // A centred image view in each content mode along the top.
    auto picture = arrowImage(40, 2, {0.6, 0.3, 0.7, 1});
    ui::ContentMode modes[] = {ui::ContentMode::ScaleToFill, ui::ContentMode::ScaleAspectFit,
                               ui::ContentMode::ScaleAspectFill, ui::ContentMode::Center};
    for (int i = 0; i < 4; ++i) {
        auto iv = std::make_shared<ui::ImageView>(picture);
        iv->setFrame({20.0 + i * 75, 20, 60, 36});
        iv->setBackgroundColor({0.8, 0.8, 0.8, 1});
        iv->setContentMode(modes[i]);
        f.view->addSubview(iv);
    }
    auto frame = f.frame();
    EXPECT_EQ(label->frame(), (gfx::Rect{10, 204, 160, 16}));
    EXPECT_TRUE(test::matchesReference(*frame, "subviews_text"));
}

}  // namespace
}  // namespace sorvan::map

// The callout bubble of the selected annotation view, seen on the pixels of rendered frames, and
// the map moving so that a bubble opened near its edge shows whole.
#include <cairo.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "graphics/cairo_handles.hpp"
#include "map/callout.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "support/engine_fixtures.hpp"

namespace sorvan::map {
namespace {

using test::pumpMainQueue;
using test::RecordingDelegate;

constexpr Coordinate kBangkok{13.7563, 100.5018};

class TitledAnnotation : public PointAnnotation {
  public:
    TitledAnnotation(Coordinate c, std::string title, std::string subtitle)
        : PointAnnotation(c, std::move(title)), subtitle_(std::move(subtitle)) {}
    std::optional<std::string> subtitle() const override { return subtitle_; }

  private:
    std::string subtitle_;
};

// A delegate that gives every annotation a pin able to show a callout.
std::shared_ptr<RecordingDelegate> pinsWithCallouts() {
    auto delegate = std::make_shared<RecordingDelegate>();
    delegate->makeView = [](const std::shared_ptr<Annotation>& a) {
        auto pin = std::make_shared<PinAnnotationView>(a);
        pin->setCanShowCallout(true);
        return pin;
    };
    return delegate;
}

bool isWhite(const gfx::Image& image, gfx::Point p) {
    auto px = image.rgbaAt(static_cast<int>(p.x), static_cast<int>(p.y));
    return px[0] == 255 && px[1] == 255 && px[2] == 255;
}

TEST(Callout, ShowsAboveTheSelectedViewHidesOnDeselectAndTakesTaps) {
    auto view = std::make_shared<MapView>(gfx::Rect{0, 0, 320, 320});
    view->setScreenScale(1);
    auto delegate = pinsWithCallouts();
    view->setDelegate(delegate);
    test::showLevel(*view, 14, mapPointForCoordinate(kBangkok));
    auto temple = std::make_shared<TitledAnnotation>(kBangkok, "Wat Pho",
                                                     "Sanam Chai Road, Phra Nakhon, Bangkok");
    auto untitled = std::make_shared<PointAnnotation>(Coordinate{13.7500, 100.4900});
    view->addAnnotations({temple, untitled});
    pumpMainQueue(0);

    // The pin's view reaches 38 points above its point; the bubble's pointer starts 9 above.
    gfx::Point centre = view->convertCoordinateToPoint(kBangkok, nullptr);
    const double top = centre.y - 18 - 20;
    const gfx::Point inBubble{centre.x - 60, top - 9 - 4};  // in the padding, beside the pointer
    const gfx::Point inPointer{centre.x, top - 3};
    auto frame = view->render(std::chrono::seconds(1));
    ASSERT_NE(frame, nullptr);
    EXPECT_FALSE(isWhite(*frame, inBubble)) << "no bubble before a selection";

    view->tapAt({centre.x, centre.y - 10});
    ASSERT_EQ(view->selectedAnnotations().size(), 1u);
    frame = view->render(std::chrono::seconds(1));
    EXPECT_TRUE(isWhite(*frame, inBubble));
    EXPECT_TRUE(isWhite(*frame, inPointer));
    if (const char* keep = std::getenv("SORVAN_CALLOUT_PNG"))
        frame->writePNG(keep);
    // Text is drawn in it: somewhere along the title's line a pixel is dark.
    bool ink = false;
    for (double x = centre.x - 120; x < centre.x + 120 && !ink; x += 1)
        for (double y = top - 50; y < top - 20 && !ink; y += 1)
            ink = x >= 0 && y >= 0 && frame->rgbaAt(int(x), int(y))[0] < 80;
    EXPECT_TRUE(ink);

    // A tap on the bubble goes to the delegate and keeps the selection.
    view->tapAt(inBubble);
    ASSERT_EQ(delegate->calloutTaps.size(), 1u);
    EXPECT_EQ(delegate->calloutTaps[0], view->viewForAnnotation(temple));
    EXPECT_EQ(view->selectedAnnotations().size(), 1u);

    // A view's own callout text is shown even when its annotation has none; with no text at
    // all there is no bubble.
    view->setCenterCoordinate(untitled->coordinate());
    gfx::Point other = view->convertCoordinateToPoint(untitled->coordinate(), nullptr);
    const gfx::Point otherBubble{other.x - 25, other.y - 38 - 13};  // a narrower bubble
    view->selectAnnotation(untitled, true);
    frame = view->render(std::chrono::seconds(1));
    EXPECT_FALSE(isWhite(*frame, otherBubble));
    view->viewForAnnotation(untitled)->setCalloutSubtitle("Tha Tien");
    frame = view->render(std::chrono::seconds(1));
    EXPECT_TRUE(isWhite(*frame, otherBubble));

    // Another selection moved the bubble; a tap on bare map hides it.
    view->setCenterCoordinate(kBangkok);
    frame = view->render(std::chrono::seconds(1));
    EXPECT_FALSE(isWhite(*frame, inBubble));
    view->selectAnnotation(temple, true);
    frame = view->render(std::chrono::seconds(1));
    EXPECT_TRUE(isWhite(*frame, inBubble));
    view->tapAt({10, 300});
    EXPECT_TRUE(view->selectedAnnotations().empty());
    frame = view->render(std::chrono::seconds(1));
    EXPECT_FALSE(isWhite(*frame, inBubble));
    view->tapAt(inBubble);
    EXPECT_EQ(delegate->calloutTaps.size(), 1u) << "no bubble, no callout tap";
}

// A map whose animations step on a manual clock, with pins that show callouts.
struct EdgeFixture {
    std::shared_ptr<dispatch::ManualClock> clock = std::make_shared<dispatch::ManualClock>();
    std::shared_ptr<MapView> view;
    std::shared_ptr<RecordingDelegate> delegate = pinsWithCallouts();

    explicit EdgeFixture(gfx::Size size = {320, 240})
        : view(std::make_shared<MapView>(gfx::Rect{{0, 0}, size})) {
        view->setScreenScale(1);
        view->setDelegate(delegate);
        test::showLevel(*view, 14, mapPointForCoordinate(kBangkok));
        dispatch::RunLoop::main().drain();
        dispatch::RunLoop::main().setClock(clock);
        delegate->regionWillChanges.clear();
        delegate->regionChanges.clear();
    }
    ~EdgeFixture() { dispatch::RunLoop::main().setClock(nullptr); }

    // An annotation whose point is at p on the screen now.
    std::shared_ptr<TitledAnnotation> addAt(gfx::Point p, std::string title = "Wat Arun",
                                            std::string subtitle = "Bangkok Yai") {
        auto a = std::make_shared<TitledAnnotation>(view->convertPointToCoordinate(p, nullptr),
                                                    std::move(title), std::move(subtitle));
        view->addAnnotation(a);
        return a;
    }

    // Lets any animation run to its end, with what falls due on the main queue.
    void settle() {
        for (int i = 0; i < 120; ++i) {
            clock->advance(dispatch::Duration(1.0 / 120));
            dispatch::RunLoop::main().drain();
        }
    }

    // The bubble as the next frame draws it: the box the callout makes of the selected view's
    // text, its pointer's tip on the top middle of the view as placed for that frame.
    gfx::Rect bubble(const std::shared_ptr<Annotation>& a) {
        gfx::Size size = view->bounds().size;
        frame = gfx::SurfacePtr(cairo_image_surface_create(
            CAIRO_FORMAT_ARGB32, static_cast<int>(size.width), static_cast<int>(size.height)));
        gfx::ContextPtr cr(cairo_create(frame.get()));
        view->drawFrame(cr.get());
        cairo_surface_flush(frame.get());
        auto v = view->viewForAnnotation(a);
        detail::Callout callout;
        callout.setText(v->calloutTitle().value_or(""), v->calloutSubtitle().value_or(""));
        gfx::Rect f = v->frame();
        return callout.frame({f.midX(), f.minY()});
    }
    // Whether the last frame bubble() drew is white at p, as the bubble's padding is.
    bool drawnWhite(gfx::Point p) const {
        auto* px = cairo_image_surface_get_data(frame.get()) +
                   static_cast<int>(p.y) * cairo_image_surface_get_stride(frame.get()) +
                   static_cast<int>(p.x) * 4;
        return px[0] == 255 && px[1] == 255 && px[2] == 255;
    }
    gfx::SurfacePtr frame;
};

bool inside(const gfx::Rect& r, gfx::Size bounds) {
    return r.minX() >= 0 && r.minY() >= 0 && r.maxX() <= bounds.width && r.maxY() <= bounds.height;
}

TEST(Callout, OpeningNearAnEdgeMovesTheMapJustEnoughToShowTheBubbleWhole) {
    struct Case {
        const char* edge;
        gfx::Point at;
    };
    const Case cases[] = {
        {"left", {12, 160}},
        {"right", {305, 160}},
        {"top", {160, 20}},
        {"top left corner", {4, 4}},
        {"bottom right, the pin itself cut off", {318, 238}},
    };
    for (const Case& c : cases) {
        for (bool animated : {true, false}) {
            SCOPED_TRACE(std::string(c.edge) + (animated ? ", animated" : ", at once"));
            EdgeFixture f;
            auto a = f.addAt(c.at);
            ASSERT_FALSE(inside(f.bubble(a), {320, 240})) << "the case starts cut off";
            f.view->selectAnnotation(a, animated);
            EXPECT_EQ(f.view->isAnimatingCamera(), animated);
            f.settle();
            gfx::Rect b = f.bubble(a);
            EXPECT_TRUE(inside(b, {320, 240}))
                << b.minX() << "," << b.minY() << " " << b.size.width << "x" << b.size.height;
            // Just inside its margin on the edge it crossed, not brought to the middle.
            double nearest = std::min({b.minX(), b.minY(), 320 - b.maxX(), 240 - b.maxY()});
            gfx::Rect pin = f.view->viewForAnnotation(a)->frame();
            nearest = std::min({nearest, 320 - pin.maxX(), 240 - pin.maxY()});
            EXPECT_NEAR(nearest, 8, 1);
            EXPECT_TRUE(f.drawnWhite({b.minX() + 4, b.midY()})) << "the bubble is drawn there";
            // One change, announced once, as any other.
            EXPECT_EQ(f.delegate->regionWillChanges, (std::vector<bool>{animated}));
            EXPECT_EQ(f.delegate->regionChanges, (std::vector<bool>{animated}));
            EXPECT_EQ(f.view->selectedAnnotations().size(), 1u);
        }
    }
}

TEST(Callout, ABubbleThatShowsOrCannotShowLeavesTheMapWhereItIs) {
    EdgeFixture f;
    const MapRect start = f.view->visibleMapRect();
    auto unmoved = [&] {
        f.settle();
        return f.view->visibleMapRect() == start && f.delegate->regionChanges.empty() &&
               f.delegate->regionWillChanges.empty();
    };
    // Already inside.
    auto middle = f.addAt({160, 150});
    f.view->selectAnnotation(middle, true);
    EXPECT_TRUE(inside(f.bubble(middle), {320, 240}));
    EXPECT_TRUE(unmoved());

    // Near the edge, but with no bubble: a view that shows none, a view without any text.
    auto plain = f.addAt({6, 160});
    f.delegate->makeView = [](const std::shared_ptr<Annotation>& a) {
        return std::make_shared<PinAnnotationView>(a);
    };
    f.view->selectAnnotation(plain, true);
    EXPECT_EQ(f.view->selectedAnnotations().size(), 1u);
    EXPECT_TRUE(unmoved()) << "no callout";
    f.delegate->makeView = pinsWithCallouts()->makeView;
    auto untitled =
        std::make_shared<PointAnnotation>(f.view->convertPointToCoordinate({314, 160}, nullptr));
    f.view->addAnnotation(untitled);
    f.view->selectAnnotation(untitled, true);
    EXPECT_TRUE(unmoved()) << "no text, no bubble";

    // The delegate undoes the selection as it hears of it.
    auto edge = f.addAt({12, 160});
    f.delegate->onSelect = [](MapView& map, const std::shared_ptr<AnnotationView>& v) {
        map.deselectAnnotation(v->annotation(), false);
    };
    f.view->selectAnnotation(edge, true);
    EXPECT_TRUE(f.view->selectedAnnotations().empty());
    EXPECT_TRUE(unmoved()) << "deselected at once";
    f.delegate->onSelect = nullptr;

    // Selected again while already selected: the map stays where the user put it.
    f.view->selectAnnotation(middle, false);
    f.settle();
    f.view->panBy(150, 0);
    f.settle();
    ASSERT_FALSE(inside(f.bubble(middle), {320, 240}));
    f.delegate->regionWillChanges.clear();
    f.delegate->regionChanges.clear();
    const MapRect panned = f.view->visibleMapRect();
    f.view->selectAnnotation(middle, true);
    f.settle();
    EXPECT_EQ(f.view->visibleMapRect(), panned);
    EXPECT_TRUE(f.delegate->regionChanges.empty());
}

TEST(Callout, ABubbleWiderOrTallerThanTheMapShowsItsTopLeft) {
    EdgeFixture f({120, 60});
    auto a = f.addAt({100, 55}, "Phra Thinang Amarin Winitchai Mahaisun",
                     "Na Phra Lan Road, Phra Borom Maha Ratchawang, Phra Nakhon, Bangkok 10200");
    gfx::Rect before = f.bubble(a);
    ASSERT_GT(before.size.width, 120);
    ASSERT_GT(before.size.height + 9, 60);
    f.view->selectAnnotation(a, false);
    f.settle();
    gfx::Rect b = f.bubble(a);
    EXPECT_NEAR(b.minX(), 8, 1);
    EXPECT_NEAR(b.minY(), 8, 1);
    // Drawn, though its view is now below the map.
    EXPECT_TRUE(f.drawnWhite({b.minX() + 4, b.minY() + 20}));
    EXPECT_GT(f.view->viewForAnnotation(a)->frame().minY(), 60);
    EXPECT_EQ(f.delegate->regionChanges, (std::vector<bool>{false}));
}

TEST(Callout, ASelectionWhileTheMapMovesIsJudgedWhereTheMapIsGoing) {
    EdgeFixture f;
    // Under the middle of the screen now, at the left edge once the map has moved.
    auto a = f.addAt({160, 160});
    f.view->setCenterCoordinate(f.view->convertPointToCoordinate({305, 120}, nullptr), true);
    f.view->selectAnnotation(a, true);
    f.settle();
    gfx::Rect b = f.bubble(a);
    EXPECT_TRUE(inside(b, {320, 240})) << b.minX() << "," << b.minY();
    EXPECT_NEAR(b.minX(), 8, 1);
    // The first change ends where it stands when the second begins: each is announced once.
    EXPECT_EQ(f.delegate->regionWillChanges, (std::vector<bool>{true, true}));
    EXPECT_EQ(f.delegate->regionChanges, (std::vector<bool>{true, true}));
}

}  // namespace
}  // namespace sorvan::map

// The callout bubble of the selected annotation view, seen on the pixels of rendered frames.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

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

bool isWhite(const gfx::Image& image, gfx::Point p) {
    auto px = image.rgbaAt(static_cast<int>(p.x), static_cast<int>(p.y));
    return px[0] == 255 && px[1] == 255 && px[2] == 255;
}

TEST(Callout, ShowsAboveTheSelectedViewHidesOnDeselectAndTakesTaps) {
    auto view = std::make_shared<MapView>(gfx::Rect{0, 0, 320, 320});
    view->setScreenScale(1);
    auto delegate = std::make_shared<RecordingDelegate>();
    delegate->makeView = [](const std::shared_ptr<Annotation>& a) {
        auto pin = std::make_shared<PinAnnotationView>(a);
        pin->setCanShowCallout(true);
        return pin;
    };
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

}  // namespace
}  // namespace sorvan::map

// The web view drawn by the web engine, headless, over real HTTP: pictures as a browser shows
// them (still, animated, missing with its alt text), sizes and scales, and closing pages.
#include "sorvan/platform/ui/web_view.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <set>
#include <sstream>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/graphics/image_context.hpp"
#include "support/render_compare.hpp"
#include "support/service_harness.hpp"
#include "ui/web_engine.hpp"

namespace sorvan::ui {
namespace {

using namespace std::chrono_literals;

// The camera view's page: one picture at the full width, with the Thai alt text.
std::string cameraPage(const std::string& url) {
    return "<img src=\"" + url + "\" width=\"100%\" alt=\"ไม่สามารถแสดงภาพจราจรได้\" />";
}

std::string fixture(const std::string& name) {
    std::ifstream in(std::string(SORVAN_TEST_DATA_DIR) + "/fixtures/web/" + name, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

class WebViewTest : public testing::ServiceTest {
  protected:
    static void SetUpTestSuite() {
        ServiceTest::SetUpTestSuite();
        service().route("/pictures/", [](const server::Request& request) {
            std::string name = request.path.substr(std::string("/pictures/").size());
            server::Response r;
            if (name == "garbage.jpg") {
                r.contentType = "image/jpeg";
                r.body = "these bytes are no picture at all";
            } else if (name == "still.jpg" || name == "anim.gif" || name == "anim.webp") {
                r.contentType = name.ends_with(".jpg")   ? "image/jpeg"
                                : name.ends_with(".gif") ? "image/gif"
                                                         : "image/webp";
                r.body = fixture(name);
            } else {
                r = server::Response::text(404, "no such picture");
            }
            return r;
        });
    }
    void TearDown() override { dispatch::RunLoop::main().reset(); }

    // A white container of size with a web view filling it, loaded with the camera page.
    struct Shown {
        std::shared_ptr<View> container;
        std::shared_ptr<WebView> web;
    };
    Shown show(const std::string& picture, gfx::Size size = {320, 200}) {
        Shown s;
        s.container = std::make_shared<View>(gfx::Rect{{0, 0}, size});
        s.container->setBackgroundColor(gfx::Color::white());
        s.web = std::make_shared<WebView>(gfx::Rect{{0, 0}, size});
        s.web->setScrollEnabled(false);  // as the camera view has it
        s.container->addSubview(s.web);
        s.web->loadHTMLString(cameraPage(origin() + "/pictures/" + picture));
        return s;
    }
};

std::shared_ptr<gfx::Image> render(View& root, double scale = 1) {
    gfx::ImageContext context(root.frame().size, scale);
    root.layoutIfNeeded();
    root.drawHierarchy(context.cairo());
    return context.makeImage();
}

// The test animation's signal, in the top-left corner of the picture, where a 160 x 100 view
// shows it (the picture starts at the page's 8-point margin, at 0.9 of its size).
std::array<std::uint8_t, 4> signal(const gfx::Image& image) {
    return image.rgbaAt(15, 15);
}

TEST_F(WebViewTest, DrawsPicturesAsABrowserShowsThem) {
    ASSERT_TRUE(WebView::engineAvailable());
    struct Case {
        std::string picture, reference;
        test::RenderTolerance tolerance;
    };
    // A picture that is missing and one that does not decode both show the alt text.
    std::vector<Case> cases = {
        {"still.jpg", "web_view_still", {}},
        // Any frame of the animations matches: they differ only in a small signal.
        {"anim.gif", "web_view_gif", {8, 0.006}},
        {"anim.webp", "web_view_webp", {8, 0.006}},
        {"missing.jpg", "web_view_missing_alt_text", {8, 0.01}},
        {"garbage.jpg", "web_view_missing_alt_text", {8, 0.01}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.picture);
        auto shown = show(c.picture);
        ASSERT_TRUE(shown.web->waitUntilLoaded(30s));
        EXPECT_EQ(shown.web->loadState(), WebLoadState::Loaded);
        auto frame = render(*shown.container);
        EXPECT_TRUE(test::matchesReference(*frame, c.reference, c.tolerance));
    }
}

TEST_F(WebViewTest, AnimatedPicturesMoveOnlyWhileDrawn) {
    for (std::string picture : {"anim.gif", "anim.webp"}) {
        SCOPED_TRACE(picture);
        auto shown = show(picture, {160, 100});
        shown.web->setRefreshRate(30);
        ASSERT_TRUE(shown.web->waitUntilLoaded(30s));
        // Drawn again and again, the page shows the animation's frames one after another.
        std::set<std::array<std::uint8_t, 4>> seen;
        dispatch::RunLoop::main().runUntil(
            [&] {
                seen.insert(signal(*render(*shown.container)));
                return seen.size() >= 4;
            },
            20s);
        EXPECT_GE(seen.size(), 4u);
        // Not drawn, it stops: the pictures already asked for come (a quiet second follows
        // them), and then no more.
        auto last = shown.web->snapshot();
        auto changed = std::chrono::steady_clock::now();
        dispatch::RunLoop::main().runUntil(
            [&] {
                if (auto now = shown.web->snapshot(); now != last) {
                    last = now;
                    changed = std::chrono::steady_clock::now();
                }
                return std::chrono::steady_clock::now() - changed > 1s;
            },
            10s);
        dispatch::RunLoop::main().runUntil([] { return false; }, 1500ms);
        EXPECT_EQ(shown.web->snapshot(), last);
    }
}

TEST_F(WebViewTest, DrawsThePageAgainForANewSizeAndScale) {
    auto shown = show("still.jpg", {320, 200});
    ASSERT_TRUE(shown.web->waitUntilLoaded(30s));
    ASSERT_EQ(shown.web->snapshot()->pixelWidth(), 320);

    shown.container->setFrame({0, 0, 160, 100});
    shown.web->setFrame({0, 0, 160, 100});
    shown.web->setContentScale(2);
    ASSERT_TRUE(shown.web->waitUntilLoaded(30s));
    auto picture = shown.web->snapshot();
    EXPECT_EQ(picture->pixelWidth(), 320);
    EXPECT_EQ(picture->pixelHeight(), 200);
    EXPECT_EQ(picture->scale(), 2);
    // The picture keeps the full width at the new size: its right part is road, not page.
    auto right = picture->rgbaAt(300, 150);
    EXPECT_LT(right[0], 200);

    // Drawing into a context of another scale adopts it.
    render(*shown.container, 1);
    EXPECT_EQ(shown.web->contentScale(), 1);
    ASSERT_TRUE(shown.web->waitUntilLoaded(30s));
    EXPECT_EQ(shown.web->snapshot()->pixelWidth(), 160);
}

TEST_F(WebViewTest, StalledPicturesTimeOutAndClosedViewsCloseTheirPages) {
    service().injectFault("/pictures/slow.jpg", {.count = -1, .delaySeconds = 30});
    auto stalled = show("slow.jpg");
    EXPECT_FALSE(stalled.web->waitUntilLoaded(1s));
    EXPECT_EQ(stalled.web->loadState(), WebLoadState::Loading);
    // A page that does not exist yet can still be drawn (background only) without harm.
    render(*stalled.container);

    std::vector<Shown> many;
    for (int i = 0; i < 4; ++i)
        many.push_back(show("still.jpg", {80, 50}));
    for (auto& s : many)
        ASSERT_TRUE(s.web->waitUntilLoaded(30s));
    EXPECT_GE(detail::openWebPages(), 5u);
    many.clear();
    stalled = {};
    EXPECT_TRUE(
        dispatch::RunLoop::main().runUntil([] { return detail::openWebPages() == 0; }, 10s));
    service().clearFaults();
}

}  // namespace
}  // namespace sorvan::ui

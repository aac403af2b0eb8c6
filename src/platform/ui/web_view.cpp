#include "sorvan/platform/ui/web_view.hpp"

#include <cairo.h>

#include <atomic>
#include <cmath>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "ui/cairo_util.hpp"
#include "ui/web_engine.hpp"

namespace sorvan::ui {

namespace {

// The engine lays pages out in whole points.
int points(double length) {
    return std::max(1, static_cast<int>(std::ceil(length - 1e-9)));
}

// Pixels per point of a context: the length one user unit along x takes in device space.
double deviceScale(cairo_t* context) {
    double dx = 1, dy = 0;
    cairo_user_to_device_distance(context, &dx, &dy);
    return std::hypot(dx, dy);
}

}  // namespace

struct WebView::Page {
    std::shared_ptr<detail::WebPageShared> shared = std::make_shared<detail::WebPageShared>();
    std::unique_ptr<detail::WebPage> engine;  // from the first load on
    std::uint64_t generation = 0;
    // What the engine was last asked for.
    int width = 0, height = 0;
    double scale = 0, refreshRate = -1;
    // Set on the engine thread, cleared on the main queue: one redraw task at a time.
    std::shared_ptr<std::atomic<bool>> redrawPosted = std::make_shared<std::atomic<bool>>(false);
};

WebView::WebView(gfx::Rect frame) : View(frame), page_(std::make_shared<Page>()) {
    setBackgroundColor(gfx::Color::white());
}

WebView::~WebView() = default;

void WebView::loadHTMLString(std::string html, std::string baseURL) {
    html_ = std::move(html);
    baseURL_ = std::move(baseURL);
    Page& page = *page_;
    std::uint64_t generation = ++page.generation;
    {
        std::lock_guard lock(page.shared->mutex);
        page.shared->generation = generation;
        page.shared->state = WebLoadState::Loading;
    }
    if (!page.engine) {
        // The engine calls back on its own thread; the view is only reached on the main
        // queue, and only while it lives.
        std::weak_ptr<View> weak = weak_from_this();
        auto posted = page.redrawPosted;
        page.shared->redraw = [weak, posted] {
            if (posted->exchange(true))
                return;
            dispatch::RunLoop::main().async([weak, posted] {
                posted->store(false);
                if (auto view = weak.lock())
                    view->setNeedsDisplay();
            });
        };
        page.width = points(bounds().size.width);
        page.height = points(bounds().size.height);
        page.scale = contentScale_;
        page.engine = detail::WebPage::open(page.shared, page.width, page.height, page.scale);
        if (!page.engine) {
            std::lock_guard lock(page.shared->mutex);
            page.shared->state = WebLoadState::Failed;
            return;
        }
    }
    if (page.refreshRate != refreshRate_) {
        page.refreshRate = refreshRate_;
        page.engine->setRefreshRate(refreshRate_);
    }
    page.engine->load(html_, baseURL_, scrollEnabled_, generation);
    setNeedsDisplay();
}

WebLoadState WebView::loadState() const {
    std::lock_guard lock(page_->shared->mutex);
    return page_->shared->state;
}

bool WebView::waitUntilLoaded(std::chrono::duration<double> timeout) {
    // The page must be laid out at the size the view will have when it is drawn.
    std::shared_ptr<View> root = superview();
    while (root && root->superview())
        root = root->superview();
    if (root)
        root->layoutIfNeeded();
    else
        layoutIfNeeded();
    resizePage();
    auto shared = page_->shared;
    std::uint64_t generation = page_->generation;
    bool sized = bounds().size.width > 0 && bounds().size.height > 0;
    int wantW = static_cast<int>(std::lround(page_->width * page_->scale));
    int wantH = static_cast<int>(std::lround(page_->height * page_->scale));
    double scale = page_->scale;
    auto ready = [shared, generation, sized, wantW, wantH, scale] {
        if (shared->state == WebLoadState::Failed || shared->state == WebLoadState::Empty)
            return true;
        if (shared->settled != generation || !shared->picture)
            return false;
        const gfx::Image& picture = *shared->picture;
        return !sized || (picture.pixelWidth() == wantW && picture.pixelHeight() == wantH &&
                          picture.scale() == scale);
    };
    auto& loop = dispatch::RunLoop::main();
    if (loop.isCurrent()) {
        loop.runUntil(
            [&] {
                std::lock_guard lock(shared->mutex);
                return ready();
            },
            timeout);
    } else {
        std::unique_lock lock(shared->mutex);
        shared->changed.wait_for(lock, timeout, ready);
    }
    std::lock_guard lock(shared->mutex);
    return ready() && shared->state == WebLoadState::Loaded;
}

std::shared_ptr<gfx::Image> WebView::snapshot() const {
    std::lock_guard lock(page_->shared->mutex);
    return page_->shared->picture;
}

void WebView::setContentScale(double scale) {
    if (!(scale > 0) || scale == contentScale_)
        return;
    contentScale_ = scale;
    resizePage();
}

void WebView::setRefreshRate(double framesPerSecond) {
    refreshRate_ = framesPerSecond;
    if (page_->engine && page_->refreshRate != framesPerSecond) {
        page_->refreshRate = framesPerSecond;
        page_->engine->setRefreshRate(framesPerSecond);
    }
}

bool WebView::engineAvailable() {
    return detail::webEngineAvailable();
}

void WebView::setFrame(gfx::Rect frame) {
    View::setFrame(frame);
    resizePage();
}

void WebView::resizePage() {
    Page& page = *page_;
    if (!page.engine)
        return;
    int w = points(bounds().size.width), h = points(bounds().size.height);
    if (w == page.width && h == page.height && contentScale_ == page.scale)
        return;
    page.width = w;
    page.height = h;
    page.scale = contentScale_;
    page.engine->resize(w, h, contentScale_);
}

void WebView::draw(cairo_t* context, gfx::Rect bounds) {
    View::draw(context, bounds);
    // Drawn sharper or softer than the page was: draw the page again at this scale.
    double scale = deviceScale(context);
    if (scale > 0 && std::abs(scale - contentScale_) > 0.01)
        setContentScale(scale);
    auto picture = snapshot();
    if (!picture)
        return;
    // A picture of an older size keeps its own size (a page is laid out, not stretched) until
    // the one for the new size arrives.
    gfx::Size size = picture->size();
    cairo_save(context);
    cairo_rectangle(context, 0, 0, bounds.size.width, bounds.size.height);
    cairo_clip(context);
    detail::paintImage(context, *picture, 0, 0, size.width, size.height);
    cairo_restore(context);
    if (page_->engine)
        page_->engine->drawn();
}

}  // namespace sorvan::ui

// A view that shows HTML as a browser shows it: a real web engine (WPE WebKit, headless, no
// display needed) lays the page out at the view's size and draws it; the view keeps the latest
// picture of the page and draws it into the view tree like any other content. Images on the
// page load over the network; animated ones (GIF, WebP) move while the view is being drawn;
// a picture that fails shows its alt text.
//
// The engine lives on a thread of its own with its own GLib main context, so it needs no
// main loop from the host and does not touch the default GLib context: a host may run
// RunLoop::main() inside a GLib main loop (a GTK application) without conflict. Pictures reach
// the view through a lock; the view asks its root to redraw on the main queue.
//
// Why this engine: WPE WebKit renders into shared-memory buffers through its freedesktop
// backend with no X server or compositor, so servers, CI machines and kiosks draw pages with
// no display and no helper process of ours; one engine thread and one web process (shared by
// every web view) keep start-up around a few hundred milliseconds and memory modest.
//
// Main queue only (the engine's own thread is internal).
//
//   auto web = std::make_shared<sorvan::ui::WebView>(sorvan::gfx::Rect{0, 0, 320, 180});
//   web->loadHTMLString("<img src=\"http://host/cam.jpg\" width=\"100%\" alt=\"...\" />");
//   if (web->waitUntilLoaded(std::chrono::seconds(10)))
//       web->snapshot()->writePNG("page.png");
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/ui/view.hpp"

namespace sorvan::ui {

enum class WebLoadState {
    Empty,    // nothing loaded yet
    Loading,  // the page or its images are still coming
    Loaded,   // the page finished loading (a missing image counts: it shows its alt text)
    Failed,   // the page itself could not be loaded or the engine is not available
};

class SORVAN_EXPORT WebView : public View {
  public:
    explicit WebView(gfx::Rect frame = {});
    /// Closes the page in the engine (asynchronously; nothing of it calls back afterwards).
    ~WebView() override;

    /// Loads html with baseURL as its address (empty: no address, "about:blank"). The engine
    /// starts on the first load; a new load replaces the last one.
    void loadHTMLString(std::string html, std::string baseURL = "");
    const std::string& htmlString() const { return html_; }
    const std::string& baseURL() const { return baseURL_; }
    /// Whether the page may scroll; true at first. A page that may not hides its overflow and
    /// draws no scroll bars. Takes effect at the next load.
    bool scrollEnabled() const { return scrollEnabled_; }
    void setScrollEnabled(bool e) { scrollEnabled_ = e; }

    WebLoadState loadState() const;
    /// Waits until the last load finished, the page's images were decoded and a picture of
    /// the page at the view's current size and content scale arrived (true), or the timeout
    /// passed or the load failed (false). Lays out the view's tree first. On the thread
    /// driving the main queue it keeps running the queue meanwhile.
    bool waitUntilLoaded(std::chrono::duration<double> timeout);
    /// The latest picture of the page (its scale is the content scale); nullptr before the
    /// first.
    std::shared_ptr<gfx::Image> snapshot() const;

    /// Pixels per point of the page's pictures; 1 at first. Drawing into a context with
    /// another scale adopts that scale (the page is drawn again, sharp, shortly after).
    double contentScale() const { return contentScale_; }
    void setContentScale(double scale);
    /// How many times a second an animated page is drawn again while the view is being drawn;
    /// 10 at first. Zero or less: the page is drawn after loads and size changes only. A view
    /// nobody draws costs no drawing.
    double refreshRate() const { return refreshRate_; }
    void setRefreshRate(double framesPerSecond);

    /// Whether the web engine runs on this machine (starts it when it has not yet).
    static bool engineAvailable();

    void setFrame(gfx::Rect frame) override;
    /// The latest picture (one of an older size keeps its own size until the picture for the
    /// new size arrives: a page is laid out again, not stretched); the background colour
    /// (white) before the first.
    void draw(cairo_t* context, gfx::Rect bounds) override;

  private:
    void resizePage();
    std::string html_, baseURL_;
    bool scrollEnabled_ = true;
    double contentScale_ = 1.0;
    double refreshRate_ = 10.0;
    struct Page;
    std::shared_ptr<Page> page_;
};

}  // namespace sorvan::ui

// The web engine behind ui::WebView: WPE WebKit on a thread of its own, drawing each page into
// shared-memory buffers (the freedesktop backend, no display), one picture per buffer.
//
// The engine thread owns every WebKit object and iterates a GLib main context of its own
// (pushed as its thread default before WebKit starts, so WebKit's sources land there and the
// process's default context stays free for a host's GTK loop). Other threads talk to it by
// hand-offs (g_main_context_invoke); pages talk back through WebPageShared, under its lock.
// Internal to the platform layer.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/ui/web_view.hpp"

namespace sorvan::ui::detail {

/// What a page and its view share. Thread-safe (everything under mutex, except redraw, which
/// is set before the page opens and never changed).
struct WebPageShared {
    mutable std::mutex mutex;
    std::condition_variable changed;  // a picture arrived or the load moved on
    WebLoadState state = WebLoadState::Empty;
    std::uint64_t generation = 0;  // the load asked for last
    std::uint64_t settled = 0;     // the last load whose images were decoded and drawn
    std::shared_ptr<gfx::Image> picture;
    /// Called on the engine thread after a new picture; must not block.
    std::function<void()> redraw;
};

/// One page. Made and used on one thread at a time (the view's, the main queue); its calls
/// are hand-offs to the engine thread and return at once.
class WebPage {
  public:
    /// Opens a page of width x height points drawn at scale pixels per point; nullptr when
    /// the engine cannot run here (the reason is logged once per process).
    static std::unique_ptr<WebPage> open(std::shared_ptr<WebPageShared> shared, int width,
                                         int height, double scale);
    /// Closes the page; nothing of it touches shared afterwards except through its own
    /// reference.
    ~WebPage();
    WebPage(const WebPage&) = delete;
    WebPage& operator=(const WebPage&) = delete;

    /// Loads html; a page that may not scroll hides its overflow and scroll bars.
    void load(const std::string& html, const std::string& baseURL, bool scrollable,
              std::uint64_t generation);
    void resize(int width, int height, double scale);
    /// Pictures per second of animated pages while the view is drawn; <= 0: only after loads
    /// and size changes.
    void setRefreshRate(double framesPerSecond);
    /// The view drew the latest picture: an animated page may draw its next one.
    void drawn();

  private:
    explicit WebPage(std::uint64_t id) : id_(id) {}
    std::uint64_t id_;
};

/// Starts the engine when it has not started; false (with the reason) when it cannot run.
bool webEngineAvailable(std::string* reason = nullptr);

/// Pages open in the engine now (leak checks).
std::size_t openWebPages();

}  // namespace sorvan::ui::detail

#include "ui/web_engine.hpp"

// clang-format off
#include <wpe/webkit.h>
#include <wpe/fdo.h>
#include <wpe/unstable/fdo-shm.h>
// clang-format on
#include <wayland-server.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::ui::detail {

namespace {

constexpr const char* kBackendLibrary = "libWPEBackend-fdo-1.0.so.1";
constexpr const char* kSettledHandler = "sorvanSettled";
// How long the engine gets to start, and to shut down at exit before it is left behind.
constexpr auto kStartTimeout = std::chrono::seconds(20);
constexpr auto kStopTimeout = std::chrono::seconds(3);
// A page whose settling script never answers (scripts failing) counts as settled this long
// after it finished loading.
constexpr guint kSettleFallbackMs = 3000;
// The settling message can overtake the frame it waited for; the picture published is the next
// to arrive, or the last one when none comes this soon (a page with nothing left to draw).
constexpr guint kPublishWaitMs = 250;

// A page that may not scroll: no overflow to scroll to, and no scroll bars drawn.
constexpr const char* kNoScrolling =
    "html, body { overflow: hidden !important; } ::-webkit-scrollbar { display: none; }";

// Runs in the page once it has finished loading (so every image has arrived or failed): waits
// until each image is decoded (a broken one fails at once), then for two animation frames, so
// that the picture drawn with the decoded images has been handed over before the message.
constexpr const char* kSettleScript = R"JS((function () {
  var post = function () {
    requestAnimationFrame(function () {
      requestAnimationFrame(function () {
        window.webkit.messageHandlers.sorvanSettled.postMessage(%llu);
      });
    });
  };
  var decoding = Array.prototype.map.call(document.images, function (image) {
    return image.decode().catch(function () {});
  });
  Promise.all(decoding).then(post, post);
})();)JS";

// Engine-thread state of one page. Freed by the view backend's destroy notification, which
// WebKit calls once the web view is finalised: until then WebKit may still call back.
struct Page {
    std::uint64_t id = 0;
    std::shared_ptr<WebPageShared> shared;
    wpe_view_backend_exportable_fdo* exportable = nullptr;
    wpe_view_backend* backend = nullptr;
    WebKitWebView* view = nullptr;
    WebKitUserContentManager* content = nullptr;
    int width = 1, height = 1;
    double scale = 1;
    double refreshRate = 10;
    std::uint64_t generation = 0;
    bool settled = false;
    bool closed = false;
    bool held = false;  // a picture was taken and its frame not yet completed
    bool drawnSinceLast = false;
    gint64 lastComplete = 0;  // monotonic microseconds
    int pictureWidth = 0, pictureHeight = 0;
    GSource* timer = nullptr;  // a delayed frame completion
    GSource* settleFallback = nullptr;
    std::uint64_t publishing = 0;  // the settled generation waiting for its picture
    GSource* publishWait = nullptr;
};

class Engine {
  public:
    static Engine* get(std::string* reason);
    /// The engine when it runs, without starting it.
    static Engine* running() { return running_.load(); }

    // Runs fn on the engine thread, later (never inline, even from the engine thread).
    void post(std::function<void()> fn);
    std::uint64_t nextId() { return ++lastId_; }
    std::size_t pageCount() const { return pageCount_.load(); }

    // Engine thread only.
    void openPage(std::uint64_t id, std::shared_ptr<WebPageShared> shared, int width, int height,
                  double scale);
    void closePage(std::uint64_t id);
    Page* find(std::uint64_t id);
    void schedule(Page* page);

  private:
    Engine() = default;
    bool start(std::string* reason);
    void run();
    void shutdown();
    static void stopAtExit();
    void complete(Page* page);
    void settle(Page* page, std::uint64_t generation);
    void publish(Page* page);

    static void onBuffer(void* data, wpe_fdo_shm_exported_buffer* buffer);
    static void onLoadChanged(WebKitWebView* view, WebKitLoadEvent event, gpointer data);
    static gboolean onLoadFailed(WebKitWebView*, WebKitLoadEvent, gchar*, GError* error,
                                 gpointer data);
    static void onTerminated(WebKitWebView*, WebKitWebProcessTerminationReason reason,
                             gpointer data);
    static void onSettledMessage(WebKitUserContentManager*, WebKitJavascriptResult* result,
                                 gpointer data);

    static inline std::atomic<Engine*> running_{nullptr};
    std::thread thread_;
    GMainContext* context_ = nullptr;  // constant once started
    GMainLoop* loop_ = nullptr;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool ready_ = false, failed_ = false, finished_ = false;
    std::string failure_;
    std::atomic<std::uint64_t> lastId_{0};
    std::atomic<std::size_t> pageCount_{0};

    // Engine thread only.
    WebKitWebContext* web_ = nullptr;
    WebKitSettings* settings_ = nullptr;
    std::map<std::uint64_t, Page*> pages_;
};

Engine* Engine::get(std::string* reason) {
    static std::string failure;
    static std::once_flag once;
    std::call_once(once, [] {
        auto* e = new Engine();
        if (e->start(&failure)) {
            running_.store(e);
            std::atexit(&Engine::stopAtExit);
        } else {
            log::write(log::Level::error, "WebView: the web engine cannot run here: " + failure);
            // A thread that never became ready may still hold the object: leave it.
        }
    });
    Engine* engine = running_.load();
    if (!engine && reason)
        *reason = failure;
    return engine;
}

bool Engine::start(std::string* reason) {
    // Without a session bus there is no accessibility bus either; an empty address tells the
    // engine so, instead of a warning on every web process start. Set before any engine
    // thread or web process exists.
    if (!std::getenv("WEBKIT_A11Y_BUS_ADDRESS") && !std::getenv("DBUS_SESSION_BUS_ADDRESS"))
        ::setenv("WEBKIT_A11Y_BUS_ADDRESS", "", 0);
    thread_ = std::thread([this] { run(); });
    std::unique_lock lock(mutex_);
    if (!cv_.wait_for(lock, kStartTimeout, [this] { return ready_ || failed_; })) {
        *reason = "it did not start within " + std::to_string(kStartTimeout.count()) + " s";
        thread_.detach();
        return false;
    }
    if (failed_) {
        *reason = failure_;
        lock.unlock();
        thread_.join();
        return false;
    }
    return true;
}

void Engine::run() {
    context_ = g_main_context_new();
    g_main_context_push_thread_default(context_);
    auto fail = [this](std::string why) {
        std::lock_guard lock(mutex_);
        failed_ = true;
        failure_ = std::move(why);
        cv_.notify_all();
    };
    if (!wpe_loader_init(kBackendLibrary)) {
        fail(std::string("the WPE backend ") + kBackendLibrary + " is missing");
    } else if (!wpe_fdo_initialize_shm()) {
        fail("the WPE backend cannot draw into shared memory");
    } else {
        // Ephemeral: nothing of the pages (cookies, caches) is written to disk.
        web_ = webkit_web_context_new_ephemeral();
        webkit_web_context_set_cache_model(web_, WEBKIT_CACHE_MODEL_DOCUMENT_VIEWER);
        settings_ = webkit_settings_new();
        webkit_settings_set_enable_webgl(settings_, FALSE);
        webkit_settings_set_enable_page_cache(settings_, FALSE);
        webkit_settings_set_enable_write_console_messages_to_stdout(settings_, FALSE);
        loop_ = g_main_loop_new(context_, FALSE);
        {
            std::lock_guard lock(mutex_);
            ready_ = true;
            cv_.notify_all();
        }
        g_main_loop_run(loop_);
        // Closing: every page goes, then the context; let WebKit finish what that starts.
        std::vector<std::uint64_t> ids;
        for (auto& [id, page] : pages_)
            ids.push_back(id);
        for (auto id : ids)
            closePage(id);
        g_clear_object(&settings_);
        g_clear_object(&web_);
        while (g_main_context_iteration(context_, FALSE)) {
        }
        g_main_loop_unref(loop_);
        loop_ = nullptr;
    }
    g_main_context_pop_thread_default(context_);
    std::lock_guard lock(mutex_);
    finished_ = true;
    cv_.notify_all();
}

// At exit the engine thread is asked to close its pages and stop; one that does not answer
// in time is left to the end of the process rather than holding the exit up.
void Engine::stopAtExit() {
    if (Engine* e = running())
        e->shutdown();
}

void Engine::shutdown() {
    post([this] { g_main_loop_quit(loop_); });
    std::unique_lock lock(mutex_);
    if (cv_.wait_for(lock, kStopTimeout, [this] { return finished_; })) {
        lock.unlock();
        thread_.join();
    } else {
        thread_.detach();
    }
}

void Engine::post(std::function<void()> fn) {
    auto* task = new std::function<void()>(std::move(fn));
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
            (*static_cast<std::function<void()>*>(data))();
            return G_SOURCE_REMOVE;
        },
        task, [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
    g_source_attach(source, context_);
    g_source_unref(source);
}

Page* Engine::find(std::uint64_t id) {
    auto it = pages_.find(id);
    return it == pages_.end() ? nullptr : it->second;
}

void Engine::openPage(std::uint64_t id, std::shared_ptr<WebPageShared> shared, int width,
                      int height, double scale) {
    auto* page = new Page();
    page->id = id;
    page->shared = std::move(shared);
    page->width = width;
    page->height = height;
    page->scale = scale;
    static const wpe_view_backend_exportable_fdo_client client = {nullptr, nullptr, &onBuffer,
                                                                  nullptr, nullptr};
    page->exportable = wpe_view_backend_exportable_fdo_create(
        &client, page, static_cast<uint32_t>(width), static_cast<uint32_t>(height));
    page->backend = wpe_view_backend_exportable_fdo_get_view_backend(page->exportable);
    WebKitWebViewBackend* viewBackend = webkit_web_view_backend_new(
        page->backend,
        [](gpointer data) {
            auto* p = static_cast<Page*>(data);
            wpe_view_backend_exportable_fdo_destroy(p->exportable);
            delete p;
        },
        page);
    page->content = webkit_user_content_manager_new();
    webkit_user_content_manager_register_script_message_handler(page->content, kSettledHandler);
    g_signal_connect(page->content, "script-message-received::sorvanSettled",
                     G_CALLBACK(&Engine::onSettledMessage), page);
    // Every page shares the web process of a page already open, so that many views cost one
    // process, not one each.
    WebKitWebView* related = pages_.empty() ? nullptr : pages_.begin()->second->view;
    if (related) {
        page->view = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "backend", viewBackend,
                                                  "related-view", related, "settings", settings_,
                                                  "user-content-manager", page->content, nullptr));
    } else {
        page->view = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "backend", viewBackend,
                                                  "web-context", web_, "settings", settings_,
                                                  "user-content-manager", page->content, nullptr));
    }
    g_signal_connect(page->view, "load-changed", G_CALLBACK(&Engine::onLoadChanged), page);
    g_signal_connect(page->view, "load-failed", G_CALLBACK(&Engine::onLoadFailed), page);
    g_signal_connect(page->view, "web-process-terminated", G_CALLBACK(&Engine::onTerminated), page);
    // The page is always on screen as far as the engine knows: otherwise it throttles timers
    // and animations.
    wpe_view_backend_add_activity_state(page->backend, wpe_view_activity_state_visible |
                                                           wpe_view_activity_state_focused |
                                                           wpe_view_activity_state_in_window);
    // The scale takes effect only once the web view exists.
    wpe_view_backend_dispatch_set_device_scale_factor(page->backend, static_cast<float>(scale));
    pages_[id] = page;
    ++pageCount_;
}

void Engine::closePage(std::uint64_t id) {
    Page* page = find(id);
    if (!page)
        return;
    pages_.erase(id);
    --pageCount_;
    page->closed = true;
    if (page->timer) {
        g_source_destroy(page->timer);
        g_source_unref(page->timer);
        page->timer = nullptr;
    }
    for (GSource** source : {&page->settleFallback, &page->publishWait}) {
        if (*source) {
            g_source_destroy(*source);
            g_source_unref(*source);
            *source = nullptr;
        }
    }
    g_signal_handlers_disconnect_by_data(page->content, page);
    g_signal_handlers_disconnect_by_data(page->view, page);
    webkit_user_content_manager_unregister_script_message_handler(page->content, kSettledHandler);
    g_object_unref(page->content);
    // The backend's destroy notification frees the page when WebKit lets the view go.
    g_object_unref(page->view);
}

// Taking a picture holds the page's next frame until the picture is wanted: at once while the
// page loads or waits for a picture of a new size, and afterwards only once the view has
// drawn the last one and the refresh interval has passed. A page nobody draws stops drawing.
void Engine::schedule(Page* page) {
    if (!page->held || page->closed)
        return;
    int wantW = static_cast<int>(std::lround(page->width * page->scale));
    int wantH = static_cast<int>(std::lround(page->height * page->scale));
    bool eager = !page->settled || page->pictureWidth != wantW || page->pictureHeight != wantH;
    if (eager) {
        complete(page);
        return;
    }
    if (page->refreshRate <= 0 || !page->drawnSinceLast || page->timer)
        return;
    gint64 due = page->lastComplete + static_cast<gint64>(1e6 / page->refreshRate);
    gint64 now = g_get_monotonic_time();
    if (now >= due) {
        complete(page);
        return;
    }
    page->timer = g_timeout_source_new(static_cast<guint>((due - now + 999) / 1000));
    std::uint64_t id = page->id;
    auto* self = this;
    struct Data {
        Engine* engine;
        std::uint64_t id;
    };
    g_source_set_callback(
        page->timer,
        [](gpointer raw) -> gboolean {
            auto* d = static_cast<Data*>(raw);
            if (Page* p = d->engine->find(d->id)) {
                g_source_unref(p->timer);
                p->timer = nullptr;
                d->engine->schedule(p);
            }
            return G_SOURCE_REMOVE;
        },
        new Data{self, id}, [](gpointer raw) { delete static_cast<Data*>(raw); });
    g_source_attach(page->timer, context_);
}

void Engine::complete(Page* page) {
    page->held = false;
    page->drawnSinceLast = false;
    page->lastComplete = g_get_monotonic_time();
    wpe_view_backend_exportable_fdo_dispatch_frame_complete(page->exportable);
}

void Engine::settle(Page* page, std::uint64_t generation) {
    if (generation != page->generation || page->settled)
        return;
    page->settled = true;
    if (page->settleFallback) {
        g_source_destroy(page->settleFallback);
        g_source_unref(page->settleFallback);
        page->settleFallback = nullptr;
    }
    page->publishing = generation;
    if (!page->publishWait) {
        struct Data {
            Engine* engine;
            std::uint64_t id;
        };
        page->publishWait = g_timeout_source_new(kPublishWaitMs);
        g_source_set_callback(
            page->publishWait,
            [](gpointer raw) -> gboolean {
                auto* d = static_cast<Data*>(raw);
                if (Page* p = d->engine->find(d->id)) {
                    g_source_unref(p->publishWait);
                    p->publishWait = nullptr;
                    d->engine->publish(p);
                }
                return G_SOURCE_REMOVE;
            },
            new Data{this, page->id}, [](gpointer raw) { delete static_cast<Data*>(raw); });
        g_source_attach(page->publishWait, context_);
    }
    // Let the page hand over its next frame.
    if (page->held && !page->closed)
        complete(page);
}

void Engine::publish(Page* page) {
    std::uint64_t generation = std::exchange(page->publishing, 0);
    if (page->publishWait) {
        g_source_destroy(page->publishWait);
        g_source_unref(page->publishWait);
        page->publishWait = nullptr;
    }
    if (generation == 0 || generation != page->generation)
        return;  // a newer load took its place
    {
        std::lock_guard lock(page->shared->mutex);
        if (page->shared->generation == generation) {
            page->shared->settled = generation;
            page->shared->state = WebLoadState::Loaded;
        }
    }
    page->shared->changed.notify_all();
    if (page->shared->redraw)
        page->shared->redraw();
    schedule(page);
}

void Engine::onBuffer(void* data, wpe_fdo_shm_exported_buffer* buffer) {
    auto* page = static_cast<Page*>(data);
    wl_shm_buffer* shm = wpe_fdo_shm_exported_buffer_get_shm_buffer(buffer);
    int w = wl_shm_buffer_get_width(shm), h = wl_shm_buffer_get_height(shm);
    auto stride = static_cast<std::size_t>(wl_shm_buffer_get_stride(shm));
    bool opaque = wl_shm_buffer_get_format(shm) == WL_SHM_FORMAT_XRGB8888;
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
    wl_shm_buffer_begin_access(shm);
    // Both shared-memory formats are cairo's premultiplied native-endian ARGB; an X byte is
    // undefined and becomes full alpha.
    const auto* base = static_cast<const std::uint8_t*>(wl_shm_buffer_get_data(shm));
    for (int y = 0; y < h; ++y) {
        const auto* row = reinterpret_cast<const std::uint32_t*>(base + stride * y);
        std::uint32_t* out = pixels.data() + static_cast<std::size_t>(y) * w;
        for (int x = 0; x < w; ++x)
            out[x] = opaque ? (row[x] | 0xff000000u) : row[x];
    }
    wl_shm_buffer_end_access(shm);
    wpe_view_backend_exportable_fdo_dispatch_release_shm_exported_buffer(page->exportable, buffer);
    page->held = true;
    if (page->closed) {
        running()->complete(page);
        return;
    }
    page->pictureWidth = w;
    page->pictureHeight = h;
    auto image = gfx::Image::fromPixels(w, h, std::move(pixels), page->scale);
    {
        std::lock_guard lock(page->shared->mutex);
        page->shared->picture = std::move(image);
    }
    page->shared->changed.notify_all();
    if (page->shared->redraw)
        page->shared->redraw();
    if (page->publishing) {
        running()->publish(page);
        return;
    }
    running()->schedule(page);
}

void Engine::onLoadChanged(WebKitWebView* view, WebKitLoadEvent event, gpointer data) {
    auto* page = static_cast<Page*>(data);
    if (event != WEBKIT_LOAD_FINISHED || page->settled)
        return;
    char script[1024];
    std::snprintf(script, sizeof script, kSettleScript,
                  static_cast<unsigned long long>(page->generation));
    webkit_web_view_run_javascript(
        view, script, nullptr,
        [](GObject* object, GAsyncResult* result, gpointer) {
            // The script's value is not needed; a failure shows as no message, which the
            // fallback covers.
            if (auto* value =
                    webkit_web_view_run_javascript_finish(WEBKIT_WEB_VIEW(object), result, nullptr))
                webkit_javascript_result_unref(value);
        },
        nullptr);
    if (!page->settleFallback) {
        Engine* engine = running();
        struct Data {
            Engine* engine;
            std::uint64_t id, generation;
        };
        page->settleFallback = g_timeout_source_new(kSettleFallbackMs);
        g_source_set_callback(
            page->settleFallback,
            [](gpointer raw) -> gboolean {
                auto* d = static_cast<Data*>(raw);
                if (Page* p = d->engine->find(d->id)) {
                    g_source_unref(p->settleFallback);
                    p->settleFallback = nullptr;
                    d->engine->settle(p, d->generation);
                }
                return G_SOURCE_REMOVE;
            },
            new Data{engine, page->id, page->generation},
            [](gpointer raw) { delete static_cast<Data*>(raw); });
        g_source_attach(page->settleFallback, engine->context_);
    }
}

gboolean Engine::onLoadFailed(WebKitWebView*, WebKitLoadEvent, gchar*, GError* error,
                              gpointer data) {
    auto* page = static_cast<Page*>(data);
    // A load replaced by the next one is cancelled; that is no failure.
    if (g_error_matches(error, WEBKIT_NETWORK_ERROR, WEBKIT_NETWORK_ERROR_CANCELLED))
        return FALSE;
    {
        std::lock_guard lock(page->shared->mutex);
        if (page->shared->generation == page->generation)
            page->shared->state = WebLoadState::Failed;
    }
    page->shared->changed.notify_all();
    return FALSE;
}

void Engine::onTerminated(WebKitWebView*, WebKitWebProcessTerminationReason reason, gpointer data) {
    auto* page = static_cast<Page*>(data);
    log::write(log::Level::error,
               std::string("WebView: the web process ") +
                   (reason == WEBKIT_WEB_PROCESS_EXCEEDED_MEMORY_LIMIT ? "ran out of memory"
                                                                       : "ended unexpectedly"));
    {
        std::lock_guard lock(page->shared->mutex);
        page->shared->state = WebLoadState::Failed;
    }
    page->shared->changed.notify_all();
}

void Engine::onSettledMessage(WebKitUserContentManager*, WebKitJavascriptResult* result,
                              gpointer data) {
    auto* page = static_cast<Page*>(data);
    JSCValue* value = webkit_javascript_result_get_js_value(result);
    if (!jsc_value_is_number(value))
        return;
    double generation = jsc_value_to_double(value);
    if (generation < 0)
        return;
    running()->settle(page, static_cast<std::uint64_t>(generation));
}

}  // namespace

// WebPage -----------------------------------------------------------------------------------

std::unique_ptr<WebPage> WebPage::open(std::shared_ptr<WebPageShared> shared, int width, int height,
                                       double scale) {
    Engine* engine = Engine::get(nullptr);
    if (!engine)
        return nullptr;
    std::uint64_t id = engine->nextId();
    engine->post([engine, id, shared = std::move(shared), width, height, scale]() mutable {
        engine->openPage(id, std::move(shared), width, height, scale);
    });
    return std::unique_ptr<WebPage>(new WebPage(id));
}

WebPage::~WebPage() {
    if (Engine* engine = Engine::running()) {
        std::uint64_t id = id_;
        engine->post([engine, id] { engine->closePage(id); });
    }
}

void WebPage::load(const std::string& html, const std::string& baseURL, bool scrollable,
                   std::uint64_t generation) {
    Engine* engine = Engine::running();
    engine->post([engine, id = id_, html, baseURL, scrollable, generation] {
        Page* page = engine->find(id);
        if (!page)
            return;
        page->generation = generation;
        page->settled = false;
        webkit_user_content_manager_remove_all_style_sheets(page->content);
        if (!scrollable) {
            WebKitUserStyleSheet* sheet =
                webkit_user_style_sheet_new(kNoScrolling, WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                                            WEBKIT_USER_STYLE_LEVEL_USER, nullptr, nullptr);
            webkit_user_content_manager_add_style_sheet(page->content, sheet);
            webkit_user_style_sheet_unref(sheet);
        }
        webkit_web_view_load_html(page->view, html.c_str(),
                                  baseURL.empty() ? nullptr : baseURL.c_str());
        engine->schedule(page);
    });
}

void WebPage::resize(int width, int height, double scale) {
    Engine* engine = Engine::running();
    engine->post([engine, id = id_, width, height, scale] {
        Page* page = engine->find(id);
        if (!page)
            return;
        if (page->width != width || page->height != height) {
            page->width = width;
            page->height = height;
            wpe_view_backend_dispatch_set_size(page->backend, static_cast<uint32_t>(width),
                                               static_cast<uint32_t>(height));
        }
        if (page->scale != scale) {
            page->scale = scale;
            wpe_view_backend_dispatch_set_device_scale_factor(page->backend,
                                                              static_cast<float>(scale));
        }
        engine->schedule(page);
    });
}

void WebPage::setRefreshRate(double framesPerSecond) {
    Engine* engine = Engine::running();
    engine->post([engine, id = id_, framesPerSecond] {
        if (Page* page = engine->find(id)) {
            page->refreshRate = framesPerSecond;
            engine->schedule(page);
        }
    });
}

void WebPage::drawn() {
    Engine* engine = Engine::running();
    engine->post([engine, id = id_] {
        if (Page* page = engine->find(id)) {
            page->drawnSinceLast = true;
            engine->schedule(page);
        }
    });
}

bool webEngineAvailable(std::string* reason) {
    return Engine::get(reason) != nullptr;
}

std::size_t openWebPages() {
    Engine* engine = Engine::running();
    return engine ? engine->pageCount() : 0;
}

}  // namespace sorvan::ui::detail

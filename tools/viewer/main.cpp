// sorvan-viewer: a GTK 4 map application on the SDK's public API.
//
// Starts the embedded service on a free loopback port unless SORVAN_SERVICE_ORIGIN names one,
// and runs the SDK's main queue inside GLib's main loop.
#include <gtk/gtk.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

#include "sorvan/platform/foundation/glib_run_loop_source.hpp"
#include "sorvan/server/embedded_service.hpp"
#include "viewer_window.hpp"

namespace {

struct App {
    sorvan::viewer::DebugHooks hooks;
};

void activate(GtkApplication* app, gpointer data) {
    sorvan::viewer::openViewerWindow(app, static_cast<App*>(data)->hooks);
}

}  // namespace

int main(int argc, char** argv) {
    // Tiles and drawn tiles are a quarter to one megabyte each and come and go by the
    // thousand on many threads. With glibc's sliding threshold they soon come from the heap
    // arenas, which keep what is freed: the process grew well past its caches. A fixed
    // threshold keeps them in mappings of their own, given back when a cache lets them go.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    std::unique_ptr<sorvan::server::EmbeddedService> service;
    const char* origin = std::getenv("SORVAN_SERVICE_ORIGIN");
    if (origin == nullptr || *origin == '\0') {
        try {
            service = std::make_unique<sorvan::server::EmbeddedService>(0);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "sorvan-viewer: cannot start the embedded service: %s\n",
                         e.what());
            return 1;
        }
        setenv("SORVAN_SERVICE_ORIGIN", service->origin().c_str(), 1);
        std::fprintf(stderr, "sorvan-viewer: embedded service at %s\n", service->origin().c_str());
    }

    App state;
    state.hooks.statePath = std::getenv("SORVAN_VIEWER_STATE");
    state.hooks.snapshotPath = std::getenv("SORVAN_VIEWER_SNAPSHOT");
    state.hooks.script = std::getenv("SORVAN_VIEWER_SCRIPT");

    // The SDK's main queue runs on GLib's default context, which GTK iterates.
    sorvan::dispatch::GLibRunLoopSource source;
    GtkApplication* app = gtk_application_new("org.sorvan.viewer", G_APPLICATION_NON_UNIQUE);
    g_signal_connect(app, "activate", G_CALLBACK(activate), &state);
    int status = g_application_run(G_APPLICATION(app), argc, argv);
    g_object_unref(app);
    return status;
}

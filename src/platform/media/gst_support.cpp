#include "media/gst_support.hpp"

#include <atomic>
#include <mutex>

namespace sorvan::media::detail {

namespace {

std::atomic<std::size_t> pipelines{0};

void setRank(const char* element, guint rank) {
    if (GstPluginFeature* feature =
            gst_registry_find_feature(gst_registry_get(), element, GST_TYPE_ELEMENT_FACTORY)) {
        gst_plugin_feature_set_rank(feature, rank);
        gst_object_unref(feature);
    }
}

}  // namespace

bool initialize(std::string* reason) {
    static std::once_flag once;
    static bool ok = false;
    static std::string failure;
    std::call_once(once, [] {
        GError* error = nullptr;
        ok = gst_init_check(nullptr, nullptr, &error);
        if (!ok)
            failure = error ? error->message : "GStreamer did not start";
        if (error)
            g_error_free(error);
        // HTTP through libcurl rather than libsoup: the libsoup source answers from a session
        // thread of its own, and an answer arriving there while the HLS demuxer stops (a
        // player dropped mid-download) deadlocks them both. The curl source answers on the
        // streaming thread that asked. The choice is the process's: ranks are global.
        if (ok)
            setRank("curlhttpsrc", GST_RANK_PRIMARY + 10);
        // The newer adaptive demuxers outrank the classic ones but work only in streams-aware
        // pipelines, which playbin is not: each player would load their plugin (slow: it
        // brings its own HTTP stack) only to be refused, then fall back. Ranked just below
        // the classic ones, they stay available to hosts that ask for them by name.
        if (ok) {
            for (const char* demuxer : {"hlsdemux2", "dashdemux2", "mssdemux2"})
                setRank(demuxer, GST_RANK_PRIMARY - 1);
        }
    });
    if (!ok && reason)
        *reason = failure;
    return ok;
}

void pipelineCreated() {
    pipelines.fetch_add(1, std::memory_order_relaxed);
}

void pipelineDestroyed() {
    pipelines.fetch_sub(1, std::memory_order_relaxed);
}

std::size_t livePipelines() {
    return pipelines.load(std::memory_order_relaxed);
}

dispatch::SerialQueue& controlQueue() {
    static dispatch::SerialQueue queue("sorvan.media");
    return queue;
}

void releasePooledThreads() {
    g_thread_pool_stop_unused_threads();
}

bool pluginLoaded(const std::string& name) {
    if (!initialize())
        return false;
    GstPlugin* plugin = gst_registry_find_plugin(gst_registry_get(), name.c_str());
    if (!plugin)
        return false;
    bool loaded = gst_plugin_is_loaded(plugin);
    gst_object_unref(plugin);
    return loaded;
}

}  // namespace sorvan::media::detail

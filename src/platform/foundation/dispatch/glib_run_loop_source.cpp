// The run loop as a GSource: the wake descriptor as its poll fd, the earliest due time as its
// timeout.
#include "sorvan/platform/foundation/glib_run_loop_source.hpp"

#include <glib.h>

#include <cmath>
#include <limits>

namespace sorvan::dispatch {

namespace {

constexpr gint kBlindPollMilliseconds = 10;

struct LoopSource {
    GSource source;  // first: GLib allocates the whole struct and hands back this member
    RunLoop* loop;
    gpointer tag;
    std::size_t dispatches;
};

// GLib's timeout is whole milliseconds. Rounding up means the source never wakes before the
// task is due, which would only make it sleep again for a few microseconds, over and over.
gint timeoutMilliseconds(const RunLoop& loop) {
    auto due = loop.timeUntilDue();
    if (!due) {
        return -1;
    }
    double ms = std::ceil(due->count() * 1000.0);
    if (ms >= static_cast<double>(std::numeric_limits<gint>::max())) {
        return std::numeric_limits<gint>::max();
    }
    return static_cast<gint>(ms);
}

gboolean prepare(GSource* source, gint* timeout) {
    auto* self = reinterpret_cast<LoopSource*>(source);
    *timeout = timeoutMilliseconds(*self->loop);
    // Without a descriptor (the system gave none) posts from other threads are found by looking.
    if (self->tag == nullptr && (*timeout < 0 || *timeout > kBlindPollMilliseconds)) {
        *timeout = kBlindPollMilliseconds;
    }
    return *timeout == 0;
}

gboolean check(GSource* source) {
    auto* self = reinterpret_cast<LoopSource*>(source);
    if (self->tag != nullptr && (g_source_query_unix_fd(source, self->tag) & G_IO_IN) != 0) {
        return TRUE;
    }
    return timeoutMilliseconds(*self->loop) == 0;
}

gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
    auto* self = reinterpret_cast<LoopSource*>(source);
    ++self->dispatches;
    self->loop->drain();
    return G_SOURCE_CONTINUE;
}

GSourceFuncs kFuncs = {prepare, check, dispatch, nullptr, nullptr, nullptr};

}  // namespace

struct GLibRunLoopSource::Impl {
    LoopSource* source = nullptr;
};

GLibRunLoopSource::GLibRunLoopSource(RunLoop& loop, GMainContext* context)
    : impl_(std::make_unique<Impl>()) {
    GSource* source = g_source_new(&kFuncs, sizeof(LoopSource));
    auto* self = reinterpret_cast<LoopSource*>(source);
    self->loop = &loop;
    self->dispatches = 0;
    self->tag = nullptr;
    int fd = loop.wakeDescriptor();
    if (fd >= 0) {
        self->tag = g_source_add_unix_fd(source, fd, G_IO_IN);
    }
    g_source_set_name(source, "sorvan run loop");
    g_source_attach(source, context);
    impl_->source = self;
}

GLibRunLoopSource::~GLibRunLoopSource() {
    if (impl_->source != nullptr) {
        g_source_destroy(&impl_->source->source);
        g_source_unref(&impl_->source->source);
    }
}

std::size_t GLibRunLoopSource::dispatchCount() const {
    return impl_->source->dispatches;
}

}  // namespace sorvan::dispatch

// Runs a RunLoop (by default the main queue) inside a GLib main loop, so a GTK or GStreamer
// host gets the SDK's tasks, timers, service results and tile arrivals without polling.
//
// The source watches the run loop's wake descriptor and sleeps until the earliest delayed task
// or timer falls due; when either happens it drains what is due on the GLib context's thread,
// which then is the run loop's thread. Nothing runs, and nothing wakes, while the SDK is idle.
//
// Main thread only (the thread that iterates the GLib context). The source is removed from its
// context when the object is destroyed.
//
//   sorvan::dispatch::GLibRunLoopSource source;   // attached to the default context
//   g_application_run(app, argc, argv);
#pragma once

#include <cstddef>
#include <memory>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"

typedef struct _GMainContext GMainContext;

namespace sorvan::dispatch {

class SORVAN_EXPORT GLibRunLoopSource {
  public:
    /// Attaches to `context` (nullptr: GLib's default context).
    explicit GLibRunLoopSource(RunLoop& loop = RunLoop::main(), GMainContext* context = nullptr);
    ~GLibRunLoopSource();
    GLibRunLoopSource(const GLibRunLoopSource&) = delete;
    GLibRunLoopSource& operator=(const GLibRunLoopSource&) = delete;

    /// How many times the source has drained the run loop (each wake-up that found work or a
    /// due time counts once). Lets tests prove the loop is not spinning.
    std::size_t dispatchCount() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sorvan::dispatch

// The viewer's window: one map, a search box, layer and feature controls, a side list for
// suggestions, results and the route guide, and a status bar. Main thread only.
#pragma once

#include <gtk/gtk.h>

namespace sorvan::viewer {

/// Debug hooks a test (or a developer) switches on through the environment.
struct DebugHooks {
    const char* statePath = nullptr;     // SORVAN_VIEWER_STATE: JSON state after each frame
    const char* snapshotPath = nullptr;  // SORVAN_VIEWER_SNAPSHOT: Ctrl+S writes the map here
    /// SORVAN_VIEWER_SCRIPT: a scripted run that prints figures and quits.
    ///   "pan-zoom"  10 s of panning and zooming with tags and events on, after tiles are cached
    ///   "thailand"  10,000 jumps, pans and zooms across Thailand, with memory and cache sizes
    ///               after 1,000, 5,000 and 10,000
    const char* script = nullptr;
};

/// Builds the window for the application and shows it. The window owns everything it made.
void openViewerWindow(GtkApplication* app, const DebugHooks& hooks);

}  // namespace sorvan::viewer

// A window that shows one traffic camera as the kit builds its view: the web picture of a
// still or moving camera, or the live video with its sponsor's banner. The window owns the
// view; closing it (its close button, Escape or Ctrl+W) drops the view, and with it the
// player, whose pipeline stops before the window is gone. Main thread only.
#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <memory>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"

namespace sorvan::viewer {

struct CameraWindowHooks {
    /// When the picture first shows.
    std::function<void()> pictureShown;
    /// When the window is closing, after its camera's view (and player) is gone.
    std::function<void(GtkWidget* window)> closed;
};

/// Opens the window beside parent and returns it (owned by GTK until closed).
GtkWidget* openCameraWindow(GtkWindow* parent, SorvanMapView& map,
                            const std::shared_ptr<SMCameraAnnotation>& camera,
                            CameraWindowHooks hooks);

/// Whether the window shows its camera's picture yet: the page loaded, or a video frame came.
bool cameraWindowShowsPicture(GtkWidget* window);

}  // namespace sorvan::viewer

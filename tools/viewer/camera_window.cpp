#include "camera_window.hpp"

#include <cairo.h>

#include <string>

#include "sorvan/platform/media/player_layer.hpp"
#include "sorvan/platform/ui/layout_constraint.hpp"
#include "sorvan/platform/ui/web_view.hpp"

namespace sorvan::viewer {

namespace {

constexpr int kVideoWidth = 640;
constexpr int kVideoHeight = 360;
constexpr const char* kDataKey = "sorvan-camera-window";

// The root of the camera's view tree in this window: whatever below it needs drawing again
// (a new video frame, the banner, a page picture) asks GTK for a frame.
class HostView final : public ui::View {
  public:
    std::function<void()> needsDisplay;
    void setNeedsDisplay() override {
        if (needsDisplay) {
            needsDisplay();
        }
    }
};

struct CameraWindow {
    GtkWidget* window = nullptr;
    std::shared_ptr<HostView> host;
    std::shared_ptr<ui::View> shown;
    CameraWindowHooks hooks;
    bool pictureTold = false;

    ~CameraWindow() {
        host->needsDisplay = nullptr;
        // The view goes first: a live camera's player stops and joins its pipeline here.
        shown.reset();
        host.reset();
        if (auto closed = std::move(hooks.closed)) {
            closed(window);
        }
    }

    bool showsPicture() const {
        for (const auto& v : shown->subviews()) {
            if (auto web = std::dynamic_pointer_cast<ui::WebView>(v)) {
                return web->loadState() == ui::WebLoadState::Loaded && web->snapshot() != nullptr;
            }
            if (auto layer = std::dynamic_pointer_cast<media::PlayerLayer>(v)) {
                return layer->isReadyForDisplay();
            }
        }
        return false;
    }

    void draw(cairo_t* cr) {
        host->layoutIfNeeded();
        cairo_set_source_rgb(cr, 0, 0, 0);
        cairo_paint(cr);
        host->drawHierarchy(cr);
        if (!pictureTold && showsPicture()) {
            pictureTold = true;
            if (auto told = hooks.pictureShown) {
                told();
            }
        }
    }
};

CameraWindow* stateOf(GtkWidget* window) {
    return static_cast<CameraWindow*>(g_object_get_data(G_OBJECT(window), kDataKey));
}

std::shared_ptr<ui::LayoutConstraint> pin(const std::shared_ptr<ui::View>& view,
                                          const std::shared_ptr<ui::View>& container,
                                          ui::LayoutAttribute attribute) {
    return ui::LayoutConstraint::create(view, attribute, ui::LayoutRelation::Equal, container,
                                        attribute);
}

std::string captionOf(const SMCameraAnnotation& camera) {
    std::string text = camera.cameraId().value_or("?");
    if (camera.organization()) {
        text += "  ·  " + *camera.organization();
    }
    if (camera.sponsorText()) {
        text += "  ·  " + *camera.sponsorText();
    }
    return text;
}

}  // namespace

GtkWidget* openCameraWindow(GtkWindow* parent, SorvanMapView& map,
                            const std::shared_ptr<SMCameraAnnotation>& camera,
                            CameraWindowHooks hooks) {
    auto* state = new CameraWindow;
    state->hooks = std::move(hooks);
    state->host = std::make_shared<HostView>();
    state->host->setFrame({0, 0, kVideoWidth, kVideoHeight});
    state->shown = map.getVDOViewFromCameraData(camera);
    state->host->addSubview(state->shown);
    // The live view lets go of its own frame once its banner comes: it is held to the window
    // by constraints from the start, whichever form it has.
    state->shown->setTranslatesAutoresizingMaskIntoConstraints(false);
    ui::LayoutConstraint::activate({pin(state->shown, state->host, ui::LayoutAttribute::Leading),
                                    pin(state->shown, state->host, ui::LayoutAttribute::Trailing),
                                    pin(state->shown, state->host, ui::LayoutAttribute::Top),
                                    pin(state->shown, state->host, ui::LayoutAttribute::Bottom)});

    GtkWidget* window = gtk_window_new();
    state->window = window;
    std::string title =
        "Camera: " + camera->cameraTitle().value_or(camera->cameraId().value_or(""));
    gtk_window_set_title(GTK_WINDOW(window), title.c_str());
    gtk_window_set_transient_for(GTK_WINDOW(window), parent);
    gtk_window_set_destroy_with_parent(GTK_WINDOW(window), TRUE);

    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_window_set_child(GTK_WINDOW(window), box);
    GtkWidget* area = gtk_drawing_area_new();
    gtk_widget_set_size_request(area, kVideoWidth, kVideoHeight);
    gtk_widget_set_vexpand(area, TRUE);
    // The area reaches the state through the window, which lets go of it when it closes.
    gtk_drawing_area_set_draw_func(
        GTK_DRAWING_AREA(area),
        +[](GtkDrawingArea*, cairo_t* cr, int, int, gpointer data) {
            if (auto* self = stateOf(static_cast<GtkWidget*>(data))) {
                self->draw(cr);
            }
        },
        window, nullptr);
    g_signal_connect(
        area, "resize", G_CALLBACK(+[](GtkDrawingArea*, int w, int h, gpointer data) {
            if (auto* self = stateOf(static_cast<GtkWidget*>(data))) {
                self->host->setFrame({0, 0, static_cast<double>(w), static_cast<double>(h)});
                self->host->setNeedsLayout();
            }
        }),
        window);
    gtk_box_append(GTK_BOX(box), area);
    GtkWidget* caption = gtk_label_new(captionOf(*camera).c_str());
    gtk_label_set_xalign(GTK_LABEL(caption), 0);
    gtk_label_set_ellipsize(GTK_LABEL(caption), PANGO_ELLIPSIZE_END);
    gtk_widget_set_margin_start(caption, 6);
    gtk_widget_set_margin_top(caption, 3);
    gtk_widget_set_margin_bottom(caption, 3);
    gtk_box_append(GTK_BOX(box), caption);

    GtkEventController* shortcuts = gtk_shortcut_controller_new();
    for (const char* keys : {"Escape", "<Control>w"}) {
        gtk_shortcut_controller_add_shortcut(
            GTK_SHORTCUT_CONTROLLER(shortcuts),
            gtk_shortcut_new(gtk_shortcut_trigger_parse_string(keys),
                             gtk_named_action_new("window.close")));
    }
    gtk_widget_add_controller(window, shortcuts);

    state->host->needsDisplay = [area] { gtk_widget_queue_draw(area); };
    // GTK owns the state from here: it goes, with the camera's view, when the window does.
    g_object_set_data_full(
        G_OBJECT(window), kDataKey, state,
        +[](gpointer p) { delete static_cast<CameraWindow*>(p); });
    // At once when the window closes, not whenever GTK lets go of its last reference: the
    // player is not to outlive what shows it.
    g_signal_connect(window, "destroy", G_CALLBACK(+[](GtkWidget* w, gpointer) {
                         g_object_set_data(G_OBJECT(w), kDataKey, nullptr);
                     }),
                     nullptr);
    gtk_window_present(GTK_WINDOW(window));
    return window;
}

bool cameraWindowShowsPicture(GtkWidget* window) {
    auto* state = stateOf(window);
    return state != nullptr && state->showsPicture();
}

}  // namespace sorvan::viewer

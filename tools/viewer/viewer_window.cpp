#include "viewer_window.hpp"

#include <cairo.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SorvanMapSDK/SMEventAnnotation.hpp"
#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMRouteGuide.hpp"
#include "SorvanMapSDK/SMRouteOptions.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "SorvanMapSDK/SMSuggestOptions.hpp"
#include "camera_window.hpp"
#include "location_dialog.hpp"
#include "map_area.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/media/player.hpp"
#include "switchable_source.hpp"
#include "viewer_map_view.hpp"

namespace sorvan::viewer {

namespace {

using Clock = std::chrono::steady_clock;

constexpr map::Coordinate kBangkok{13.7563, 100.5018};
constexpr double kStartZoom = 14;
constexpr double kKeyPanPoints = 96;
constexpr double kTickSeconds = 1.0 / 60.0;
// A release slower than this (points per second) is a drop, not a fling.
constexpr double kFlingMinSpeed = 100;

struct LayerChoice {
    const char* name;
    std::int64_t mode;
};

constexpr LayerChoice kLayers[] = {
    {"normal", SMLayerModeNormal},
    {"base", SMLayerModeBase},
    {"gray", SMLayerModeGray},
    {"hydro", SMLayerModeHydro},
    {"normal-r", SMLayerModeNormalR},
    {"osm", SMLayerModeOsm},
    {"osm-opencycle", SMLayerModeOsmOpencycle},
    {"mapquest-osm", SMLayerModeMapquestOsm},
    {"gistda-spot5", SMLayerModeGistdaSpot5},
    {"thaichote", SMLayerModeThaichote},
    {"thaichote-partner", SMLayerModeThaichotePartner},
    {"political-white", SMLayerModePoliticalWhite},
    {"political-white-nolabel", SMLayerModePoliticalWhiteNoLabel},
    {"bluemarble-terrain", SMLayerModeBluemarbleTerrain},
    {"icons", SMLayerModeIcons},
    {"icons-transp", SMLayerModeIconsTransp},
    {"offline-gray", SMLayerModeOfflineGray},
    {"white-background", SMLayerModeWhiteBackground},
    {"server-layer", SMLayerModeServerLayer},
    {"none", SMLayerModeNone},
};

// A GLib signal handler from a lambda without captures.
template <typename F>
GCallback callback(F f) {
    return reinterpret_cast<GCallback>(+f);
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    auto index = static_cast<std::size_t>(std::ceil(p * static_cast<double>(values.size()))) - 1;
    return values[std::min(index, values.size() - 1)];
}

// Great-circle distance in metres; good enough for a scale bar.
double metresBetween(map::Coordinate a, map::Coordinate b) {
    constexpr double kRadius = 6371008.8;
    constexpr double kRad = M_PI / 180;
    double dLat = (b.latitude - a.latitude) * kRad;
    double dLon = (b.longitude - a.longitude) * kRad;
    double h = std::sin(dLat / 2) * std::sin(dLat / 2) +
               std::cos(a.latitude * kRad) * std::cos(b.latitude * kRad) * std::sin(dLon / 2) *
                   std::sin(dLon / 2);
    return 2 * kRadius * std::asin(std::min(1.0, std::sqrt(h)));
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (char ch : text) {
        auto u = static_cast<unsigned char>(ch);
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += ch;
        } else if (u < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
            out += escaped;
        } else {
            out += ch;
        }
    }
    return out + "\"";
}

std::string pointJSON(const std::optional<gfx::Point>& p) {
    if (!p) {
        return "null";
    }
    char text[64];
    std::snprintf(text, sizeof text, "[%.0f, %.0f]", p->x, p->y);
    return text;
}

void clearList(GtkListBox* list) {
    while (GtkWidget* child = gtk_widget_get_first_child(GTK_WIDGET(list))) {
        gtk_list_box_remove(list, child);
    }
}

GtkWidget* rowLabel(const std::string& text) {
    GtkWidget* label = gtk_label_new(text.c_str());
    gtk_label_set_xalign(GTK_LABEL(label), 0);
    gtk_label_set_wrap(GTK_LABEL(label), TRUE);
    gtk_widget_set_margin_start(label, 6);
    gtk_widget_set_margin_end(label, 6);
    gtk_widget_set_margin_top(label, 3);
    gtk_widget_set_margin_bottom(label, 3);
    return label;
}

class Window : public std::enable_shared_from_this<Window> {
  public:
    Window(GtkApplication* app, const DebugHooks& hooks) : hooks_(hooks) {
        // Before anything listens: the kit's LocationController and the map keep the source
        // they first get, and the relay is what lets the user switch receivers later.
        locationRelay_ = SwitchableSource::create(nullptr);
        locator_ = location::Source::defaultLocator();
        location::Source::setShared(locationRelay_);
        view_ = ViewerMapView::make({0, 0, 1280, 720}, locationRelay_);
        view_->setScreenScale(1);
        view_->setKey("viewer");
        view_->setLanguage(2);
        buildWidgets(app);
    }

    ~Window() {
        if (scriptTimer_) {
            scriptTimer_->invalidate();
        }
        if (view_) {
            view_->setNeedsDisplayCallback(nullptr);
            view_->setRegionChanged(nullptr);
            view_->setCameraClicked(nullptr);
        }
        locationWatch_.reset();
    }

    void start() {
        std::weak_ptr<Window> weak = shared_from_this();
        view_->setNeedsDisplayCallback([weak] {
            if (auto self = weak.lock()) {
                gtk_widget_queue_draw(self->area_);
            }
        });
        view_->setRegionChanged([weak] {
            if (auto self = weak.lock()) {
                self->regionChanged();
            }
        });
        view_->setCameraClicked([weak](const std::shared_ptr<SMCameraAnnotation>& camera) {
            if (auto self = weak.lock()) {
                self->showCamera(camera);
            }
        });
        applyBaseLayer(0);
        double w = 1280 * std::exp2(20.0 - kStartZoom);
        double h = 720 * std::exp2(20.0 - kStartZoom);
        map::MapPoint c = map::mapPointForCoordinate(kBangkok);
        view_->setVisibleMapRect({{c.x - w / 2, c.y - h / 2}, {w, h}});
        gtk_window_present(GTK_WINDOW(window_));
        if (hooks_.script != nullptr) {
            startScript(hooks_.script);
        }
    }

    GtkWidget* window() const { return window_; }

  private:
    // Widgets ----------------------------------------------------------------------------
    void buildWidgets(GtkApplication* app) {
        window_ = gtk_application_window_new(app);
        gtk_window_set_title(GTK_WINDOW(window_), "Sorvan viewer");
        gtk_window_set_default_size(GTK_WINDOW(window_), 1280, 800);

        GtkWidget* outer = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
        gtk_window_set_child(GTK_WINDOW(window_), outer);

        // Tool bar: search, layers, language, toggles.
        GtkWidget* bar = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
        gtk_widget_set_margin_start(bar, 6);
        gtk_widget_set_margin_end(bar, 6);
        gtk_widget_set_margin_top(bar, 4);
        gtk_widget_set_margin_bottom(bar, 4);
        gtk_box_append(GTK_BOX(outer), bar);

        search_ = gtk_search_entry_new();
        gtk_widget_set_size_request(search_, 260, -1);
        gtk_box_append(GTK_BOX(bar), search_);
        g_signal_connect(search_, "search-changed",
                         callback([](GtkSearchEntry*, Window* w) { w->suggest(); }), this);
        g_signal_connect(search_, "activate",
                         callback([](GtkSearchEntry*, Window* w) { w->search(); }), this);

        std::vector<const char*> names;
        for (const auto& layer : kLayers) {
            names.push_back(layer.name);
        }
        names.push_back("custom (WMS or {x}/{y}/{z})");
        names.push_back(nullptr);
        layers_ = gtk_drop_down_new_from_strings(names.data());
        gtk_box_append(GTK_BOX(bar), layers_);
        g_signal_connect(
            layers_, "notify::selected", callback([](GObject*, GParamSpec*, Window* w) {
                w->applyBaseLayer(gtk_drop_down_get_selected(GTK_DROP_DOWN(w->layers_)));
            }),
            this);
        custom_ = gtk_entry_new();
        gtk_entry_set_placeholder_text(GTK_ENTRY(custom_), "WMS address or {x}/{y}/{z} template");
        gtk_widget_set_hexpand(custom_, TRUE);
        gtk_box_append(GTK_BOX(bar), custom_);
        g_signal_connect(custom_, "activate", callback([](GtkEntry*, Window* w) {
                             gtk_drop_down_set_selected(GTK_DROP_DOWN(w->layers_),
                                                        std::size(kLayers));
                             w->applyBaseLayer(std::size(kLayers));
                         }),
                         this);

        const char* languages[] = {"English", "ไทย", nullptr};
        language_ = gtk_drop_down_new_from_strings(languages);
        gtk_box_append(GTK_BOX(bar), language_);
        g_signal_connect(
            language_, "notify::selected", callback([](GObject*, GParamSpec*, Window* w) {
                bool english = gtk_drop_down_get_selected(GTK_DROP_DOWN(w->language_)) == 0;
                w->view_->setLanguage(english ? 2 : 1);
                w->applyBaseLayer(gtk_drop_down_get_selected(GTK_DROP_DOWN(w->layers_)));
            }),
            this);

        traffic_ = toggle(bar, "_Traffic", [](Window* w, bool on) {
            if (on) {
                w->view_->addSMOverlay(SMLayerModeTraffic);
            } else {
                w->view_->removeSMOverlay(SMLayerModeTraffic);
            }
        });
        tags_ = toggle(bar, "T_ags", [](Window* w, bool on) {
            if (on) {
                w->view_->showTags(std::vector<std::string>{"attraction", "food"});
            } else {
                w->view_->removeAllTags();
            }
        });
        events_ = toggle(bar, "_Events", [](Window* w, bool on) { w->view_->setShowsEvents(on); });
        toggle(bar, "_Cameras", [](Window* w, bool on) { w->view_->setShowsCameras(on); });
        location_ = toggle(bar, "_My location", [](Window* w, bool on) { w->showUser(on); });
        GtkWidget* where = gtk_button_new_with_mnemonic("_Location…");
        gtk_widget_set_tooltip_text(where, "Where your position comes from: gpsd or a track");
        g_signal_connect(where, "clicked",
                         callback([](GtkButton*, Window* w) { w->chooseLocationSource(); }), this);
        gtk_box_append(GTK_BOX(bar), where);

        // Map and side list.
        GtkWidget* middle = gtk_paned_new(GTK_ORIENTATION_HORIZONTAL);
        gtk_widget_set_vexpand(middle, TRUE);
        gtk_box_append(GTK_BOX(outer), middle);

        area_ = MapArea::create(
            [this](cairo_t* cr, bool redrawAll) { return paint(cr, redrawAll); },
            [this](GtkSnapshot* snapshot, int width, int height) {
                finishFrame(snapshot, width, height);
            },
            [this](int width, int height) {
                view_->setFrame({0, 0, static_cast<double>(width), static_cast<double>(height)});
            });
        gtk_widget_set_size_request(area_, 320, 240);
        gtk_widget_set_hexpand(area_, TRUE);
        gtk_widget_set_focusable(area_, TRUE);
        gtk_paned_set_start_child(GTK_PANED(middle), area_);
        gtk_paned_set_resize_start_child(GTK_PANED(middle), TRUE);
        attachInput();

        GtkWidget* side = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
        gtk_widget_set_size_request(side, 280, -1);
        gtk_paned_set_end_child(GTK_PANED(middle), side);
        gtk_paned_set_resize_end_child(GTK_PANED(middle), FALSE);
        gtk_paned_set_shrink_end_child(GTK_PANED(middle), FALSE);

        sideTitle_ = gtk_label_new("Right-click the map to plan a route");
        gtk_label_set_wrap(GTK_LABEL(sideTitle_), TRUE);
        gtk_box_append(GTK_BOX(side), sideTitle_);
        GtkWidget* options = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
        gtk_box_append(GTK_BOX(side), options);
        const char* modes[] = {"Car", "Motorcycle", "Walk", nullptr};
        routeMode_ = gtk_drop_down_new_from_strings(modes);
        gtk_box_append(GTK_BOX(options), routeMode_);
        tollway_ = gtk_check_button_new_with_label("Tollways");
        gtk_check_button_set_active(GTK_CHECK_BUTTON(tollway_), TRUE);
        gtk_box_append(GTK_BOX(options), tollway_);
        ferry_ = gtk_check_button_new_with_label("Ferries");
        gtk_check_button_set_active(GTK_CHECK_BUTTON(ferry_), TRUE);
        gtk_box_append(GTK_BOX(options), ferry_);

        GtkWidget* scroller = gtk_scrolled_window_new();
        gtk_widget_set_vexpand(scroller, TRUE);
        list_ = gtk_list_box_new();
        gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), list_);
        gtk_box_append(GTK_BOX(side), scroller);
        g_signal_connect(list_, "row-activated",
                         callback([](GtkListBox*, GtkListBoxRow* row, Window* w) {
                             w->rowActivated(gtk_list_box_row_get_index(row));
                         }),
                         this);

        // Status bar.
        GtkWidget* status = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
        gtk_widget_set_margin_start(status, 6);
        gtk_widget_set_margin_end(status, 6);
        gtk_box_append(GTK_BOX(outer), status);
        pointer_ = gtk_label_new("");
        gtk_label_set_xalign(GTK_LABEL(pointer_), 0);
        gtk_widget_set_hexpand(pointer_, TRUE);
        gtk_box_append(GTK_BOX(status), pointer_);
        locationStatus_ = gtk_label_new("");
        gtk_box_append(GTK_BOX(status), locationStatus_);
        scale_ = gtk_drawing_area_new();
        gtk_widget_set_size_request(scale_, 160, 22);
        gtk_drawing_area_set_draw_func(
            GTK_DRAWING_AREA(scale_),
            +[](GtkDrawingArea*, cairo_t* cr, int width, int height, gpointer data) {
                static_cast<Window*>(data)->drawScale(cr, width, height);
            },
            this, nullptr);
        gtk_box_append(GTK_BOX(status), scale_);
        GtkWidget* legal = gtk_button_new_with_label("Terms of use");
        gtk_button_set_has_frame(GTK_BUTTON(legal), FALSE);
        g_signal_connect(legal, "clicked",
                         callback([](GtkButton*, Window* w) { w->view_->openTerm(); }), this);
        gtk_box_append(GTK_BOX(status), legal);

        // Context menu of the map.
        GSimpleActionGroup* group = g_simple_action_group_new();
        addAction(group, "route-from", [](Window* w) { w->pickRouteEnd(true); });
        addAction(group, "route-to", [](Window* w) { w->pickRouteEnd(false); });
        addAction(group, "clear", [](Window* w) { w->clearAll(); });
        gtk_widget_insert_action_group(window_, "map", G_ACTION_GROUP(group));
        g_object_unref(group);
        GMenu* menu = g_menu_new();
        g_menu_append(menu, "Route from here", "map.route-from");
        g_menu_append(menu, "Route to here", "map.route-to");
        g_menu_append(menu, "Clear pins and route", "map.clear");
        menu_ = gtk_popover_menu_new_from_model(G_MENU_MODEL(menu));
        g_object_unref(menu);
        gtk_widget_set_parent(menu_, area_);
        gtk_popover_set_has_arrow(GTK_POPOVER(menu_), FALSE);
        g_signal_connect(window_, "destroy", callback([](GtkWidget*, Window* w) {
                             if (w->menu_ != nullptr) {
                                 gtk_widget_unparent(w->menu_);
                                 w->menu_ = nullptr;
                             }
                         }),
                         this);
    }

    using Toggle = void (*)(Window*, bool);
    struct ToggleData {
        Window* window;
        Toggle action;
    };
    GtkWidget* toggle(GtkWidget* box, const char* label, Toggle action) {
        GtkWidget* button = gtk_check_button_new_with_mnemonic(label);
        auto* data = new ToggleData{this, action};
        g_signal_connect_data(
            button, "toggled", callback([](GtkCheckButton* b, ToggleData* d) {
                d->action(d->window, gtk_check_button_get_active(b));
            }),
            data, +[](gpointer p, GClosure*) { delete static_cast<ToggleData*>(p); },
            GConnectFlags{});
        gtk_box_append(GTK_BOX(box), button);
        return button;
    }

    using Action = void (*)(Window*);
    struct ActionData {
        Window* window;
        Action action;
    };
    void addAction(GSimpleActionGroup* group, const char* name, Action action) {
        GSimpleAction* a = g_simple_action_new(name, nullptr);
        auto* data = new ActionData{this, action};
        g_signal_connect_data(
            a, "activate",
            callback([](GSimpleAction*, GVariant*, ActionData* d) { d->action(d->window); }), data,
            +[](gpointer p, GClosure*) { delete static_cast<ActionData*>(p); }, GConnectFlags{});
        g_action_map_add_action(G_ACTION_MAP(group), G_ACTION(a));
        g_object_unref(a);
    }

    // Input ------------------------------------------------------------------------------
    void attachInput() {
        GtkGesture* drag = gtk_gesture_drag_new();
        gtk_gesture_single_set_button(GTK_GESTURE_SINGLE(drag), GDK_BUTTON_PRIMARY);
        g_signal_connect(drag, "drag-begin",
                         callback([](GtkGestureDrag*, double, double, Window* w) {
                             w->view_->stopCameraAnimation();
                             w->lastOffset_ = {0, 0};
                             w->samples_.clear();
                             w->dragged_ = false;
                             w->dragging_ = true;
                             gtk_widget_grab_focus(w->area_);
                         }),
                         this);
        g_signal_connect(
            drag, "drag-update", callback([](GtkGestureDrag* g, double x, double y, Window* w) {
                auto state = gtk_event_controller_get_current_event_state(GTK_EVENT_CONTROLLER(g));
                w->dragTo(x, y, (state & GDK_SHIFT_MASK) != 0);
            }),
            this);
        g_signal_connect(drag, "drag-end", callback([](GtkGestureDrag*, double, double, Window* w) {
                             w->dragging_ = false;
                             w->fling();
                         }),
                         this);
        gtk_widget_add_controller(area_, GTK_EVENT_CONTROLLER(drag));

        GtkGesture* click = gtk_gesture_click_new();
        gtk_gesture_single_set_button(GTK_GESTURE_SINGLE(click), 0);
        g_signal_connect(
            click, "pressed",
            callback([](GtkGestureClick* g, int n, double x, double y, Window* w) {
                w->pressed(gtk_gesture_single_get_current_button(GTK_GESTURE_SINGLE(g)), n, x, y);
            }),
            this);
        g_signal_connect(click, "released",
                         callback([](GtkGestureClick* g, int n, double x, double y, Window* w) {
                             if (gtk_gesture_single_get_current_button(GTK_GESTURE_SINGLE(g)) ==
                                     GDK_BUTTON_PRIMARY &&
                                 n == 1 && !w->dragged_) {
                                 w->view_->tapAt({x, y});
                             }
                         }),
                         this);
        gtk_widget_add_controller(area_, GTK_EVENT_CONTROLLER(click));

        GtkEventController* scroll =
            gtk_event_controller_scroll_new(GTK_EVENT_CONTROLLER_SCROLL_VERTICAL);
        g_signal_connect(
            scroll, "scroll",
            callback([](GtkEventControllerScroll*, double, double dy, Window* w) -> gboolean {
                w->view_->zoomBy(std::exp2(-dy / 2), {w->pointerX_, w->pointerY_});
                return TRUE;
            }),
            this);
        gtk_widget_add_controller(area_, scroll);

        GtkEventController* motion = gtk_event_controller_motion_new();
        g_signal_connect(motion, "motion",
                         callback([](GtkEventControllerMotion*, double x, double y, Window* w) {
                             w->pointerX_ = x;
                             w->pointerY_ = y;
                             w->hover(x, y);
                             w->showPointer();
                             w->writeState();
                         }),
                         this);
        gtk_widget_add_controller(area_, motion);

        GtkEventController* keys = gtk_event_controller_key_new();
        g_signal_connect(
            keys, "key-pressed",
            callback([](GtkEventControllerKey*, guint key, guint, GdkModifierType state,
                        Window* w) -> gboolean { return w->key(key, state); }),
            this);
        gtk_widget_add_controller(area_, keys);
    }

    void dragTo(double x, double y, bool rotate) {
        double dx = x - lastOffset_.x;
        double dy = y - lastOffset_.y;
        lastOffset_ = {x, y};
        if (std::hypot(x, y) > 3) {
            dragged_ = true;
        }
        if (rotate) {
            view_->rotateBy(dx * 0.5);
            return;
        }
        view_->panBy(dx, dy);
        samples_.push_back({Clock::now(), {x, y}});
        while (samples_.size() > 8) {
            samples_.pop_front();
        }
    }

    // A fling hands the engine the speed of the last tenth of a second of the drag; the
    // engine keeps the map moving and slows it down.
    void fling() {
        if (samples_.size() < 2) {
            return;
        }
        auto now = Clock::now();
        const auto& last = samples_.back();
        if (now - last.time > std::chrono::milliseconds(60)) {
            return;  // the pointer rested before it let go
        }
        auto first = std::find_if(samples_.begin(), samples_.end(), [&](const Sample& s) {
            return last.time - s.time <= std::chrono::milliseconds(100);
        });
        double seconds = std::chrono::duration<double>(last.time - first->time).count();
        if (seconds <= 0.005) {
            return;
        }
        double vx = (last.offset.x - first->offset.x) / seconds;
        double vy = (last.offset.y - first->offset.y) / seconds;
        if (std::hypot(vx, vy) >= kFlingMinSpeed) {
            view_->fling(vx, vy);
        }
    }

    // Hovering over a traffic event shows its callout: the pointer selects it, and the map
    // stays where it is.
    void hover(double x, double y) {
        if (!view_->showsEvents() || dragging_) {
            return;
        }
        auto selected = view_->selectedAnnotations();
        for (const auto& annotation : view_->annotations()) {
            if (!std::dynamic_pointer_cast<SMEventAnnotation>(annotation)) {
                continue;
            }
            auto v = view_->viewForAnnotation(annotation);
            if (!v || v->isHidden() || !v->frame().contains({x, y})) {
                continue;
            }
            // A view far off screen keeps the frame it had when last drawn.
            gfx::Point p = view_->convertCoordinateToPoint(annotation->coordinate(), nullptr);
            gfx::Rect f = v->frame();
            if (std::abs(p.x - f.midX()) > f.size.width ||
                std::abs(p.y - f.midY()) > f.size.height) {
                continue;
            }
            if (selected.empty() || selected.front() != annotation) {
                view_->selectAnnotation(annotation, true);
            }
            return;
        }
    }

    void pressed(guint button, int presses, double x, double y) {
        gtk_widget_grab_focus(area_);
        if (button == GDK_BUTTON_SECONDARY) {
            menuPoint_ = {x, y};
            GdkRectangle at{static_cast<int>(x), static_cast<int>(y), 1, 1};
            gtk_popover_set_pointing_to(GTK_POPOVER(menu_), &at);
            gtk_popover_popup(GTK_POPOVER(menu_));
        } else if (button == GDK_BUTTON_PRIMARY && presses == 2) {
            view_->zoomBy(2, {x, y}, true);
        }
    }

    gboolean key(guint key, GdkModifierType state) {
        gfx::Point middle{view_->bounds().size.width / 2, view_->bounds().size.height / 2};
        switch (key) {
            case GDK_KEY_plus:
            case GDK_KEY_equal:
            case GDK_KEY_KP_Add:
                view_->zoomBy(2, middle, true);
                return TRUE;
            case GDK_KEY_minus:
            case GDK_KEY_KP_Subtract:
                view_->zoomBy(0.5, middle, true);
                return TRUE;
            case GDK_KEY_Left:
                view_->panBy(kKeyPanPoints, 0);
                return TRUE;
            case GDK_KEY_Right:
                view_->panBy(-kKeyPanPoints, 0);
                return TRUE;
            case GDK_KEY_Up:
                view_->panBy(0, kKeyPanPoints);
                return TRUE;
            case GDK_KEY_Down:
                view_->panBy(0, -kKeyPanPoints);
                return TRUE;
            case GDK_KEY_n:
            case GDK_KEY_N:
                view_->setCameraHeading(0, true);
                return TRUE;
            case GDK_KEY_slash:
                gtk_widget_grab_focus(search_);
                return TRUE;
            case GDK_KEY_f:
                if ((state & GDK_CONTROL_MASK) != 0) {
                    gtk_widget_grab_focus(search_);
                    return TRUE;
                }
                return FALSE;
            case GDK_KEY_F12:
                showFrameTimes_ = !showFrameTimes_;
                gtk_widget_queue_draw(area_);
                return TRUE;
            case GDK_KEY_s:
                if ((state & GDK_CONTROL_MASK) != 0) {
                    snapshot();
                    return TRUE;
                }
                return FALSE;
            default:
                return FALSE;
        }
    }

    // Drawing ----------------------------------------------------------------------------
    // The map's part of a frame: what changed since the last one.
    std::vector<gfx::Rect> paint(cairo_t* cr, bool redrawAll) {
        frameStarted_ = Clock::now();
        auto rects = view_->drawChanges(cr, redrawAll);
        double redrawn = 0;
        for (const auto& r : rects) {
            redrawn += r.size.width * r.size.height;
        }
        auto size = view_->bounds().size;
        if (!rects.empty() && redrawn < 0.5 * size.width * size.height) {
            ++partialFrames_;
        }
        return rects;
    }

    // The end of a frame, once the textures are made: its time, and the overlay showing it.
    void finishFrame(GtkSnapshot* snapshot, int width, int height) {
        auto started = frameStarted_;
        double ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
        frameTimes_.push_back(ms);
        // From one frame to the next, as the user sees it (GTK rasterises after this returns).
        if (lastFrame_ != Clock::time_point{}) {
            frameIntervals_.push_back(
                std::chrono::duration<double, std::milli>(started - lastFrame_).count());
            if (frameIntervals_.size() > 2000) {
                frameIntervals_.pop_front();
            }
        }
        lastFrame_ = started;
        if (frameTimes_.size() > 240) {
            frameTimes_.pop_front();
        }
        ++frames_;
        if (showFrameTimes_) {
            std::vector<double> times(frameTimes_.begin(), frameTimes_.end());
            char text[160];
            std::snprintf(text, sizeof text,
                          "frame %.1f ms  p50 %.1f  p95 %.1f  new %.0f%%  (%zu frames)", ms,
                          percentile(times, 0.5), percentile(times, 0.95),
                          100 * MapArea::of(area_).lastRemade(), frames_);
            graphene_rect_t box = GRAPHENE_RECT_INIT(8, static_cast<float>(height - 30), 400, 22);
            cairo_t* cr = gtk_snapshot_append_cairo(snapshot, &box);
            cairo_set_source_rgba(cr, 0, 0, 0, 0.6);
            cairo_rectangle(cr, 8, height - 30, 400, 22);
            cairo_fill(cr);
            cairo_set_source_rgb(cr, 1, 1, 1);
            cairo_select_font_face(cr, "DejaVu Sans Mono", CAIRO_FONT_SLANT_NORMAL,
                                   CAIRO_FONT_WEIGHT_NORMAL);
            cairo_set_font_size(cr, 12);
            cairo_move_to(cr, 14, height - 14);
            cairo_show_text(cr, text);
            cairo_destroy(cr);
        }
        (void)width;
        writeState();
    }

    void drawScale(cairo_t* cr, int width, int height) {
        auto size = view_->bounds().size;
        if (size.width <= 0) {
            return;
        }
        gfx::Point a{size.width / 2 - 50, size.height / 2};
        gfx::Point b{size.width / 2 + 50, size.height / 2};
        double metresPer100 = metresBetween(view_->convertPointToCoordinate(a, nullptr),
                                            view_->convertPointToCoordinate(b, nullptr));
        if (!(metresPer100 > 0)) {
            return;
        }
        double maxPoints = width - 70.0;
        double maxMetres = metresPer100 * maxPoints / 100;
        double step = std::pow(10, std::floor(std::log10(maxMetres)));
        double metres = step;
        for (double m : {5 * step, 2 * step}) {
            if (m <= maxMetres) {
                metres = m;
                break;
            }
        }
        double points = metres / metresPer100 * 100;
        double y = height - 6.0;
        cairo_set_source_rgb(cr, 0.15, 0.15, 0.15);
        cairo_set_line_width(cr, 2);
        cairo_move_to(cr, 2, y - 6);
        cairo_line_to(cr, 2, y);
        cairo_line_to(cr, 2 + points, y);
        cairo_line_to(cr, 2 + points, y - 6);
        cairo_stroke(cr);
        char text[32];
        if (metres >= 1000) {
            std::snprintf(text, sizeof text, "%g km", metres / 1000);
        } else {
            std::snprintf(text, sizeof text, "%g m", metres);
        }
        cairo_set_font_size(cr, 11);
        cairo_move_to(cr, points + 8, y);
        cairo_show_text(cr, text);
    }

    void showPointer() {
        map::Coordinate c = view_->convertPointToCoordinate({pointerX_, pointerY_}, nullptr);
        std::string utm;
        try {
            utm = view_->UTMFrom(c, true);
        } catch (const std::exception&) {
            utm = "outside UTM";
        }
        char text[160];
        std::snprintf(text, sizeof text, "%.6f, %.6f   UTM %s   zoom %.2f", c.latitude, c.longitude,
                      utm.c_str(), view_->zoomLevel());
        gtk_label_set_text(GTK_LABEL(pointer_), text);
    }

    void regionChanged() {
        gtk_widget_queue_draw(scale_);
        showPointer();
    }

    // Layers -----------------------------------------------------------------------------
    void applyBaseLayer(guint index) {
        if (baseMode_) {
            view_->removeSMOverlay(*baseMode_);
            baseMode_.reset();
        }
        if (customSource_) {
            view_->removeSourceLayer(*customSource_);
            customSource_.reset();
        }
        if (index < std::size(kLayers)) {
            auto layer = SMLayer::create(kLayers[index].mode);
            view_->addSMLayers({layer});
            baseMode_ = kLayers[index].mode;
        } else {
            std::string address = gtk_editable_get_text(GTK_EDITABLE(custom_));
            if (address.empty()) {
                return;
            }
            auto layer = SMLayer::create(SMLayerModeCustom);
            layer->setSourceLayer(address);
            bool wms = address.find("{x}") == std::string::npos;
            layer->setTileFormat(wms ? SMTileFormatWMS3857 : SMTileFormatDefault);
            view_->addSMLayers({layer});
            customSource_ = address;
        }
        // Traffic stays on top of whatever base is chosen.
        if (gtk_check_button_get_active(GTK_CHECK_BUTTON(traffic_))) {
            view_->removeSMOverlay(SMLayerModeTraffic);
            view_->addSMOverlay(SMLayerModeTraffic);
        }
    }

    // Search -----------------------------------------------------------------------------
    void suggest() {
        std::string text = gtk_editable_get_text(GTK_EDITABLE(search_));
        if (text.empty()) {
            suggestions_.clear();
            showList();
            return;
        }
        std::weak_ptr<Window> weak = shared_from_this();
        auto generation = ++searchGeneration_;
        view_->suggestKeyword(text, nullptr, [weak, generation](const auto& words, const auto&) {
            std::vector<std::string> found = words.value_or(std::vector<std::string>{});
            dispatch::RunLoop::main().async([weak, generation, found] {
                auto self = weak.lock();
                if (!self || generation != self->searchGeneration_) {
                    return;  // the user typed on meanwhile
                }
                self->suggestions_ = found;
                self->listMode_ = ListMode::Suggestions;
                self->showList();
            });
        });
    }

    void search(std::optional<std::string> keyword = std::nullopt) {
        std::string text = keyword.value_or(gtk_editable_get_text(GTK_EDITABLE(search_)));
        if (text.empty()) {
            return;
        }
        ++searchGeneration_;
        auto options = std::make_shared<SMSearchOptions>();
        options->setLocation(view_->centerCoordinate());
        options->setLimit(20);
        std::weak_ptr<Window> weak = shared_from_this();
        view_->searchKeyword(text, options, [weak](const auto& pins, const auto& error) {
            auto found = pins.value_or(std::vector<std::shared_ptr<SMPinAnnotation>>{});
            std::string problem = error ? error->localizedDescription : "";
            dispatch::RunLoop::main().async([weak, found, problem] {
                if (auto self = weak.lock()) {
                    self->showResults(found, problem);
                }
            });
        });
    }

    void showResults(const std::vector<std::shared_ptr<SMPinAnnotation>>& pins,
                     const std::string& problem) {
        removePins();
        pins_ = pins;
        std::vector<std::shared_ptr<map::Annotation>> annotations(pins.begin(), pins.end());
        view_->addAnnotations(annotations);
        listMode_ = ListMode::Results;
        showList();
        gtk_label_set_text(GTK_LABEL(sideTitle_),
                           problem.empty() ? (std::to_string(pins.size()) + " result(s)").c_str()
                                           : ("Search failed: " + problem).c_str());
    }

    void removePins() {
        std::vector<std::shared_ptr<map::Annotation>> old(pins_.begin(), pins_.end());
        view_->removeAnnotations(old);
        pins_.clear();
    }

    // Route ------------------------------------------------------------------------------
    void pickRouteEnd(bool start) {
        map::Coordinate c = view_->convertPointToCoordinate(menuPoint_, nullptr);
        auto& end = start ? routeFrom_ : routeTo_;
        if (end) {
            view_->removeAnnotation(end);
        }
        end = std::make_shared<map::PointAnnotation>(c, start ? "Start" : "End");
        view_->addAnnotation(end);
        if (routeFrom_ && routeTo_) {
            route();
        }
    }

    void route() {
        auto options = std::make_shared<SMRouteOptions>();
        options->setMode(gtk_drop_down_get_selected(GTK_DROP_DOWN(routeMode_)));
        options->setAllowedTollway(gtk_check_button_get_active(GTK_CHECK_BUTTON(tollway_)));
        options->setAllowedFerry(gtk_check_button_get_active(GTK_CHECK_BUTTON(ferry_)));
        gtk_label_set_text(GTK_LABEL(sideTitle_), "Asking for a route…");
        std::weak_ptr<Window> weak = shared_from_this();
        view_->routeFrom(routeFrom_->coordinate(), routeTo_->coordinate(), options,
                         [weak](const auto& result, const auto& error) {
                             std::string problem = error ? error->localizedDescription : "";
                             dispatch::RunLoop::main().async([weak, result, problem] {
                                 if (auto self = weak.lock()) {
                                     self->showRoute(result, problem);
                                 }
                             });
                         });
    }

    void showRoute(const std::shared_ptr<SMRouteResult>& result, const std::string& problem) {
        removeRouteLine();
        route_ = result;
        if (!result) {
            gtk_label_set_text(
                GTK_LABEL(sideTitle_),
                ("No route: " + (problem.empty() ? "malformed answer" : problem)).c_str());
            return;
        }
        for (const auto& step : result->guide()) {
            if (step->path() && step->path()->pointCount() > 0) {
                view_->addOverlay(step->path());
                routeLines_.push_back(step->path());
            }
        }
        char text[96];
        std::snprintf(text, sizeof text, "Route: %.1f km, %lld min", result->distance() / 1000.0,
                      static_cast<long long>(result->interval() / 60));
        gtk_label_set_text(GTK_LABEL(sideTitle_), text);
        listMode_ = ListMode::Guide;
        showList();
    }

    void removeRouteLine() {
        for (const auto& line : routeLines_) {
            view_->removeOverlay(line);
        }
        routeLines_.clear();
    }

    void clearAll() {
        removePins();
        removeRouteLine();
        for (auto* end : {&routeFrom_, &routeTo_}) {
            if (*end) {
                view_->removeAnnotation(*end);
                end->reset();
            }
        }
        route_.reset();
        suggestions_.clear();
        showList();
    }

    // Cameras ----------------------------------------------------------------------------
    void showCamera(const std::shared_ptr<SMCameraAnnotation>& camera) {
        std::weak_ptr<Window> weak = shared_from_this();
        CameraWindowHooks hooks;
        hooks.pictureShown = [weak] {
            if (auto self = weak.lock()) {
                self->writeState();
            }
        };
        hooks.closed = [weak](GtkWidget* gone) {
            if (auto self = weak.lock()) {
                std::erase(self->cameraWindows_, gone);
                self->writeState();
            }
        };
        // GTK owns the window; the list only counts and asks the open ones.
        cameraWindows_.push_back(
            openCameraWindow(GTK_WINDOW(window_), *view_, camera, std::move(hooks)));
        writeState();
    }

    // The user's position ----------------------------------------------------------------
    void showUser(bool on) {
        if (on) {
            // The kit draws the user with its heading arrow, through its LocationController.
            if (view_->userAnnotationType() != 1) {
                view_->setUserAnnotationType(1);
            }
            locationRelay_->setListening(true);
            watchLocation();
        } else {
            locationWatch_.reset();
            // Nobody looks: the receiver or the replay may stop.
            locationRelay_->setListening(false);
            gtk_label_set_text(GTK_LABEL(locationStatus_), "");
            locationProblem_.clear();
        }
        view_->setShowsUserLocation(on);
        writeState();
    }

    // What the status bar says of the position, from the same source the map follows.
    void watchLocation() {
        locationWatch_.reset();
        std::weak_ptr<Window> weak = shared_from_this();
        location::Source::Sink sink;
        sink.location = [weak](const location::Location& l) {
            dispatch::RunLoop::main().async([weak, c = l.coordinate] {
                if (auto self = weak.lock()) {
                    self->locationProblem_.clear();
                    char text[96];
                    std::snprintf(text, sizeof text, "You: %.5f, %.5f", c.latitude, c.longitude);
                    gtk_label_set_text(GTK_LABEL(self->locationStatus_), text);
                    self->writeState();
                }
            });
        };
        sink.failure = [weak](const location::LocationError& e) {
            dispatch::RunLoop::main().async([weak, why = e.description] {
                if (auto self = weak.lock()) {
                    self->locationProblem_ = why;
                    gtk_label_set_text(GTK_LABEL(self->locationStatus_),
                                       ("Location: " + why).c_str());
                    self->writeState();
                }
            });
        };
        locationWatch_ = locationRelay_->subscribe(std::move(sink));
    }

    void chooseLocationSource() {
        std::weak_ptr<Window> weak = shared_from_this();
        openLocationDialog(GTK_WINDOW(window_), locator_,
                           [weak](const std::string& locator) -> std::optional<std::string> {
                               auto self = weak.lock();
                               if (!self) {
                                   return std::nullopt;
                               }
                               if (locator.starts_with("replay:")) {
                                   std::string path = locator.substr(7, locator.find('?') - 7);
                                   std::error_code error;
                                   if (!std::filesystem::is_regular_file(path, error)) {
                                       return "No such file: " + path;
                                   }
                               }
                               std::string error;
                               auto source = location::Source::fromLocator(locator, &error);
                               if (!source) {
                                   return error;
                               }
                               self->locator_ = locator;
                               self->locationProblem_.clear();
                               self->locationRelay_->choose(std::move(source));
                               if (gtk_check_button_get_active(GTK_CHECK_BUTTON(self->location_))) {
                                   self->watchLocation();
                               } else {
                                   // Choosing where the position comes from means wanting to see
                                   // it.
                                   gtk_check_button_set_active(GTK_CHECK_BUTTON(self->location_),
                                                               TRUE);
                               }
                               self->writeState();
                               return std::nullopt;
                           });
    }

    // Side list --------------------------------------------------------------------------
    enum class ListMode { Suggestions, Results, Guide };

    void showList() {
        clearList(GTK_LIST_BOX(list_));
        switch (listMode_) {
            case ListMode::Suggestions:
                for (const auto& word : suggestions_) {
                    gtk_list_box_append(GTK_LIST_BOX(list_), rowLabel(word));
                }
                break;
            case ListMode::Results:
                for (const auto& pin : pins_) {
                    std::string text = pin->name().value_or("?");
                    if (pin->address()) {
                        text += "\n" + *pin->address();
                    }
                    gtk_list_box_append(GTK_LIST_BOX(list_), rowLabel(text));
                }
                break;
            case ListMode::Guide:
                if (route_) {
                    for (const auto& step : route_->guide()) {
                        char text[256];
                        std::snprintf(text, sizeof text, "%s  (%lld m)", step->name().c_str(),
                                      static_cast<long long>(step->distance()));
                        gtk_list_box_append(GTK_LIST_BOX(list_), rowLabel(text));
                    }
                }
                break;
        }
        stateDirty_ = true;
        gtk_widget_queue_draw(area_);
    }

    void rowActivated(int index) {
        if (index < 0) {
            return;
        }
        auto i = static_cast<std::size_t>(index);
        if (listMode_ == ListMode::Suggestions && i < suggestions_.size()) {
            std::string word = suggestions_[i];
            gtk_editable_set_text(GTK_EDITABLE(search_), word.c_str());
            search(word);
        } else if (listMode_ == ListMode::Results && i < pins_.size()) {
            view_->setCenterCoordinate(pins_[i]->coordinate(), true);
            view_->selectAnnotation(pins_[i], true);
        } else if (listMode_ == ListMode::Guide && route_ && i < route_->guide().size()) {
            const auto& path = route_->guide()[i]->path();
            if (path && path->pointCount() > 0) {
                view_->setCenterCoordinate(path->coordinates().front(), true);
            }
        }
    }

    // Debug hooks ------------------------------------------------------------------------
    // The state a test reads back: where the map is and what the window shows.
    void writeState() {
        if (hooks_.statePath == nullptr) {
            return;
        }
        map::Coordinate c = view_->centerCoordinate();
        map::Coordinate p = view_->convertPointToCoordinate({pointerX_, pointerY_}, nullptr);
        double areaX = 0, areaY = 0;
        gtk_widget_translate_coordinates(area_, window_, 0, 0, &areaX, &areaY);
        char text[768];
        std::snprintf(
            text, sizeof text,
            "{\"latitude\": %.9f, \"longitude\": %.9f, \"zoom\": %.6f, \"heading\": %.3f, "
            "\"width\": %.0f, \"height\": %.0f, \"frames\": %zu, \"partialFrames\": %zu, "
            "\"lastRemade\": %.4f, \"tilesPending\": %zu, "
            "\"suggestions\": %zu, "
            "\"pins\": %zu, \"routeSteps\": %zu, \"routeLines\": %zu, "
            "\"pointerLatitude\": %.9f, \"pointerLongitude\": %.9f, "
            "\"areaX\": %.0f, \"areaY\": %.0f, ",
            c.latitude, c.longitude, view_->zoomLevel(), view_->cameraHeading(),
            view_->bounds().size.width, view_->bounds().size.height, frames_, partialFrames_,
            MapArea::of(area_).lastRemade(), view_->pendingTiles(), suggestions_.size(),
            pins_.size(), route_ ? route_->guide().size() : 0, routeLines_.size(), p.latitude,
            p.longitude, areaX, areaY);
        std::string json = text;
        // Where a test can click a camera of each kind: the first one well inside the map.
        std::size_t cameras = 0;
        std::optional<gfx::Point> live, still;
        auto size = view_->bounds().size;
        for (const auto& a : view_->annotations()) {
            auto camera = std::dynamic_pointer_cast<SMCameraAnnotation>(a);
            if (!camera) {
                continue;
            }
            ++cameras;
            gfx::Point at = view_->convertCoordinateToPoint(camera->coordinate(), nullptr);
            if (at.x < 40 || at.y < 40 || at.x > size.width - 40 || at.y > size.height - 40) {
                continue;
            }
            auto& slot = camera->format() == SMCameraFormatLive ? live : still;
            if (!slot) {
                slot = at;
            }
        }
        bool picture = std::any_of(cameraWindows_.begin(), cameraWindows_.end(),
                                   [](GtkWidget* w) { return cameraWindowShowsPicture(w); });
        std::snprintf(text, sizeof text,
                      "\"cameras\": %zu, \"liveCamera\": %s, \"stillCamera\": %s, "
                      "\"cameraWindows\": %zu, \"cameraPicture\": %s, \"pipelines\": %zu, ",
                      cameras, pointJSON(live).c_str(), pointJSON(still).c_str(),
                      cameraWindows_.size(), picture ? "true" : "false",
                      media::Player::livePipelineCount());
        json += text;
        auto user = view_->userLocation();
        std::optional<map::Coordinate> userAt;
        if (view_->showsUserLocation() && user && user->isUpdating()) {
            userAt = user->coordinate();
        }
        if (userAt) {
            std::snprintf(text, sizeof text, "\"user\": [%.7f, %.7f], ", userAt->latitude,
                          userAt->longitude);
            json += text;
        } else {
            json += "\"user\": null, ";
        }
        json += "\"locationSource\": " + jsonString(locationRelay_->description()) +
                ", \"locationProblem\": " + jsonString(locationProblem_) + "}\n";
        std::string path = hooks_.statePath;
        std::string temporary = path + ".tmp";
        {
            std::ofstream out(temporary, std::ios::trunc);
            out << json;
        }
        std::error_code ignored;
        std::filesystem::rename(temporary, path, ignored);
    }

    // Saves the map as the screen shows it: the kept picture, brought up to date.
    void snapshot() {
        std::string path = hooks_.snapshotPath != nullptr ? hooks_.snapshotPath : "viewer.png";
        MapArea& area = MapArea::of(area_);
        area.update();
        gtk_widget_queue_draw(area_);
        if (area.picture() == nullptr) {
            std::fprintf(stderr, "sorvan-viewer: no map to write yet\n");
            return;
        }
        std::string temporary = path + ".tmp.png";
        cairo_status_t status = cairo_surface_write_to_png(area.picture(), temporary.c_str());
        if (status != CAIRO_STATUS_SUCCESS) {
            std::fprintf(stderr, "sorvan-viewer: cannot write %s: %s\n", path.c_str(),
                         cairo_status_to_string(status));
            return;
        }
        std::error_code ignored;
        std::filesystem::rename(temporary, path, ignored);
        std::fprintf(stderr, "sorvan-viewer: map written to %s\n", path.c_str());
    }

    // Scripted runs ----------------------------------------------------------------------
    void startScript(const std::string& name) {
        bool thailand = name == "thailand";
        if (!thailand && name != "pan-zoom") {
            std::fprintf(stderr, "sorvan-viewer: unknown script '%s'\n", name.c_str());
            return;
        }
        // The figures are for a 1280 x 720 map.
        gtk_widget_set_size_request(area_, 1280, 720);
        if (!thailand) {
            gtk_check_button_set_active(GTK_CHECK_BUTTON(tags_), TRUE);
            gtk_check_button_set_active(GTK_CHECK_BUTTON(events_), TRUE);
        }
        std::weak_ptr<Window> weak = shared_from_this();
        // Warm-up: one pass of the same moves fills the caches, then the measured pass.
        // The walk across Thailand moves faster than frames come: it measures what is kept.
        scriptTimer_ = dispatch::Timer::scheduled(
            dispatch::Duration(thailand ? 0.004 : kTickSeconds), true,
            [weak, thailand, tick = 0L](dispatch::Timer& t) mutable {
                auto self = weak.lock();
                if (!self) {
                    t.invalidate();
                    return;
                }
                if (!(thailand ? self->thailandStep(tick++) : self->panZoomStep(tick++))) {
                    t.invalidate();
                }
            });
    }

    static constexpr long kPassTicks = 600;  // 10 s at 60 frames a second

    bool panZoomStep(long tick) {
        long inPass = tick % kPassTicks;
        if (tick == kPassTicks) {
            frameTimes_.clear();
            frameIntervals_.clear();
            scriptFrames_ = frames_;
        }
        if (tick == 2 * kPassTicks) {
            std::vector<double> times(frameTimes_.begin(), frameTimes_.end());
            std::vector<double> gaps(frameIntervals_.begin(), frameIntervals_.end());
            std::printf(
                "frames %zu at %.0fx%.0f: map drawing p50 %.2f ms p95 %.2f ms max %.2f ms; "
                "frame to frame p50 %.2f ms p95 %.2f ms\n",
                frames_ - scriptFrames_, view_->bounds().size.width, view_->bounds().size.height,
                percentile(times, 0.5), percentile(times, 0.95),
                times.empty() ? 0.0 : *std::max_element(times.begin(), times.end()),
                percentile(gaps, 0.5), percentile(gaps, 0.95));
            std::fflush(stdout);
            gtk_window_destroy(GTK_WINDOW(window_));
            return false;
        }
        gfx::Point middle{view_->bounds().size.width / 2, view_->bounds().size.height / 2};
        // Around a circle, zooming in and out every two seconds: the pass ends where it began.
        double angle = 2 * M_PI * static_cast<double>(inPass) / kPassTicks;
        view_->panBy(6 * std::cos(angle), 6 * std::sin(angle));
        if (inPass % 120 == 60) {
            view_->zoomBy(2, middle);
        } else if (inPass % 120 == 119) {
            view_->zoomBy(0.5, middle);
        }
        return true;
    }

    bool thailandStep(long tick) {
        constexpr long kMoves = 10000;
        // After a tenth, halfway and at the end: memory that is bounded has stopped growing by
        // halfway.
        if (tick == kMoves / 10 || tick == kMoves / 2 || tick >= kMoves) {
            long rssKb = 0;
            if (std::FILE* f = std::fopen("/proc/self/status", "r")) {
                char line[256];
                while (std::fgets(line, sizeof line, f) != nullptr) {
                    if (std::sscanf(line, "VmRSS: %ld", &rssKb) == 1) {
                        break;
                    }
                }
                std::fclose(f);
            }
            // What the allocator holds for live blocks, against what the process keeps.
            struct mallinfo2 heap = mallinfo2();
            std::printf(
                "moves %ld rss %.1f MB tile cache %.1f MB heap in use %.1f MB (of %.1f MB "
                "held, %.1f MB mapped) frames %zu\n",
                tick, rssKb / 1024.0, view_->tileCacheBytes() / 1048576.0,
                static_cast<double>(heap.uordblks + heap.hblkhd) / 1048576.0,
                static_cast<double>(heap.arena) / 1048576.0,
                static_cast<double>(heap.hblkhd) / 1048576.0, frames_);
            std::fflush(stdout);
            if (tick < kMoves) {
                return true;
            }
            gtk_window_destroy(GTK_WINDOW(window_));
            return false;
        }
        // Deterministic walk over Thailand's box: a jump every 50 moves, pans and zooms between.
        std::uint64_t h = static_cast<std::uint64_t>(tick / 50) * 0x9E3779B97F4A7C15ull;
        if (tick % 50 == 0) {
            double lat = 6.0 + static_cast<double>(h % 1000) / 1000.0 * 14.0;
            double lon = 97.5 + static_cast<double>((h >> 20) % 1000) / 1000.0 * 8.0;
            view_->setCenterCoordinate({lat, lon});
        } else if (tick % 10 == 0) {
            gfx::Point middle{view_->bounds().size.width / 2, view_->bounds().size.height / 2};
            view_->zoomBy((tick / 10) % 2 == 0 ? 2 : 0.5, middle);
        } else {
            view_->panBy(40, 25);
        }
        return true;
    }

    struct Offset {
        double x, y;
    };
    struct Sample {
        Clock::time_point time;
        Offset offset;
    };

    DebugHooks hooks_;
    std::shared_ptr<ViewerMapView> view_;

    GtkWidget* window_ = nullptr;
    GtkWidget* area_ = nullptr;
    GtkWidget* search_ = nullptr;
    GtkWidget* layers_ = nullptr;
    GtkWidget* custom_ = nullptr;
    GtkWidget* language_ = nullptr;
    GtkWidget* traffic_ = nullptr;
    GtkWidget* tags_ = nullptr;
    GtkWidget* events_ = nullptr;
    GtkWidget* location_ = nullptr;
    GtkWidget* sideTitle_ = nullptr;
    GtkWidget* routeMode_ = nullptr;
    GtkWidget* tollway_ = nullptr;
    GtkWidget* ferry_ = nullptr;
    GtkWidget* list_ = nullptr;
    GtkWidget* pointer_ = nullptr;
    GtkWidget* scale_ = nullptr;
    GtkWidget* menu_ = nullptr;
    GtkWidget* locationStatus_ = nullptr;

    std::optional<std::int64_t> baseMode_;
    std::optional<std::string> customSource_;

    Offset lastOffset_{0, 0};
    std::deque<Sample> samples_;
    bool dragged_ = false;
    bool dragging_ = false;
    std::shared_ptr<dispatch::Timer> scriptTimer_;
    std::size_t scriptFrames_ = 0;
    double pointerX_ = 0, pointerY_ = 0;
    gfx::Point menuPoint_{0, 0};

    std::deque<double> frameTimes_;
    std::deque<double> frameIntervals_;
    Clock::time_point lastFrame_{};
    Clock::time_point frameStarted_{};
    std::size_t frames_ = 0;
    std::size_t partialFrames_ = 0;  // frames that redrew less than half the map
    bool showFrameTimes_ = false;
    bool stateDirty_ = false;

    unsigned searchGeneration_ = 0;
    ListMode listMode_ = ListMode::Suggestions;
    std::vector<std::string> suggestions_;
    std::vector<std::shared_ptr<SMPinAnnotation>> pins_;
    std::shared_ptr<map::PointAnnotation> routeFrom_, routeTo_;
    std::shared_ptr<SMRouteResult> route_;
    std::vector<std::shared_ptr<map::Polyline>> routeLines_;

    std::vector<GtkWidget*> cameraWindows_;  // open, owned by GTK

    std::shared_ptr<SwitchableSource> locationRelay_;
    std::string locator_;  // what the user chose last, as a source description
    std::unique_ptr<location::Source::Subscription> locationWatch_;
    std::string locationProblem_;
};

}  // namespace

void openViewerWindow(GtkApplication* app, const DebugHooks& hooks) {
    auto window = std::make_shared<Window>(app, hooks);
    // The GTK window owns the viewer's state: it goes when the window is destroyed.
    g_object_set_data_full(
        G_OBJECT(window->window()), "sorvan-viewer", new std::shared_ptr<Window>(window),
        +[](gpointer p) { delete static_cast<std::shared_ptr<Window>*>(p); });
    window->start();
}

}  // namespace sorvan::viewer

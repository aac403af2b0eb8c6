#include "location_dialog.hpp"

#include <memory>

namespace sorvan::viewer {

namespace {

constexpr const char* kDefaultGpsd = "localhost:2947";

struct Dialog {
    GtkWidget* window = nullptr;
    GtkWidget* gpsd = nullptr;  // radio
    GtkWidget* host = nullptr;
    GtkWidget* replay = nullptr;  // radio
    GtkWidget* file = nullptr;
    GtkWidget* loop = nullptr;
    GtkWidget* problem = nullptr;
    LocationApply apply;
};

template <typename F>
GCallback callback(F f) {
    return reinterpret_cast<GCallback>(+f);
}

std::string locatorOf(const Dialog& d) {
    if (gtk_check_button_get_active(GTK_CHECK_BUTTON(d.replay))) {
        std::string path = gtk_editable_get_text(GTK_EDITABLE(d.file));
        bool loop = gtk_check_button_get_active(GTK_CHECK_BUTTON(d.loop));
        return "replay:" + path + (loop ? "?loop=1" : "");
    }
    std::string address = gtk_editable_get_text(GTK_EDITABLE(d.host));
    return "gpsd://" + (address.empty() ? std::string(kDefaultGpsd) : address);
}

void use(Dialog* d) {
    if (gtk_check_button_get_active(GTK_CHECK_BUTTON(d->replay)) &&
        *gtk_editable_get_text(GTK_EDITABLE(d->file)) == '\0') {
        gtk_label_set_text(GTK_LABEL(d->problem), "Choose a track to replay.");
        return;
    }
    if (auto why = d->apply(locatorOf(*d))) {
        gtk_label_set_text(GTK_LABEL(d->problem), why->c_str());
        return;
    }
    gtk_window_destroy(GTK_WINDOW(d->window));
}

void browse(Dialog* d) {
    // The portal-friendly chooser of this GTK; its successor needs a newer one.
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    GtkFileChooserNative* chooser = gtk_file_chooser_native_new(
        "Track to replay", GTK_WINDOW(d->window), GTK_FILE_CHOOSER_ACTION_OPEN, "_Open", "_Cancel");
    GtkFileFilter* tracks = gtk_file_filter_new();
    gtk_file_filter_set_name(tracks, "NMEA logs and GPX tracks");
    for (const char* pattern : {"*.nmea", "*.NMEA", "*.gpx", "*.GPX", "*.log", "*.txt"}) {
        gtk_file_filter_add_pattern(tracks, pattern);
    }
    gtk_file_chooser_add_filter(GTK_FILE_CHOOSER(chooser), tracks);
    g_object_unref(tracks);
    g_signal_connect(chooser, "response",
                     callback([](GtkNativeDialog* native, int response, Dialog* self) {
                         if (response == GTK_RESPONSE_ACCEPT) {
                             GFile* file = gtk_file_chooser_get_file(GTK_FILE_CHOOSER(native));
                             if (char* path = file ? g_file_get_path(file) : nullptr) {
                                 gtk_editable_set_text(GTK_EDITABLE(self->file), path);
                                 g_free(path);
                             }
                             if (file) {
                                 g_object_unref(file);
                             }
                         }
                         g_object_unref(native);
                     }),
                     d);
    gtk_native_dialog_show(GTK_NATIVE_DIALOG(chooser));
    G_GNUC_END_IGNORE_DEPRECATIONS
}

GtkWidget* mnemonicLabel(const char* text, GtkWidget* target) {
    GtkWidget* label = gtk_label_new_with_mnemonic(text);
    gtk_label_set_mnemonic_widget(GTK_LABEL(label), target);
    gtk_label_set_xalign(GTK_LABEL(label), 1);
    return label;
}

}  // namespace

void openLocationDialog(GtkWindow* parent, const std::string& current, LocationApply apply) {
    auto* d = new Dialog;
    d->apply = std::move(apply);
    d->window = gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(d->window), "Where am I?");
    gtk_window_set_transient_for(GTK_WINDOW(d->window), parent);
    gtk_window_set_modal(GTK_WINDOW(d->window), TRUE);
    gtk_window_set_destroy_with_parent(GTK_WINDOW(d->window), TRUE);
    g_object_set_data_full(
        G_OBJECT(d->window), "sorvan-location-dialog", d,
        +[](gpointer p) { delete static_cast<Dialog*>(p); });

    GtkWidget* grid = gtk_grid_new();
    gtk_grid_set_row_spacing(GTK_GRID(grid), 6);
    gtk_grid_set_column_spacing(GTK_GRID(grid), 8);
    for (auto margin : {gtk_widget_set_margin_start, gtk_widget_set_margin_end,
                        gtk_widget_set_margin_top, gtk_widget_set_margin_bottom}) {
        margin(grid, 12);
    }
    gtk_window_set_child(GTK_WINDOW(d->window), grid);

    d->gpsd = gtk_check_button_new_with_mnemonic("A _gpsd receiver");
    d->replay = gtk_check_button_new_with_mnemonic("A _recorded track");
    gtk_check_button_set_group(GTK_CHECK_BUTTON(d->replay), GTK_CHECK_BUTTON(d->gpsd));
    d->host = gtk_entry_new();
    gtk_entry_set_placeholder_text(GTK_ENTRY(d->host), "HOST:PORT");
    gtk_widget_set_hexpand(d->host, TRUE);
    d->file = gtk_entry_new();
    gtk_entry_set_placeholder_text(GTK_ENTRY(d->file), "an NMEA log or a GPX file");
    d->loop = gtk_check_button_new_with_mnemonic("_Loop");
    GtkWidget* browseButton = gtk_button_new_with_mnemonic("_Browse…");

    gtk_grid_attach(GTK_GRID(grid), d->gpsd, 0, 0, 3, 1);
    gtk_grid_attach(GTK_GRID(grid), mnemonicLabel("_Address", d->host), 0, 1, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), d->host, 1, 1, 2, 1);
    gtk_grid_attach(GTK_GRID(grid), d->replay, 0, 2, 3, 1);
    gtk_grid_attach(GTK_GRID(grid), mnemonicLabel("_File", d->file), 0, 3, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), d->file, 1, 3, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), browseButton, 2, 3, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), d->loop, 1, 4, 2, 1);
    d->problem = gtk_label_new("");
    gtk_label_set_wrap(GTK_LABEL(d->problem), TRUE);
    gtk_label_set_xalign(GTK_LABEL(d->problem), 0);
    gtk_grid_attach(GTK_GRID(grid), d->problem, 0, 5, 3, 1);

    GtkWidget* buttons = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
    gtk_widget_set_halign(buttons, GTK_ALIGN_END);
    GtkWidget* cancel = gtk_button_new_with_mnemonic("_Cancel");
    GtkWidget* useButton = gtk_button_new_with_mnemonic("_Use");
    gtk_box_append(GTK_BOX(buttons), cancel);
    gtk_box_append(GTK_BOX(buttons), useButton);
    gtk_grid_attach(GTK_GRID(grid), buttons, 0, 6, 3, 1);
    gtk_window_set_default_widget(GTK_WINDOW(d->window), useButton);
    gtk_entry_set_activates_default(GTK_ENTRY(d->host), TRUE);
    gtk_entry_set_activates_default(GTK_ENTRY(d->file), TRUE);

    // What the user last chose, filled in; typing into one side chooses it.
    bool replaying = current.starts_with("replay:");
    if (replaying) {
        std::string rest = current.substr(7);
        std::string query;
        if (auto mark = rest.find('?'); mark != std::string::npos) {
            query = rest.substr(mark + 1);
            rest.resize(mark);
        }
        gtk_editable_set_text(GTK_EDITABLE(d->file), rest.c_str());
        gtk_check_button_set_active(GTK_CHECK_BUTTON(d->loop),
                                    query.find("loop=1") != std::string::npos);
        gtk_editable_set_text(GTK_EDITABLE(d->host), kDefaultGpsd);
    } else {
        std::string address = current.starts_with("gpsd://") ? current.substr(7) : kDefaultGpsd;
        gtk_editable_set_text(GTK_EDITABLE(d->host), address.c_str());
    }
    gtk_check_button_set_active(GTK_CHECK_BUTTON(replaying ? d->replay : d->gpsd), TRUE);
    g_signal_connect(d->host, "changed", callback([](GtkEditable*, Dialog* self) {
                         gtk_check_button_set_active(GTK_CHECK_BUTTON(self->gpsd), TRUE);
                     }),
                     d);
    g_signal_connect(d->file, "changed", callback([](GtkEditable*, Dialog* self) {
                         gtk_check_button_set_active(GTK_CHECK_BUTTON(self->replay), TRUE);
                     }),
                     d);
    g_signal_connect(browseButton, "clicked",
                     callback([](GtkButton*, Dialog* self) { browse(self); }), d);
    g_signal_connect(useButton, "clicked", callback([](GtkButton*, Dialog* self) { use(self); }),
                     d);
    g_signal_connect_swapped(cancel, "clicked", G_CALLBACK(gtk_window_destroy), d->window);

    gtk_window_present(GTK_WINDOW(d->window));
    gtk_widget_grab_focus(replaying ? d->file : d->host);
}

}  // namespace sorvan::viewer

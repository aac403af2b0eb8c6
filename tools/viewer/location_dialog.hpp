// The dialog in which the user chooses where their position comes from: gpsd at HOST:PORT,
// or a recorded track (an NMEA log or a GPX file) replayed, once or over and over. Main
// thread only.
#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <optional>
#include <string>

namespace sorvan::viewer {

/// Takes a source description ("gpsd://HOST:PORT" or "replay:FILE[?loop=1]") and uses it;
/// returns why it cannot (the dialog stays open and shows it), or nullopt when it did.
using LocationApply = std::function<std::optional<std::string>(const std::string& locator)>;

/// Opens the dialog over parent, showing current (a description as above) as the choice.
void openLocationDialog(GtkWindow* parent, const std::string& current, LocationApply apply);

}  // namespace sorvan::viewer

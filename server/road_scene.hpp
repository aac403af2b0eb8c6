// A traffic camera's view painted from nothing: sky, a city skyline, a road running into the
// distance with lane markings, cars moving along it, and a caption with the camera's name and
// a clock. The same name gives the same street at every moment; the cars and the clock follow
// the time given, so consecutive times make a moving picture.
// Thread-safe: painting touches no shared state (text goes through Pango, per thread).
#pragma once

#include <cairo.h>

#include <string>

namespace sorvan::server {

/// Paints the scene into the whole of cr's width x height (user units = pixels). `seconds` is
/// the scene's time (cars move with it); `clock` is the text of the clock in the caption.
void paintRoadScene(cairo_t* cr, int width, int height, const std::string& name, double seconds,
                    const std::string& clock);

}  // namespace sorvan::server

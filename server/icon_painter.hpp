// The pictures of the embedded icon services: map icons for the places of the catalogue and
// for clusters of them, and traffic signs for incidents and cameras. Every icon is drawn on
// request from a few shapes, so one picture serves every screen scale. Thread-safe.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::server {

/// Map icon `name` at scale pixels per point (1, 2 or 3): a category of the catalogue
/// ("temple", 26 points), "reddot" (the default pin) or a cluster ("temple_5", "poi_20": a
/// 38-point disc with the count). nullptr for other names and scales.
std::shared_ptr<gfx::Image> paintMapIcon(std::string_view name, int scale);

/// Traffic sign `name` at 2 pixels per point, 32 points a side: an incident of the event
/// feed, "information", "camera" or "video". nullptr for other names.
std::shared_ptr<gfx::Image> paintTrafficIcon(std::string_view name);

}  // namespace sorvan::server

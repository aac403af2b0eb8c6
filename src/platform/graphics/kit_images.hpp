// The kit's own pictures ("crosshair", "reddot", "information", "marker", "heading"), drawn by
// our own code and made once per process. Bundle::kit().image(name) is the public way in.
// Thread-safe.
#pragma once

#include <memory>
#include <string>

#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::gfx {

/// The picture with that name at scale 2, or nullptr for an unknown name.
std::shared_ptr<Image> kitImage(const std::string& name);

}  // namespace sorvan::gfx

// Kept apart from the rest of the bundle so that only programs that ask for the kit's pictures
// link the picture code.
#include "graphics/kit_images.hpp"
#include "sorvan/platform/foundation/bundle.hpp"

namespace sorvan {

std::shared_ptr<gfx::Image> Bundle::image(const std::string& name) const {
    // The host's own pictures are its business; only the kit carries ours.
    if (this != &Bundle::kit()) {
        return nullptr;
    }
    return gfx::kitImage(name);
}

}  // namespace sorvan

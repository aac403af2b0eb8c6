#include "graphics/kit_images.hpp"

namespace sorvan::gfx {

std::shared_ptr<Image> kitImage(const std::string&) {
    return nullptr;
}

}  // namespace sorvan::gfx

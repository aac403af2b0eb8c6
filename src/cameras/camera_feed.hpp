// Reading the camera feed into camera annotations. Pure; any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/json_access.hpp"

namespace sorvan {
class SMCameraAnnotation;
}

namespace sorvan::cameras {

/// The cameras of a decoded feed, one per element of its "item" array, in order; none when
/// the feed has no "item". imageServer is the origin the sponsor banners live under.
/// Throws json::StructureError when the feed or an item is of the wrong shape (the feed is
/// not an object, "item" is not an array, an item is not an object, a text member is not
/// text, a position is not a number), so that a feed is taken whole or not at all.
std::vector<std::shared_ptr<SMCameraAnnotation>> camerasFromFeed(const json::Value& feed,
                                                                 const std::string& imageServer);

/// One camera from one item; throws like camerasFromFeed.
std::shared_ptr<SMCameraAnnotation> cameraFromItem(const json::Value& item,
                                                   const std::string& imageServer);

}  // namespace sorvan::cameras

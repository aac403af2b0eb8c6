// Reading one clustering answer into tag annotations, and the log line of a failed tile
// request. Internal to the tag feature; the registry is touched only by readTags, on the main
// queue.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/json_access.hpp"

namespace sorvan {
class SMIcon;
class SMTagAnnotation;
}  // namespace sorvan

namespace sorvan::tags {

class TagRegistry;

/// The annotations of root's "data" items (a missing "data" gives none) for zoom z, stamped
/// with setId and icon. An item whose {"id", zoom} is in registry, or came earlier in this
/// answer, is skipped; the others are recorded in registry once the whole answer has been
/// read. Throws json::StructureError for an answer or an item of the wrong kind, leaving the
/// registry as it was.
std::vector<std::shared_ptr<SMTagAnnotation>> readTags(const json::Value& root, std::int64_t z,
                                                       std::int64_t setId,
                                                       const std::shared_ptr<SMIcon>& icon,
                                                       TagRegistry& registry);

/// An icon file name less its last four characters (counted as the platform counts them, in
/// UTF-16 units), or nullopt when it has fewer than five.
std::optional<std::string> iconType(const std::string& icon);

/// Writes "showTags Error (%ld, %.0f, %s): %s" with the zoom, the index, the tag names joined
/// by "," ("(null)" for none) and the description.
void logTagError(std::int64_t z, double index, const std::optional<std::vector<std::string>>& tags,
                 const std::string& description);

}  // namespace sorvan::tags

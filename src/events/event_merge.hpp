// Merging one event feed into the events on the map, apart from the map so that it can be
// tested and measured alone. Pure; thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "foundation/json_access.hpp"
#include "sorvan/platform/foundation/date_formatter.hpp"

namespace sorvan {
class SMEventAnnotation;
}

namespace sorvan::events {

/// What a feed does to the events on the map.
struct FeedMerge {
    /// On the map and no longer in the feed, in map order.
    std::vector<std::shared_ptr<SMEventAnnotation>> removed;
    /// New annotations for the feed's other events, in feed order.
    std::vector<std::shared_ptr<SMEventAnnotation>> added;
};

/// With keepExisting, each event on the map (in map order) keeps its annotation when the
/// feed still holds an item whose "eid" equals its eventId as a string: the first such item
/// not already taken is used up, and the annotation's fields stay as they were. The others
/// are removed. Every item not used up becomes a new annotation, titled in English when
/// language is 2. Without keepExisting nothing on the map is matched or removed. Runs in time
/// linear in the sizes. Throws json::StructureError when the feed is not an array or an item
/// is of the wrong kind; nothing is decided then.
FeedMerge mergeFeed(const json::Value& feed,
                    const std::vector<std::shared_ptr<SMEventAnnotation>>& onMap, bool keepExisting,
                    std::int64_t language, const DateFormatter& dates);

/// One feed item as an annotation. Throws json::StructureError for members of a kind the
/// walk cannot read: an English title or description, a start or a stop that is not a string,
/// severity, showlevel, latitude or longitude that are null, objects or arrays.
std::shared_ptr<SMEventAnnotation> eventFromItem(const json::Value& item, std::int64_t language,
                                                 const DateFormatter& dates);

}  // namespace sorvan::events

#include "tags/tag_answer.hpp"

#include <unordered_set>

#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "tags/tag_registry.hpp"

namespace sorvan::tags {
namespace {

// How many UTF-16 units the UTF-8 sequence starting with lead takes (4-byte sequences are
// surrogate pairs).
std::size_t utf16Units(unsigned char lead) {
    return lead >= 0xF0 ? 2 : 1;
}

bool isContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

}  // namespace

std::optional<std::string> iconType(const std::string& icon) {
    std::size_t units = 0;
    for (unsigned char c : icon) {
        if (!isContinuation(c)) {
            units += utf16Units(c);
        }
    }
    if (units < 5) {
        return std::nullopt;
    }
    // Walk back four units from the end. Half of a surrogate pair cannot be kept in UTF-8, so
    // a character that straddles the cut goes with the extension.
    std::size_t end = icon.size();
    std::size_t dropped = 0;
    while (dropped < 4 && end > 0) {
        std::size_t start = end - 1;
        while (start > 0 && isContinuation(static_cast<unsigned char>(icon[start]))) {
            --start;
        }
        dropped += utf16Units(static_cast<unsigned char>(icon[start]));
        end = start;
    }
    return icon.substr(0, end);
}

std::vector<std::shared_ptr<SMTagAnnotation>> readTags(const json::Value& root, std::int64_t z,
                                                       std::int64_t setId,
                                                       const std::shared_ptr<SMIcon>& icon,
                                                       TagRegistry& registry) {
    struct Fresh {
        std::string key;
        const json::Value* id;
    };
    std::vector<std::shared_ptr<SMTagAnnotation>> out;
    std::vector<Fresh> fresh;
    std::unordered_set<std::string> seen;
    for (const json::Value& item : json::arrayItems(json::member(root, "data"))) {
        const json::Value& id = json::member(item, "id");
        std::string key = TagRegistry::keyOf(id, z);
        if (registry.contains(key) || !seen.insert(key).second) {
            continue;
        }
        auto tag = std::make_shared<SMTagAnnotation>();
        tag->setPoiid(json::textualForm(id));
        tag->setName(json::textualForm(json::member(item, "name")));
        tag->setSetId(setId);
        // The icon's length and the position's numbers are asked of the members themselves:
        // members of another kind fault the answer, as they always have.
        if (auto file = json::stringValue(json::requireText(json::member(item, "icon"), "icon"))) {
            tag->setType(iconType(*file));
        }
        tag->setZoom(z);
        tag->setCoordinate(
            {json::doubleValue(json::requireNumeric(json::member(item, "lat"), "lat")),
             json::doubleValue(json::requireNumeric(json::member(item, "lon"), "lon"))});
        if (icon) {
            tag->setCustomIcon(icon);
        }
        out.push_back(std::move(tag));
        fresh.push_back({std::move(key), &id});
    }
    for (const Fresh& f : fresh) {
        registry.insertKey(f.key, *f.id, z);
    }
    return out;
}

void logTagError(std::int64_t z, double index, const std::optional<std::vector<std::string>>& tags,
                 const std::string& description) {
    std::string joined = "(null)";
    if (tags) {
        joined.clear();
        for (std::size_t i = 0; i < tags->size(); ++i) {
            if (i > 0) {
                joined += ",";
            }
            joined += (*tags)[i];
        }
    }
    log::error("showTags Error (%ld, %.0f, %s): %s", static_cast<long>(z), index, joined.c_str(),
               description.c_str());
}

}  // namespace sorvan::tags

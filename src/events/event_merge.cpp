#include "events/event_merge.hpp"

#include <string>
#include <unordered_map>

#include "SorvanMapSDK/SMEventAnnotation.hpp"

namespace sorvan::events {
namespace {

constexpr std::int64_t kEnglish = 2;

// English text unless the English member is exactly "" (a missing one counts as set and
// reads as nothing); in every other language the Thai member.
std::optional<std::string> localized(const json::Value& item, const char* thai,
                                     const std::string& english, std::int64_t language) {
    if (language != kEnglish) {
        return json::textualForm(json::member(item, thai));
    }
    const json::Value& en = json::requireText(json::member(item, english), english);
    if (en.is_string() && en.get_ref<const std::string&>().empty()) {
        return json::textualForm(json::member(item, thai));
    }
    return json::textualForm(en);
}

std::optional<Date> date(const json::Value& item, const char* name, const DateFormatter& dates) {
    const json::Value& text = json::requireText(json::member(item, name), name);
    if (!text.is_string()) {
        return std::nullopt;
    }
    return dates.dateFromString(text.get_ref<const std::string&>());
}

}  // namespace

std::shared_ptr<SMEventAnnotation> eventFromItem(const json::Value& item, std::int64_t language,
                                                 const DateFormatter& dates) {
    auto event = std::make_shared<SMEventAnnotation>();
    event->setEventId(json::textualForm(json::member(item, "eid")));
    event->setEventTitle(localized(item, "title", "title_en", language));
    event->setEventDescription(localized(item, "description", "description_en", language));
    event->setIconName(json::textualForm(json::member(item, "icon")));
    event->setStart(date(item, "start", dates));
    event->setStop(date(item, "stop", dates));
    event->setContributor(json::textualForm(json::member(item, "contributor")));
    // The code is carried for the application only; its kind is not checked.
    event->setType(json::integerValue(json::member(item, "type")));
    event->setSeverity(
        json::integerValue(json::requireNumeric(json::member(item, "severity"), "severity")));
    event->setShowlevel(
        json::integerValue(json::requireNumeric(json::member(item, "showlevel"), "showlevel")));
    event->setCoordinate(
        {json::doubleValue(json::requireNumeric(json::member(item, "latitude"), "latitude")),
         json::doubleValue(json::requireNumeric(json::member(item, "longitude"), "longitude"))});
    return event;
}

FeedMerge mergeFeed(const json::Value& feed,
                    const std::vector<std::shared_ptr<SMEventAnnotation>>& onMap, bool keepExisting,
                    std::int64_t language, const DateFormatter& dates) {
    const json::Value::array_t& items = json::arrayItems(feed);
    std::vector<bool> taken(items.size(), false);
    FeedMerge merge;
    if (keepExisting) {
        // Items by the text of their "eid", in feed order; each annotation takes the first
        // item of its list that is still free, which is the first match of a search from the
        // top of the feed.
        struct Queue {
            std::vector<std::size_t> items;
            std::size_t next = 0;
        };
        std::unordered_map<std::string, Queue> byId;
        byId.reserve(items.size());
        for (std::size_t i = 0; i < items.size(); ++i) {
            if (auto id = json::textualForm(json::member(items[i], "eid"))) {
                byId[*id].items.push_back(i);
            }
        }
        for (const auto& event : onMap) {
            Queue* match = nullptr;
            if (event->eventId()) {
                if (auto it = byId.find(*event->eventId()); it != byId.end()) {
                    match = &it->second;
                }
            }
            if (match && match->next < match->items.size()) {
                taken[match->items[match->next++]] = true;
            } else {
                merge.removed.push_back(event);
            }
        }
    }
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!taken[i]) {
            merge.added.push_back(eventFromItem(items[i], language, dates));
        }
    }
    return merge;
}

}  // namespace sorvan::events

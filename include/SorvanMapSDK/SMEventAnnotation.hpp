// SMEventAnnotation: one live traffic incident of the event feed. The map view makes these on
// the main queue and keeps the same object for as long as the feed keeps its "eid", even when
// the feed's texts for it change. Plain data, not synchronised: change it on the main queue
// only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/foundation/date_formatter.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/annotation.hpp"

namespace sorvan {

class SORVAN_EXPORT SMEventAnnotation : public map::Annotation {
  public:
    SMEventAnnotation() = default;

    /// The feed's "eid", in its textual form.
    const std::optional<std::string>& eventId() const { return eventId_; }
    void setEventId(std::optional<std::string> id) { eventId_ = std::move(id); }
    /// "title_en" in English (unless it is empty, then "title"), "title" otherwise.
    const std::optional<std::string>& eventTitle() const { return eventTitle_; }
    void setEventTitle(std::optional<std::string> title) { eventTitle_ = std::move(title); }
    /// "description_en" or "description", by the same rule as the title.
    const std::optional<std::string>& eventDescription() const { return eventDescription_; }
    void setEventDescription(std::optional<std::string> text) {
        eventDescription_ = std::move(text);
    }
    /// A picture slot for the application; the feed does not fill it.
    const std::shared_ptr<gfx::Image>& icon() const { return icon_; }
    void setIcon(std::shared_ptr<gfx::Image> icon) { icon_ = std::move(icon); }
    /// The traffic icon's name ("accident"); unset means "information".
    const std::optional<std::string>& iconName() const { return iconName_; }
    void setIconName(std::optional<std::string> name) { iconName_ = std::move(name); }
    /// "start" and "stop" read as "yyyy-MM-dd HH:mm:ss" in the device's time zone; unset when
    /// the text is anything else.
    const std::optional<Date>& start() const { return start_; }
    void setStart(std::optional<Date> start) { start_ = start; }
    const std::optional<Date>& stop() const { return stop_; }
    void setStop(std::optional<Date> stop) { stop_ = stop; }
    const std::optional<std::string>& contributor() const { return contributor_; }
    void setContributor(std::optional<std::string> who) { contributor_ = std::move(who); }
    std::int64_t severity() const { return severity_; }
    void setSeverity(std::int64_t severity) { severity_ = severity; }
    /// The lowest zoom at which the incident is shown; its view is hidden below.
    std::int64_t showlevel() const { return showlevel_; }
    void setShowlevel(std::int64_t level) { showlevel_ = level; }
    /// The feed's "type" code; nothing in the kit reads it.
    std::int64_t type() const { return type_; }
    void setType(std::int64_t type) { type_ = type; }

    map::Coordinate coordinate() const override { return coordinate_; }
    void setCoordinate(map::Coordinate coordinate) { coordinate_ = coordinate; }

  private:
    std::optional<std::string> eventId_;
    std::optional<std::string> eventTitle_;
    std::optional<std::string> eventDescription_;
    std::shared_ptr<gfx::Image> icon_;
    std::optional<std::string> iconName_;
    std::optional<Date> start_;
    std::optional<Date> stop_;
    std::optional<std::string> contributor_;
    std::int64_t severity_ = 0;
    std::int64_t showlevel_ = 0;
    std::int64_t type_ = 0;
    map::Coordinate coordinate_;
};

}  // namespace sorvan

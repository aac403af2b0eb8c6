// SMSearchOptions: what searchKeyword() sends besides the keyword. Plain value object.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan {

class SORVAN_EXPORT SMSearchOptions {
  public:
    SMSearchOptions() = default;

    /// The position to search around. Exactly (0, 0) means "none given": the map's centre at
    /// the time of the call is sent instead.
    map::Coordinate location() const { return location_; }
    void setLocation(map::Coordinate location) { location_ = location; }
    /// Free text the service interprets ("5km", "20000km"); the kit never parses it.
    const std::string& span() const { return span_; }
    void setSpan(std::string span) { span_ = std::move(span); }
    std::int64_t offset() const { return offset_; }
    void setOffset(std::int64_t offset) { offset_ = offset; }
    std::int64_t limit() const { return limit_; }
    void setLimit(std::int64_t limit) { limit_ = limit; }

  private:
    map::Coordinate location_{0, 0};
    std::string span_;
    std::int64_t offset_ = 0;
    std::int64_t limit_ = 10;
};

}  // namespace sorvan

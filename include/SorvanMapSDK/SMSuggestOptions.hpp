// SMSuggestOptions: paging of suggestKeyword(). Plain value object.
#pragma once

#include <cstdint>

#include "sorvan/platform/export.hpp"

namespace sorvan {

class SORVAN_EXPORT SMSuggestOptions {
  public:
    SMSuggestOptions() = default;

    std::int64_t offset() const { return offset_; }
    void setOffset(std::int64_t offset) { offset_ = offset; }
    std::int64_t limit() const { return limit_; }
    void setLimit(std::int64_t limit) { limit_ = limit; }

  private:
    std::int64_t offset_ = 0;
    std::int64_t limit_ = 10;
};

}  // namespace sorvan

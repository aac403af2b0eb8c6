// Parses "yyyy-MM-dd HH:mm:ss" texts strictly in the device's time zone (TZ). Trailing white
// space is accepted; any other leftover text or a missing time part gives no date.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "sorvan/platform/export.hpp"

namespace sorvan {

using Date = std::chrono::system_clock::time_point;

class SORVAN_EXPORT DateFormatter {
  public:
    /// Only the pattern "yyyy-MM-dd HH:mm:ss" and locale "en_US" are supported; others throw
    /// std::invalid_argument.
    explicit DateFormatter(std::string pattern = "yyyy-MM-dd HH:mm:ss",
                           std::string locale = "en_US");
    std::optional<Date> dateFromString(std::string_view text) const;
    std::string stringFromDate(Date date) const;

  private:
    std::string pattern_, locale_;
};

}  // namespace sorvan

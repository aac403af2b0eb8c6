#include "sorvan/platform/foundation/date_formatter.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/foundation_support.hpp"

namespace sorvan {
namespace {

using test::ScopedEnv;

std::optional<long long> epoch(std::string_view text) {
    const auto date = DateFormatter().dateFromString(text);
    if (!date) {
        return std::nullopt;
    }
    return std::chrono::duration_cast<std::chrono::seconds>(date->time_since_epoch()).count();
}

TEST(DateFormatter, ParsesTheWholePatternInTheDevicesZone) {
    ScopedEnv tz("TZ", "Asia/Kolkata");                   // +05:30, what ctest sets too
    EXPECT_EQ(epoch("2024-01-31 08:05:00"), 1706668500);  // 02:35:00 UTC
    EXPECT_EQ(epoch("2024-01-31 08:05:00 \t\r\n"), 1706668500);
    EXPECT_EQ(epoch("2024-02-29 23:59:59"), 1709231399);
    EXPECT_EQ(epoch("1969-12-31 23:59:59"), -19801);
    EXPECT_EQ(DateFormatter().stringFromDate(Date(std::chrono::seconds(1706668500))),
              "2024-01-31 08:05:00");
    EXPECT_EQ(DateFormatter().stringFromDate(Date(std::chrono::milliseconds(-19801500))),
              "1969-12-31 23:59:58");

    ScopedEnv newYork("TZ", "America/New_York");
    EXPECT_EQ(epoch("2024-07-01 12:00:00"), 1719849600);  // summer time
    EXPECT_EQ(DateFormatter().stringFromDate(Date(std::chrono::seconds(1719849600))),
              "2024-07-01 12:00:00");
}

TEST(DateFormatter, RejectsEverythingElse) {
    ScopedEnv tz("TZ", "Asia/Kolkata");
    for (std::string_view bad : {
             "2024-01-31T08:05:00",
             "2024-01-31",
             "2024-01-31 ",
             "2024-01-31 08:05",
             "2024-01-31 08:05:00x",
             "2024-01-31 08:05:00.5",
             "2024-01-31 08:05:00 +0700",
             " 2024-01-31 08:05:00",
             "2024-01-31  08:05:00",
             "2024-1-31 08:05:00",
             "24-01-31 08:05:00",
             "2024-01-31 8:05:00",
             "2024/01/31 08:05:00",
             "+024-01-31 08:05:00",
             "2024-01-3a 08:05:00",
             "",
             "2024-13-01 00:00:00",
             "2024-00-10 00:00:00",
             "2024-01-00 00:00:00",
             "2023-02-29 00:00:00",
             "1900-02-29 00:00:00",
             "2024-04-31 00:00:00",
             "2024-01-31 24:00:00",
             "2024-01-31 23:60:00",
             "2024-01-31 23:59:60",
         }) {
        EXPECT_EQ(epoch(bad), std::nullopt) << '"' << bad << '"';
    }
    EXPECT_NE(epoch("2000-02-29 00:00:00"), std::nullopt);  // divisible by 400: leap
}

TEST(DateFormatter, OnlyTheOnePatternAndLocaleAreMade) {
    EXPECT_NO_THROW(DateFormatter("yyyy-MM-dd HH:mm:ss", "en_US"));
    try {
        DateFormatter("dd/MM/yyyy", "en_US");
        ADD_FAILURE() << "no throw";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "unsupported date format \"dd/MM/yyyy\"");
    }
    EXPECT_THROW(DateFormatter("yyyy-MM-dd HH:mm:ss", "th_TH"), std::invalid_argument);
}

}  // namespace
}  // namespace sorvan

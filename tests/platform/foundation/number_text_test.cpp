#include "foundation/number_text.hpp"

#include <cstdint>

#include <gtest/gtest.h>

namespace sorvan::text {
namespace {

TEST(NumberText, DoublesAreTheWholeTextOrNothing) {
    EXPECT_EQ(parseDouble("13.7563"), 13.7563);
    EXPECT_EQ(parseDouble("-0.5"), -0.5);
    EXPECT_EQ(parseDouble("+100.5"), 100.5);
    EXPECT_EQ(parseDouble("1e3"), 1000.0);
    EXPECT_EQ(parseDouble(".5"), 0.5);
    EXPECT_EQ(parseDouble("5."), 5.0);
    for (const char* bad : {"", "+", "-", " 1", "1 ", "1,5", "12abc", "0x1A", "inf", "-inf", "nan",
                            "infinity", "1e999", "-1e999", "++1", "+-1", "1e", "e5", "."}) {
        EXPECT_FALSE(parseDouble(bad).has_value()) << bad;
    }
}

TEST(NumberText, IntegersAreDigitsWithinTheirRange) {
    EXPECT_EQ(parseInteger("42"), 42);
    EXPECT_EQ(parseInteger("+42"), 42);
    EXPECT_EQ(parseInteger("-7"), -7);
    EXPECT_EQ(parseInteger("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(parseInteger("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(parseInteger("0", 0, 65535), 0);
    EXPECT_EQ(parseInteger("65535", 0, 65535), 65535);
    for (const char* bad : {"", "+", "-", " 1", "1 ", "1.0", "1e3", "0x1A", "12abc", "+-1",
                            "9223372036854775808", "-9223372036854775809"}) {
        EXPECT_FALSE(parseInteger(bad).has_value()) << bad;
    }
    EXPECT_FALSE(parseInteger("65536", 0, 65535).has_value());
    EXPECT_FALSE(parseInteger("-1", 0, 65535).has_value());
}

}  // namespace
}  // namespace sorvan::text

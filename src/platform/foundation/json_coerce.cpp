#include "foundation/json_coerce.hpp"

#include <locale.h>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>

#include "foundation/json_access.hpp"

namespace sorvan::json::coerce {
namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

locale_t cLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", locale_t{});
    return locale;
}

}  // namespace

std::int64_t saturatingTruncate(double d) {
    // 2^63 is exactly representable; anything at or beyond it does not fit.
    constexpr double kLimit = 9223372036854775808.0;
    if (std::isnan(d)) {
        return 0;
    }
    if (d >= kLimit) {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (d < -kLimit) {
        return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(d);
}

std::int64_t integerFromText(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size() && isSpace(s[i])) {
        ++i;
    }
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
        negative = s[i] == '-';
        ++i;
        // Answers have always been read with white space allowed between the sign and the
        // digits.
        while (i < s.size() && isSpace(s[i])) {
            ++i;
        }
    }
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    // Accumulate on the sign's side so that INT64_MIN itself is reachable.
    std::int64_t result = 0;
    for (; i < s.size() && isDigit(s[i]); ++i) {
        const int digit = s[i] - '0';
        if (negative) {
            if (result < (kMin + digit) / 10) {
                return kMin;
            }
            result = result * 10 - digit;
        } else {
            if (result > (kMax - digit) / 10) {
                return kMax;
            }
            result = result * 10 + digit;
        }
    }
    return result;
}

double doubleFromText(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size() && isSpace(s[i])) {
        ++i;
    }
    // Limiting the text to these characters keeps out what strtod would otherwise accept but
    // answers were never read as: "inf", "nan", hexadecimal.
    std::size_t end = i;
    while (end < s.size() && (isDigit(s[end]) || s[end] == '+' || s[end] == '-' || s[end] == '.' ||
                              s[end] == 'e' || s[end] == 'E')) {
        ++end;
    }
    const std::string prefix(s.substr(i, end - i));
    if (prefix.empty()) {
        return 0;
    }
    return strtod_l(prefix.c_str(), nullptr, cLocale());
}

double parseNumberText(std::string_view s) {
    // Numbers are short; a longer one (thousands of digits) is allowed but rare.
    char buffer[64];
    if (s.size() < sizeof buffer) {
        s.copy(buffer, s.size());
        buffer[s.size()] = '\0';
        return strtod_l(buffer, nullptr, cLocale());
    }
    return strtod_l(std::string(s).c_str(), nullptr, cLocale());
}

void wrongKind(std::string_view expected, std::string_view found, std::string_view name) {
    std::string prefix = name.empty() ? std::string() : std::string(name) + ": ";
    throw StructureError(prefix + "expected " + std::string(expected) + ", found " +
                         std::string(found));
}

}  // namespace sorvan::json::coerce

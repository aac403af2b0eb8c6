#include "sorvan/platform/foundation/date_formatter.hpp"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace sorvan {
namespace {

constexpr std::string_view kPattern = "yyyy-MM-dd HH:mm:ss";

bool isLeap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeap(year) ? 29 : kDays[month - 1];
}

// Reads exactly count ASCII digits at pos and moves past them.
bool digits(std::string_view text, std::size_t& pos, std::size_t count, int& out) {
    if (text.size() - pos < count) {
        return false;
    }
    out = 0;
    for (std::size_t end = pos + count; pos < end; ++pos) {
        if (text[pos] < '0' || text[pos] > '9') {
            return false;
        }
        out = out * 10 + (text[pos] - '0');
    }
    return true;
}

bool literal(std::string_view text, std::size_t& pos, char c) {
    if (pos < text.size() && text[pos] == c) {
        ++pos;
        return true;
    }
    return false;
}

}  // namespace

DateFormatter::DateFormatter(std::string pattern, std::string locale)
    : pattern_(std::move(pattern)), locale_(std::move(locale)) {
    if (pattern_ != kPattern) {
        throw std::invalid_argument("unsupported date format \"" + pattern_ + "\"");
    }
    if (locale_ != "en_US") {
        throw std::invalid_argument("unsupported date locale \"" + locale_ + "\"");
    }
}

std::optional<Date> DateFormatter::dateFromString(std::string_view text) const {
    // Parsed by hand: strptime would take one-digit fields, skip white space inside the text
    // and accept a 'T', all of which must fail here.
    std::size_t pos = 0;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!digits(text, pos, 4, year) || !literal(text, pos, '-') || !digits(text, pos, 2, month) ||
        !literal(text, pos, '-') || !digits(text, pos, 2, day) || !literal(text, pos, ' ') ||
        !digits(text, pos, 2, hour) || !literal(text, pos, ':') || !digits(text, pos, 2, minute) ||
        !literal(text, pos, ':') || !digits(text, pos, 2, second)) {
        return std::nullopt;
    }
    for (; pos < text.size(); ++pos) {
        const char c = text[pos];
        if (c != ' ' && c != '\t' && c != '\n' && c != '\r' && c != '\v' && c != '\f') {
            return std::nullopt;
        }
    }
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
        minute > 59 || second > 59) {
        return std::nullopt;
    }
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    fields.tm_isdst = -1;  // the zone's rules decide, as they do for the device's clock
    errno = 0;
    const std::time_t seconds = std::mktime(&fields);
    if (seconds == static_cast<std::time_t>(-1) && errno != 0) {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(seconds);
}

std::string DateFormatter::stringFromDate(Date date) const {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date.time_since_epoch());
    const std::time_t t = static_cast<std::time_t>(seconds.count());
    std::tm fields{};
    // localtime_r, unlike mktime, need not notice a changed TZ by itself.
    tzset();
    if (!localtime_r(&t, &fields)) {
        return "";
    }
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d", fields.tm_year + 1900,
                  fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    return buffer;
}

}  // namespace sorvan

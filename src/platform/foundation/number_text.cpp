#include "foundation/number_text.hpp"

#include <charconv>
#include <cmath>
#include <system_error>

namespace sorvan::text {

namespace {

// from_chars takes a '-' but no '+'; a second sign after the '+' must stay an error.
std::string_view withoutPlus(std::string_view text) {
    if (text.size() > 1 && text.front() == '+' && text[1] != '-' && text[1] != '+') {
        text.remove_prefix(1);
    }
    return text;
}

}  // namespace

std::optional<double> parseDouble(std::string_view text) {
    text = withoutPlus(text);
    if (text.empty()) {
        return std::nullopt;
    }
    // from_chars would read "inf", "nan" and "infinity"; only digits, a point, signs and an
    // exponent make a number here.
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || c == '.' || c == '-' || c == '+' || c == 'e' || c == 'E')) {
            return std::nullopt;
        }
    }
    double value = 0;
    const auto [end, ec] =
        std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::general);
    if (ec != std::errc{} || end != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::int64_t> parseInteger(std::string_view text, std::int64_t min,
                                         std::int64_t max) {
    text = withoutPlus(text);
    std::int64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size() || value < min ||
        value > max) {
        return std::nullopt;
    }
    return value;
}

}  // namespace sorvan::text

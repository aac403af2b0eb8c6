#include "foundation/json_access.hpp"

#include <locale.h>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace sorvan::json {
namespace {

constexpr std::string_view kNotCorrectFormat =
    "The data couldn't be read because it isn't in the correct format.";

// Service answers nest a few levels. The parser itself keeps its own stack, but dumping,
// copying and comparing a value recurse once per level on the calling thread's stack, so a
// document is refused before it can hold more levels than any thread can walk.
constexpr std::size_t kMaxDepth = 256;

// The offset of the bracket that opens level kMaxDepth + 1, if the text has one. Brackets in
// strings do not count; text that is no JSON anyway is left to the parser to reject.
std::optional<std::size_t> tooDeepAt(std::string_view bytes) {
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const char c = bytes[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxDepth) {
                return i;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return std::nullopt;
}

// Only the address of this value matters: it is how a missing member is told apart from a
// JSON null that the document itself holds.
const Value& missingValue() {
    static const Value value;
    return value;
}

const Value::array_t& noItems() {
    static const Value::array_t items;
    return items;
}

std::string kindName(const Value& v) {
    if (isMissing(v)) {
        return "nothing";
    }
    switch (v.type()) {
        case Value::value_t::null:
            return "null";
        case Value::value_t::object:
            return "object";
        case Value::value_t::array:
            return "array";
        case Value::value_t::string:
            return "string";
        case Value::value_t::boolean:
            return "boolean";
        case Value::value_t::number_integer:
        case Value::value_t::number_unsigned:
        case Value::value_t::number_float:
            return "number";
        case Value::value_t::binary:
            return "binary data";
        case Value::value_t::discarded:
            break;
    }
    return "nothing";
}

[[noreturn]] void wrongKind(std::string_view expected, const Value& found) {
    throw StructureError("expected " + std::string(expected) + ", found " + kindName(found));
}

[[noreturn]] void wrongMember(std::string_view name, std::string_view expected,
                              const Value& found) {
    std::string prefix = name.empty() ? std::string() : std::string(name) + ": ";
    throw StructureError(prefix + "expected " + std::string(expected) + ", found " +
                         kindName(found));
}

// A null the answer holds is an object that has no number to give; only an absent member
// reads as 0.
void requireNumberSource(const Value& v) {
    if (v.is_null() && !isMissing(v)) {
        wrongKind("a number", v);
    }
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

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

locale_t cLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", locale_t{});
    return locale;
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

}  // namespace

ParseResult parse(std::string_view bytes) {
    ParseResult result;
    if (const auto at = tooDeepAt(bytes)) {
        result.errorDescription = std::string(kNotCorrectFormat) + " (nested deeper than " +
                                  std::to_string(kMaxDepth) + " levels at byte " +
                                  std::to_string(*at + 1) + ")";
        return result;
    }
    try {
        Value value = Value::parse(bytes.begin(), bytes.end());
        if (!value.is_object() && !value.is_array()) {
            result.errorDescription = std::string(kNotCorrectFormat) + " (the top level is " +
                                      kindName(value) + ", not an object or an array)";
            return result;
        }
        result.value = std::move(value);
    } catch (const std::exception& e) {
        std::string detail = e.what();
        // Drop the library's "[json.exception.parse_error.101] " tag; keep the position.
        if (!detail.empty() && detail.front() == '[') {
            if (const auto close = detail.find("] "); close != std::string::npos) {
                detail.erase(0, close + 2);
            }
        }
        result.errorDescription = std::string(kNotCorrectFormat) + " (" + detail + ")";
    }
    return result;
}

const Value& missing() {
    return missingValue();
}

bool isMissing(const Value& v) {
    return &v == &missingValue();
}

const Value& member(const Value& obj, std::string_view key) {
    if (isMissing(obj)) {
        return obj;
    }
    if (!obj.is_object()) {
        wrongKind("an object", obj);
    }
    const auto it = obj.find(key);
    return it == obj.end() ? missingValue() : *it;
}

const Value& element(const Value& arr, std::size_t index) {
    if (isMissing(arr)) {
        return arr;
    }
    if (!arr.is_array()) {
        wrongKind("an array", arr);
    }
    if (index >= arr.size()) {
        throw StructureError("index " + std::to_string(index) + " beyond the end of an array of " +
                             std::to_string(arr.size()) + " elements");
    }
    return arr[index];
}

const Value::array_t& arrayItems(const Value& arr) {
    if (isMissing(arr)) {
        return noItems();
    }
    if (!arr.is_array()) {
        wrongKind("an array", arr);
    }
    return arr.get_ref<const Value::array_t&>();
}

std::optional<std::string> stringValue(const Value& v) {
    if (isMissing(v)) {
        return std::nullopt;
    }
    if (!v.is_string()) {
        wrongKind("a string", v);
    }
    return v.get<std::string>();
}

std::int64_t integerValue(const Value& v) {
    requireNumberSource(v);
    switch (v.type()) {
        case Value::value_t::number_integer:
            return v.get<std::int64_t>();
        case Value::value_t::number_unsigned: {
            const auto u = v.get<std::uint64_t>();
            constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
            return u > static_cast<std::uint64_t>(kMax) ? kMax : static_cast<std::int64_t>(u);
        }
        case Value::value_t::number_float:
            return saturatingTruncate(v.get<double>());
        case Value::value_t::boolean:
            return v.get<bool>() ? 1 : 0;
        case Value::value_t::string:
            return integerFromText(v.get_ref<const std::string&>());
        default:
            return 0;
    }
}

double doubleValue(const Value& v) {
    requireNumberSource(v);
    switch (v.type()) {
        case Value::value_t::number_integer:
        case Value::value_t::number_unsigned:
        case Value::value_t::number_float:
            return v.get<double>();
        case Value::value_t::boolean:
            return v.get<bool>() ? 1.0 : 0.0;
        case Value::value_t::string:
            return doubleFromText(v.get_ref<const std::string&>());
        default:
            return 0;
    }
}

std::optional<std::string> textualForm(const Value& v) {
    switch (v.type()) {
        case Value::value_t::string:
            return v.get_ref<const std::string&>();
        case Value::value_t::number_integer:
            return std::to_string(v.get<std::int64_t>());
        case Value::value_t::number_unsigned:
            return std::to_string(v.get<std::uint64_t>());
        case Value::value_t::boolean:
            return v.get<bool>() ? "1" : "0";
        case Value::value_t::number_float: {
            char buffer[64];
            const auto result = std::to_chars(buffer, buffer + sizeof buffer, v.get<double>());
            return std::string(buffer, result.ptr);
        }
        default:
            return std::nullopt;
    }
}

const Value& requireNumeric(const Value& v, std::string_view name) {
    if (!isMissing(v) && (v.is_null() || v.is_object() || v.is_array())) {
        wrongMember(name, "a number or a string", v);
    }
    return v;
}

const Value& requireText(const Value& v, std::string_view name) {
    if (!isMissing(v) && !v.is_string()) {
        wrongMember(name, "a string", v);
    }
    return v;
}

bool equalAsString(const Value& a, const Value& b) {
    const auto ta = textualForm(a);
    const auto tb = textualForm(b);
    return ta && tb && *ta == *tb;
}

}  // namespace sorvan::json

#include "foundation/json_access.hpp"

#include "foundation/json_coerce.hpp"

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
    coerce::wrongKind(expected, kindName(found));
}

[[noreturn]] void wrongMember(std::string_view name, std::string_view expected,
                              const Value& found) {
    coerce::wrongKind(expected, kindName(found), name);
}

// A null the answer holds is an object that has no number to give; only an absent member
// reads as 0.
void requireNumberSource(const Value& v) {
    if (v.is_null() && !isMissing(v)) {
        wrongKind("a number", v);
    }
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
            return coerce::saturatingTruncate(v.get<double>());
        case Value::value_t::boolean:
            return v.get<bool>() ? 1 : 0;
        case Value::value_t::string:
            return coerce::integerFromText(v.get_ref<const std::string&>());
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
            return coerce::doubleFromText(v.get_ref<const std::string&>());
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

// Reading service answers the way the original did: nlohmann values with coercing accessors.
// Private to the SDK and the embedded service (it exposes nlohmann). Thread-safe (pure).
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace sorvan::json {

using Value = nlohmann::json;

/// Raised when a walk reads a structure of the wrong kind; reason() names what was found.
class StructureError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    std::string reason() const { return what(); }
};

struct ParseResult {
    std::optional<Value> value;
    std::string errorDescription;  // set when value is empty
};

/// Parses a body. Never throws.
ParseResult parse(std::string_view bytes);

/// obj[key]; a missing key gives a null value. Throws StructureError when obj is not an
/// object (null included).
const Value& member(const Value& obj, std::string_view key);
/// arr[index]; throws StructureError when arr is not an array or index is out of range.
const Value& element(const Value& arr, std::size_t index);
/// The elements of an array (null gives none); throws StructureError for other kinds.
const Value::array_t& arrayItems(const Value& arr);
/// A string; null gives nullopt; throws StructureError for other kinds.
std::optional<std::string> stringValue(const Value& v);

/// Numbers truncate toward zero; strings: leading white space, optional sign (white space may
/// follow), leading digits, saturating; booleans 0/1; anything else 0.
std::int64_t integerValue(const Value& v);
/// Numbers as they are; strings: the longest leading decimal prefix of "+-.0-9Ee" in the C
/// locale; booleans 0/1; anything else 0.
double doubleValue(const Value& v);
/// The textual form of a string or number ("12" equals 12); other kinds never equal.
bool equalAsString(const Value& a, const Value& b);

}  // namespace sorvan::json

// Reading service answers: nlohmann values with coercing accessors, so that every service
// reads numbers, strings and absent members by the same rules.
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

/// Parses a body. Never throws. The top level must be an object or an array; anything else
/// (a bare number or string, empty or malformed text) fails with a description starting
/// "The data couldn't be read because it isn't in the correct format."
/// So does a document nested deeper than 256 levels, so that no walk, dump or copy of a parsed
/// value can run out of stack.
ParseResult parse(std::string_view bytes);

/// The value a missing member reads as: a null that behaves like nothing at all. Reading a
/// member or an element of it gives it again instead of throwing, and it has no array items,
/// so a walk over an absent branch quietly reads zeros and empties.
/// A JSON null in the document is a different thing: reading into it throws.
const Value& missing();
/// Whether v is the missing value (not merely a JSON null).
bool isMissing(const Value& v);

/// obj[key]; a missing key gives missing(). Throws StructureError when obj is not an
/// object (a JSON null included); missing() gives missing().
const Value& member(const Value& obj, std::string_view key);
/// arr[index]; throws StructureError when arr is not an array (a JSON null included) or
/// index is out of range; missing() gives missing().
const Value& element(const Value& arr, std::size_t index);
/// The elements of an array; missing() gives none; throws StructureError for other kinds,
/// a JSON null included.
const Value::array_t& arrayItems(const Value& arr);
/// A string; missing() gives nullopt; throws StructureError for other kinds, a JSON null
/// included.
std::optional<std::string> stringValue(const Value& v);

/// Checks a member the walk reads as a number (integerValue, doubleValue): numbers, strings
/// and booleans pass and missing() reads as zero; a JSON null, an object or an array throws
/// StructureError, whose reason starts with name when one is given ("lat: expected ...").
/// Returns v.
const Value& requireNumeric(const Value& v, std::string_view name = {});
/// Checks a member the walk reads as text: a string or missing() passes; anything else, a
/// JSON null included, throws StructureError (reason as above). Returns v.
const Value& requireText(const Value& v, std::string_view name = {});

/// Numbers truncate toward zero; strings: leading white space, optional sign (white space may
/// follow), leading digits, saturating; booleans 0/1; missing() 0; throws StructureError for
/// a JSON null; anything else 0.
std::int64_t integerValue(const Value& v);
/// Numbers as they are; strings: the longest leading decimal prefix of "+-.0-9Ee" in the C
/// locale; booleans 0/1; missing() 0; throws StructureError for a JSON null; anything else 0.
double doubleValue(const Value& v);
/// The text of a string, or the textual form of a number or boolean (below); nullopt for
/// other kinds.
std::optional<std::string> textualForm(const Value& v);
/// The textual form of a string or number ("12" equals 12); other kinds never equal.
/// Doubles print in their shortest round-trip form, integral ones without ".0" (12.0 equals
/// "12"); booleans are the numbers 1 and 0, as decoded answers have always held them.
bool equalAsString(const Value& a, const Value& b);

}  // namespace sorvan::json

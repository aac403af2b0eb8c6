// The coercions every reader of service answers shares, whatever holds the answer: how a
// string, a double or a kind that does not fit reads. Internal to the JSON readers. Pure.
#pragma once

#include <cstdint>
#include <string_view>

namespace sorvan::json::coerce {

/// Leading white space, an optional sign (white space may follow), leading digits; saturating.
std::int64_t integerFromText(std::string_view s);
/// The longest leading decimal prefix of "+-.0-9Ee" after white space, in the C locale.
double doubleFromText(std::string_view s);
/// Toward zero, saturating; NaN reads as 0.
std::int64_t saturatingTruncate(double d);
/// strtod in the C locale over text that is a JSON number.
double parseNumberText(std::string_view s);

/// Raises StructureError: "expected <expected>, found <found>", with "<name>: " before it when
/// a name is given.
[[noreturn]] void wrongKind(std::string_view expected, std::string_view found,
                            std::string_view name = {});

}  // namespace sorvan::json::coerce

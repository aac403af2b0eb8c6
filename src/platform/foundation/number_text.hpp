// Whole-text numbers: command arguments, query parameters, table fields. One rule for all of
// them, so "12abc", " 12", "0x1A", "inf" and "1e999" are refused the same way everywhere.
// Service answers are read with the coercing accessors of json_access.hpp instead: those take
// a leading prefix on purpose. Pure and thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace sorvan::text {

/// A decimal number that is the whole text: an optional sign ('+' or '-'), digits with an
/// optional fraction and exponent, in the C locale whatever the process locale is. No white
/// space, no hexadecimal, no "inf" or "nan"; a value beyond a double's range is refused
/// (nullopt), so the result is always finite.
std::optional<double> parseDouble(std::string_view text);

/// A decimal integer that is the whole text: an optional sign, then digits only. nullopt for
/// anything else and for a value outside [min, max].
std::optional<std::int64_t> parseInteger(std::string_view text, std::int64_t min = INT64_MIN,
                                         std::int64_t max = INT64_MAX);

}  // namespace sorvan::text

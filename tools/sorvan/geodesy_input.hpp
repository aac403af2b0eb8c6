// Strict reading of the coordinates and UTM texts given to `sorvan utm` and `sorvan area`. The
// kit's own parser is lenient (a malformed number reads as 0); the tool rejects such input with
// a message instead of printing a plausible wrong answer.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::cli {

/// "LAT,LON" with optional white space around each number; both finite and on the globe.
/// On failure returns nothing and sets error.
std::optional<map::Coordinate> parseCoordinate(std::string_view text, std::string& error);

/// Checks "<zone><band>, <easting>, <northing>" (zone 1 to 61, an upper-case band letter,
/// finite numbers), white space allowed around the parts. Sets compact to the text without white
/// space, ready for the kit's parser (reusing its storage), or returns false with error set.
bool checkUTM(std::string_view text, std::string& compact, std::string& error);

/// The positional arguments, with an argument that ends in "," joined to the next one, so that
/// an unquoted `47P, 662367, 1521281` or `13.75, 100.5` is one input.
std::vector<std::string> joinCommaSplitArguments(const std::vector<std::string>& args);

}  // namespace sorvan::cli

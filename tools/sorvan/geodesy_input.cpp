#include "geodesy_input.hpp"

#include <charconv>
#include <cmath>

namespace sorvan::cli {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) {
        s.remove_prefix(1);
    }
    while (!s.empty() && isBlank(s.back())) {
        s.remove_suffix(1);
    }
    return s;
}

// The whole field must be one finite decimal number.
std::optional<double> parseNumber(std::string_view s) {
    s = trim(s);
    if (!s.empty() && s.front() == '+') {
        s.remove_prefix(1);
        if (!s.empty() && s.front() == '-') {
            return std::nullopt;
        }
    }
    double value = 0;
    const auto [end, ec] =
        std::from_chars(s.data(), s.data() + s.size(), value, std::chars_format::general);
    if (s.empty() || ec != std::errc{} || end != s.data() + s.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::string quoted(std::string_view s) {
    return "'" + std::string(s) + "'";
}

}  // namespace

std::optional<map::Coordinate> parseCoordinate(std::string_view text, std::string& error) {
    const std::size_t comma = text.find(',');
    if (comma == std::string_view::npos || text.find(',', comma + 1) != std::string_view::npos) {
        error = "expected LAT,LON, got " + quoted(text);
        return std::nullopt;
    }
    const auto latitude = parseNumber(text.substr(0, comma));
    const auto longitude = parseNumber(text.substr(comma + 1));
    if (!latitude || !longitude) {
        error = "expected LAT,LON in decimal degrees, got " + quoted(text);
        return std::nullopt;
    }
    if (*latitude < -90 || *latitude > 90) {
        error = "latitude out of range [-90, 90] in " + quoted(text);
        return std::nullopt;
    }
    if (*longitude < -180 || *longitude > 180) {
        error = "longitude out of range [-180, 180] in " + quoted(text);
        return std::nullopt;
    }
    return map::Coordinate{*latitude, *longitude};
}

bool checkUTM(std::string_view text, std::string& compact, std::string& error) {
    compact.clear();
    for (char c : text) {
        if (!isBlank(c)) {
            compact.push_back(c);
        }
    }
    const std::size_t first = compact.find(',');
    const std::size_t second =
        first == std::string::npos ? std::string::npos : compact.find(',', first + 1);
    if (second == std::string::npos || compact.find(',', second + 1) != std::string::npos) {
        error = "expected ZONE+BAND, EASTING, NORTHING, got " + quoted(text);
        return false;
    }
    const std::string_view zoneAndBand = std::string_view(compact).substr(0, first);
    std::size_t digits = 0;
    while (digits < zoneAndBand.size() && zoneAndBand[digits] >= '0' &&
           zoneAndBand[digits] <= '9') {
        ++digits;
    }
    int zone = 0;
    std::from_chars(zoneAndBand.data(), zoneAndBand.data() + digits, zone);
    if (digits == 0 || digits > 2 || zone < 1 || zone > 61) {
        error = "expected a zone from 1 to 61 before the band in " + quoted(text);
        return false;
    }
    const std::string_view band = zoneAndBand.substr(digits);
    if (band.size() != 1 ||
        std::string_view("ABCDEFGHJKLMNPQRSTUVWXYZ").find(band[0]) == std::string_view::npos) {
        error = "expected one upper-case band letter (A-Z without I and O) after the zone in " +
                quoted(text);
        return false;
    }
    const std::string_view rest = std::string_view(compact).substr(first + 1);
    const std::size_t comma = rest.find(',');
    if (!parseNumber(rest.substr(0, comma)) || !parseNumber(rest.substr(comma + 1))) {
        error = "expected easting and northing in metres in " + quoted(text);
        return false;
    }
    return true;
}

std::vector<std::string> joinCommaSplitArguments(const std::vector<std::string>& args) {
    std::vector<std::string> inputs;
    bool continues = false;
    for (const std::string& arg : args) {
        if (continues) {
            inputs.back() += " " + arg;
        } else {
            inputs.push_back(arg);
        }
        const std::string_view trimmed = trim(inputs.back());
        continues = !trimmed.empty() && trimmed.back() == ',';
    }
    return inputs;
}

}  // namespace sorvan::cli

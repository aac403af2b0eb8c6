// UTM text both ways. Every expression below is written in the order the results were first
// published with: changing the grouping of a product or sum moves the last bits, and those move
// the six-decimal cut of the latitude and the rounding of a metre that sits on a half.
#include <locale.h>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "SorvanMapSDK/SMGeodesy.hpp"
#include "geodesy/utm_series.hpp"

namespace sorvan::geodesy {

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kRadiansPerDegree = 0.017453292519943295;  // a divisor, as published
constexpr double kA = 6378137.0;
constexpr double kE = 0.08181919083755415;
constexpr double kEp2 = 0.006739496741436008;  // second eccentricity squared
constexpr double kOneMinusE2 = 0.9933056200106879;
constexpr double kK0 = 0.9996;
constexpr double kFalseEasting = 500000.0;
constexpr double kFalseNorthing = 10000000.0;

constexpr char kBandLetters[] = "ABCDEFGHJKLMNPQRSTUVWXYZ";
constexpr std::string_view kSouthernBands = "ACDEFGHJKLM";

// Out-of-range doubles convert to the nearest limit and NaN to 0, as the hardware the results
// were first computed on does; a plain cast would be undefined.
std::int32_t saturatingInt32(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    if (value <= static_cast<double>(std::numeric_limits<std::int32_t>::min())) {
        return std::numeric_limits<std::int32_t>::min();
    }
    if (value >= static_cast<double>(std::numeric_limits<std::int32_t>::max())) {
        return std::numeric_limits<std::int32_t>::max();
    }
    return static_cast<std::int32_t>(value);
}

char bandLetter(double latitude) {
    // Strict comparisons on purpose: exactly 72 and exactly 84 fall through to "A".
    std::size_t index = 0;
    if (-80 < latitude && latitude < 72) {
        index = static_cast<std::size_t>(std::floor((latitude + 80) * 0.125)) + 2;
    } else if (72 < latitude && latitude < 84) {
        index = 21;
    } else if (latitude > 84) {
        index = 23;
    }
    return kBandLetters[index];
}

// ---- Reading the text ----------------------------------------------------------------------

// The text is measured in UTF-16 units, as the platform the format comes from measured it: "the
// second character" of "ก7M, ..." is the 7.
struct CodePoint {
    char32_t value = 0;
    std::size_t bytes = 1;
    int units = 1;  // UTF-16 units: 2 for a code point outside the basic plane
    bool valid = false;
};

CodePoint decodeUtf8(std::string_view s, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned char lead = byte(at);
    if (lead < 0x80) {
        return {lead, 1, 1, true};
    }
    std::size_t length = 0;
    char32_t value = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2;
        value = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3;
        value = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4;
        value = lead & 0x07;
    } else {
        return {};  // a stray byte counts as one unit that is nothing in particular
    }
    if (at + length > s.size()) {
        return {};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) {
            return {};
        }
        value = (value << 6) | (byte(at + i) & 0x3F);
    }
    return {value, length, value > 0xFFFF ? 2 : 1, true};
}

// The decimal digits of the basic plane (Unicode category Nd): ten in a row from each start.
bool isDecimalDigit(char32_t c) {
    static constexpr std::array<char32_t, 37> kDigitBlocks = {
        0x0030, 0x0660, 0x06F0, 0x07C0, 0x0966, 0x09E6, 0x0A66, 0x0AE6, 0x0B66, 0x0BE6,
        0x0C66, 0x0CE6, 0x0D66, 0x0DE6, 0x0E50, 0x0ED0, 0x0F20, 0x1040, 0x1090, 0x17E0,
        0x1810, 0x1946, 0x19D0, 0x1A80, 0x1A90, 0x1B50, 0x1BB0, 0x1C40, 0x1C50, 0xA620,
        0xA8D0, 0xA900, 0xA9D0, 0xA9F0, 0xAA50, 0xABF0, 0xFF10};
    for (char32_t start : kDigitBlocks) {
        if (c >= start && c < start + 10) {
            return true;
        }
    }
    return false;
}

bool isAsciiSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool isAsciiDigit(char c) {
    return c >= '0' && c <= '9';
}

// An integer value: leading white space, an optional sign, then the ASCII digits that follow.
// The zone is at most two characters, so it cannot overflow.
std::int64_t integerValue(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size() && isAsciiSpace(s[i])) {
        ++i;
    }
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
        negative = s[i] == '-';
        ++i;
    }
    std::int64_t value = 0;
    for (; i < s.size() && isAsciiDigit(s[i]); ++i) {
        value = value * 10 + (s[i] - '0');
    }
    return negative ? -value : value;
}

// Decimals of at most 15 digits without an exponent, the form of every text UTMFrom writes, are
// read exactly by one division of two exactly representable numbers, which rounds correctly, as
// the general reader does. Returns false for anything else.
bool plainDecimal(const char* p, const char* last, double& out) {
    static constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                              1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    bool negative = false;
    if (p != last && (*p == '-' || *p == '+')) {
        negative = *p == '-';
        ++p;
    }
    std::uint64_t mantissa = 0;
    int digits = 0;
    int fractionDigits = -1;  // -1 until the decimal point
    for (; p != last; ++p) {
        if (isAsciiDigit(*p)) {
            if (++digits > 15) {
                return false;
            }
            mantissa = mantissa * 10 + static_cast<std::uint64_t>(*p - '0');
            if (fractionDigits >= 0) {
                ++fractionDigits;
            }
        } else if (*p == '.' && fractionDigits < 0) {
            fractionDigits = 0;
        } else {
            break;
        }
    }
    if (digits == 0 || (p != last && (*p == 'e' || *p == 'E'))) {
        return false;
    }
    const double value =
        static_cast<double>(mantissa) / kPowersOfTen[fractionDigits < 0 ? 0 : fractionDigits];
    out = negative ? -value : value;
    return true;
}

// A double value: leading white space, then the longest number at the start, read in the C
// locale whatever the process's locale; no number gives 0, and neither do "inf", "nan" or hex.
double doubleValue(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size() && isAsciiSpace(s[i])) {
        ++i;
    }
    double value = 0.0;
    if (plainDecimal(s.data() + i, s.data() + s.size(), value)) {
        return value;
    }
    std::size_t end = i;
    while (end < s.size() && (isAsciiDigit(s[end]) || s[end] == '+' || s[end] == '-' ||
                              s[end] == '.' || s[end] == 'e' || s[end] == 'E')) {
        ++end;
    }
    const char* first = s.data() + i;
    const char* last = s.data() + end;
    if (first != last && *first == '+') {
        ++first;  // from_chars takes no plus sign; a second sign after it stays an error
        if (first != last && (*first == '+' || *first == '-')) {
            return 0.0;
        }
    }
    const std::errc ec = std::from_chars(first, last, value, std::chars_format::general).ec;
    if (ec == std::errc::result_out_of_range) {
        // Beyond the range of a double: the C library gives the infinities and the underflows
        // that the platform gave. Rare enough to pay for a copy.
        static locale_t cLocale = newlocale(LC_ALL_MASK, "C", locale_t{});
        const std::string copy(first, last);
        return strtod_l(copy.c_str(), nullptr, cLocale);
    }
    return ec == std::errc{} ? value : 0.0;
}

[[noreturn]] void throwInvalidFormat() {
    throw std::invalid_argument(std::string(kInvalidUTMFormat));
}

struct ZoneAndBand {
    std::int64_t zone = 0;
    std::string_view band;
    bool bandSplitsACharacter = false;  // such a band never names a southern band
};

// Splits the first part after `units` UTF-16 units: the zone before, the band after.
ZoneAndBand splitZone(std::string_view first, int units) {
    std::size_t zoneBytes = 0;
    std::size_t bandStart = 0;
    bool split = false;
    for (int taken = 0; taken < units;) {
        if (bandStart >= first.size()) {
            // Fewer characters than the zone needs: the platform raised a range error here,
            // which is a malformed text all the same.
            throwInvalidFormat();
        }
        const CodePoint cp = decodeUtf8(first, bandStart);
        bandStart += cp.bytes;
        if (taken + cp.units > units) {
            // The zone ends between the halves of a pair. A half is no digit, so it adds
            // nothing to the zone, and the band that starts with the other half is no letter.
            split = true;
            break;
        }
        taken += cp.units;
        zoneBytes = bandStart;
    }
    return {integerValue(first.substr(0, zoneBytes)), first.substr(bandStart), split};
}

// Whether the UTF-16 unit at index 1 of s is a decimal digit.
bool secondUnitIsDigit(std::string_view s) {
    if (s.size() >= 2 && static_cast<unsigned char>(s[0]) < 0x80) {
        const unsigned char second = static_cast<unsigned char>(s[1]);
        if (second < 0x80) {
            return isAsciiDigit(static_cast<char>(second));
        }
        const CodePoint cp = decodeUtf8(s, 1);
        return cp.valid && cp.units == 1 && isDecimalDigit(cp.value);
    }
    const CodePoint lead = decodeUtf8(s, 0);
    if (lead.units == 2 || lead.bytes >= s.size()) {
        return false;  // index 1 is the second half of a pair, or nothing
    }
    const CodePoint cp = decodeUtf8(s, lead.bytes);
    return cp.valid && cp.units == 1 && isDecimalDigit(cp.value);
}

struct Fields {
    std::int64_t zone = 0;
    bool southern = false;
    double easting = 0, northing = 0;
};

// Up to 15 digits after an optional minus sign, exact as a double.
bool readWholeNumber(const char*& p, const char* end, double& out) {
    const bool negative = p != end && *p == '-';
    if (negative) {
        ++p;
    }
    const char* const start = p;
    std::uint64_t value = 0;
    for (; p != end && isAsciiDigit(*p); ++p) {
        if (p - start == 15) {
            return false;
        }
        value = value * 10 + static_cast<std::uint64_t>(*p - '0');
    }
    if (p == start) {
        return false;
    }
    out = negative ? -static_cast<double>(value) : static_cast<double>(value);
    return true;
}

bool readSeparator(const char*& p, const char* end) {
    if (end - p < 2 || p[0] != ',' || p[1] != ' ') {
        return false;
    }
    p += 2;
    return true;
}

// The exact form UTMFrom writes ("47P, 662367, 1521281"), read in place. Every other text takes
// the general path, which reads this form to the same fields.
bool readCanonical(std::string_view text, Fields& fields) {
    const char* p = text.data();
    const char* const end = p + text.size();
    if (end - p < 2 || !isAsciiDigit(p[0])) {
        return false;
    }
    std::int64_t zone = *p++ - '0';
    if (isAsciiDigit(*p)) {
        zone = zone * 10 + (*p++ - '0');
    }
    if (p == end || !((*p >= 'A' && *p <= 'Z') || (*p >= 'a' && *p <= 'z'))) {
        return false;
    }
    const char band = *p++;
    if (!readSeparator(p, end) || !readWholeNumber(p, end, fields.easting) ||
        !readSeparator(p, end) || !readWholeNumber(p, end, fields.northing) || p != end) {
        return false;
    }
    fields.zone = zone;
    fields.southern = kSouthernBands.find(band) != std::string_view::npos;
    return true;
}

// Any text: spaces dropped, split at commas, the zone's length from the second character.
Fields readGeneral(std::string_view text) {
    // Texts of a sensible length fit on the stack.
    std::array<char, 128> small;
    std::string large;
    char* compact = small.data();
    if (text.size() > small.size()) {
        large.resize(text.size());
        compact = large.data();
    }
    std::size_t length = 0;
    std::array<std::size_t, 2> commas{};
    std::size_t commaCount = 0;
    for (char c : text) {
        if (c == ' ') {
            continue;
        }
        if (c == ',') {
            if (commaCount == 2) {
                throwInvalidFormat();
            }
            commas[commaCount++] = length;
        }
        compact[length++] = c;
    }
    if (commaCount != 2) {
        throwInvalidFormat();
    }
    const std::string_view s(compact, length);
    const std::string_view zonePart = s.substr(0, commas[0]);
    const std::string_view eastingPart = s.substr(commas[0] + 1, commas[1] - commas[0] - 1);
    const std::string_view northingPart = s.substr(commas[1] + 1);

    // The zone takes two characters when the whole text's second character is a digit.
    const ZoneAndBand zb = splitZone(zonePart, secondUnitIsDigit(s) ? 2 : 1);
    Fields fields;
    fields.zone = zb.zone;
    fields.southern = !zb.bandSplitsACharacter && !zb.band.empty() &&
                      kSouthernBands.find(zb.band) != std::string_view::npos;
    fields.easting = doubleValue(eastingPart);
    fields.northing = doubleValue(northingPart);
    return fields;
}

}  // namespace

// ---- The series ----------------------------------------------------------------------------

namespace series {

Projected forward(double latitudeDegrees, double longitudeDegrees) {
    const std::int32_t zoneIndex = saturatingInt32(std::floor((longitudeDegrees + 180) / 6));
    const double centralMeridian = static_cast<double>(std::int64_t{zoneIndex} * 6 + 3 - 180);

    const double phi = latitudeDegrees * kPi / 180;
    const double sinPhi = std::sin(phi);
    const double cosPhi = std::cos(phi);
    const double tanPhi = std::tan(phi);
    const double eSinPhi = kE * sinPhi;
    const double N = kA / std::sqrt(1 - eSinPhi * eSinPhi);
    const double T = tanPhi * tanPhi;
    const double C = kEp2 * cosPhi * cosPhi;
    const double A = cosPhi * (longitudeDegrees - centralMeridian) * kPi / 180;
    const double M = kA * (0.9983242984530031 * phi + 0.0025146070602067045 * std::sin(-2 * phi) +
                           2.6390465936822075e-6 * std::sin(4 * phi) -
                           3.4180460853256395e-9 * std::sin(6 * phi));

    Projected out;
    out.zone = std::int64_t{zoneIndex} + 1;
    out.easting =
        kK0 * N *
            (A + (1 - T + C) * A * A * A / 6 +
             (5 - 18 * T + T * T + 72 * C - 0.3908908110032885) * A * A * A * A * A / 120) +
        kFalseEasting;
    out.northing = kK0 * (M + N * tanPhi *
                                  (A * A / 2 + (5 - T + 9 * C + 4 * C * C) * A * A * A * A / 24 +
                                   (61 - 58 * T + T * T + 600 * C - 2.2240339246738827) * A * A *
                                       A * A * A * A / 720));
    if (out.northing < 0) {
        out.northing += kFalseNorthing;
    }
    return out;
}

Geographic inverse(std::int64_t zone, bool southern, double easting, double northing) {
    const double centralMeridian = static_cast<double>(zone * 6 - 183);
    const double x = easting - kFalseEasting;
    const double y = southern ? northing - kFalseNorthing : northing;

    const double mu = y / 0.9996 / 6367449.145962141;
    const double phi1 = mu + 0.0025188265840776275 * std::sin(2 * mu) +
                        3.7009490347005646e-6 * std::sin(4 * mu) +
                        (std::sin(6 * mu) * 151 / 96 +
                         std::sin(8 * mu) * 0.0016792203861749964 * 1097 * 0.001953125) *
                            4.7350339166475714e-9;

    const double s1 = std::sin(phi1);
    const double c1 = std::cos(phi1);
    const double tan1 = std::tan(phi1);
    const double C1 = kEp2 * c1 * c1;
    const double T1 = tan1 * tan1;
    const double eS1 = kE * s1;
    const double W = 1 - eS1 * eS1;
    const double N1 = kA / std::sqrt(W);
    const double R1 = N1 * kOneMinusE2 / W;
    const double D = x / (N1 * 0.9996);

    Geographic out;
    out.latitudeRadians =
        phi1 -
        (N1 * tan1 / R1) *
            (D * D / 2 -
             (5 + 3 * T1 + 10 * C1 - 4 * C1 * C1 - 0.060655470672924074) * D * D * D * D / 24 +
             (61 + 90 * T1 + 298 * C1 + 45 * T1 * T1 - 1.698353178841874 - 3 * C1 * C1) * D * D *
                 D * D * D * D / 720);
    out.longitudeDegrees =
        centralMeridian +
        (D - (1 + 2 * T1 + C1) * D * D * D / 6 +
         (5 - 2 * C1 + 28 * T1 - 3 * C1 * C1 + 0.053915973931488066 + 24 * T1 * T1) * D * D * D *
             D * D / 120) /
            c1 / kRadiansPerDegree;
    return out;
}

double truncatedLatitudeDegrees(double latitudeRadians) {
    return std::floor(latitudeRadians * 1000000 / kRadiansPerDegree) / 1000000;
}

}  // namespace series

// ---- Public functions ----------------------------------------------------------------------

UTMPosition utmPositionFrom(map::Coordinate coordinate, bool withZone) {
    const series::Projected p = series::forward(coordinate.latitude, coordinate.longitude);
    UTMPosition position;
    position.zone = p.zone;
    position.easting = saturatingInt32(std::round(p.easting));
    position.northing = saturatingInt32(std::round(p.northing));
    if (withZone) {
        position.letter = bandLetter(coordinate.latitude);
    } else {
        position.letter = coordinate.latitude >= 0 ? 'N' : 'S';
    }
    return position;
}

std::size_t formatUTM(const UTMPosition& position, char* out) {
    char* const begin = out;
    char* const end = out + kMaxUTMTextLength;
    out = std::to_chars(out, end, position.zone).ptr;
    *out++ = position.letter;
    *out++ = ',';
    *out++ = ' ';
    out = std::to_chars(out, end, position.easting).ptr;
    *out++ = ',';
    *out++ = ' ';
    out = std::to_chars(out, end, position.northing).ptr;
    return static_cast<std::size_t>(out - begin);
}

std::string UTMFrom(map::Coordinate coordinate, bool withZone) {
    char buffer[kMaxUTMTextLength];
    const std::size_t length = formatUTM(utmPositionFrom(coordinate, withZone), buffer);
    return std::string(buffer, length);
}

map::Coordinate coordinateFromUTM(std::string_view text) {
    Fields fields;
    if (!readCanonical(text, fields)) {
        fields = readGeneral(text);
    }
    const series::Geographic g =
        series::inverse(fields.zone, fields.southern, fields.easting, fields.northing);
    return {series::truncatedLatitudeDegrees(g.latitudeRadians), g.longitudeDegrees};
}

}  // namespace sorvan::geodesy

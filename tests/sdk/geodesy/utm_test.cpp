#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

#include "SorvanMapSDK/SMGeodesy.hpp"
#include "geodesy/utm_series.hpp"

namespace sorvan::geodesy {
namespace {

constexpr const char* kBands = "ABCDEFGHJKLMNPQRSTUVWXYZ";

std::string formatMessage() {
    return std::string(kInvalidUTMFormat);
}

// Metres between two nearby coordinates, enough for round-trip tolerances.
double metresBetween(map::Coordinate a, map::Coordinate b) {
    const double perDegree = 111320.0;
    const double dy = (a.latitude - b.latitude) * perDegree;
    const double dx = (a.longitude - b.longitude) * perDegree * std::cos(a.latitude * M_PI / 180);
    return std::hypot(dx, dy);
}

bool isCutToSixDecimals(double latitude) {
    const double scaled = latitude * 1e6;
    return std::abs(scaled - std::round(scaled)) < 1e-6;
}

TEST(UTMFrom, WritesBandOrHemisphere) {
    EXPECT_EQ(UTMFrom({13.7563, 100.5018}, true), "47P, 662367, 1521281");
    EXPECT_EQ(UTMFrom({13.7563, 100.5018}, false), "47N, 662367, 1521281");
    // Just south of the equator the northing wraps below the false northing.
    EXPECT_EQ(UTMFrom({-0.0001, 100.5018}, false), "47S, 667132, 9999989");
    EXPECT_EQ(UTMFrom({-0.0001, 100.5018}, true), "47M, 667132, 9999989");
    // On the central meridian the easting is exactly the false easting.
    EXPECT_EQ(UTMFrom({0.0, 99.0}, true), "47N, 500000, 0");
    EXPECT_EQ(UTMFrom({-0.0, 99.0}, false), "47N, 500000, 0");
}

TEST(UTMFrom, BandBoundariesAreStrict) {
    const auto letter = [](double latitude) {
        return utmPositionFrom({latitude, 100.0}, true).letter;
    };
    for (auto [latitude, band] : {std::pair{72.0, 'A'},
                                  {72.5, 'X'},
                                  {84.5, 'Z'},
                                  {84.0, 'A'},
                                  {-80.0, 'A'},
                                  {-79.9, 'C'},
                                  {71.9, 'W'},
                                  {-90.0, 'A'},
                                  {90.0, 'Z'},
                                  {1e9, 'Z'},
                                  {std::nan(""), 'A'}}) {
        EXPECT_EQ(letter(latitude), band) << latitude;
    }
    // Every eight-degree band below 72, from C, and each band starts at its lower edge.
    for (int band = 0; band < 19; ++band) {
        const double lower = -80.0 + 8 * band;
        EXPECT_EQ(letter(lower + 4), kBands[band + 2]) << lower;
        if (band > 0) {
            EXPECT_EQ(letter(lower), kBands[band + 2]) << lower;
        }
    }
    EXPECT_EQ(utmPositionFrom({-1e-300, 100.0}, false).letter, 'S');
    EXPECT_EQ(utmPositionFrom({std::nan(""), 100.0}, false).letter, 'S');
}

TEST(UTMFrom, ZonesAreNotClamped) {
    for (auto [longitude, zone] : {std::pair{180.0, 61},
                                   {-180.0, 1},
                                   {179.999, 60},
                                   {-174.0, 2},
                                   {-174.000001, 1},
                                   {186.0, 62},
                                   {-186.0, 0}}) {
        EXPECT_EQ(utmPositionFrom({0.0, longitude}, true).zone, zone) << longitude;
    }
    EXPECT_EQ(UTMFrom({0.0, 183.0}, true), "61N, 500000, 0");
    EXPECT_EQ(UTMFrom({0.0, -177.0}, true), "1N, 500000, 0");
}

TEST(UTMFrom, AcceptsAnyCoordinate) {
    const double inf = std::numeric_limits<double>::infinity();
    for (double v : {1e300, -1e300, inf, -inf, std::nan(""), 1e10, -1e10}) {
        for (map::Coordinate c :
             {map::Coordinate{v, 100.0}, map::Coordinate{10.0, v}, map::Coordinate{v, v}}) {
            const std::string text = UTMFrom(c, true);
            EXPECT_FALSE(text.empty());
            EXPECT_LE(text.size(), kMaxUTMTextLength);
        }
    }
    // Far outside the zone the series runs away; the metres saturate rather than wrap.
    const UTMPosition p = utmPositionFrom({0.0, 1e12}, true);
    EXPECT_EQ(p.zone, 2147483648);
    EXPECT_EQ(p.easting, 2147483647);
    EXPECT_EQ(UTMFrom({std::nan(""), std::nan("")}, false), "1S, 0, 0");
}

TEST(CoordinateFromUTM, ReadsOneAndTwoDigitZones) {
    // On the false easting the longitude is the central meridian exactly.
    EXPECT_EQ(coordinateFromUTM("7P, 500000, 1000000").longitude, -141.0);
    EXPECT_EQ(coordinateFromUTM("47P, 500000, 1000000").longitude, 99.0);
    EXPECT_EQ(coordinateFromUTM("61N, 500000, 0").longitude, 183.0);
    EXPECT_EQ(coordinateFromUTM("47P, 500000, 1000000").latitude,
              coordinateFromUTM("7P, 500000, 1000000").latitude);
}

TEST(CoordinateFromUTM, SouthernBandsAreTheLettersAToM) {
    const auto latitude = [](const std::string& band) {
        return coordinateFromUTM("47" + band + ", 500000, 9000000").latitude;
    };
    const double north = latitude("N");
    EXPECT_GT(north, 80.0);
    for (std::string band : {"A", "C", "D", "H", "M", "CD", "ACDEFGHJKLM", "KLM"}) {
        EXPECT_NEAR(latitude(band), -9.04, 0.01) << band;
    }
    // "B", the hemisphere "S", lower case, an empty band and non-substrings are northern.
    for (std::string band : {"B", "S", "m", "c", "", "MN", "AB", "CE", "X", "Z"}) {
        EXPECT_EQ(latitude(band), north) << band;
    }
}

TEST(CoordinateFromUTM, SouthernRoundTripNeedsTheBand) {
    // Written with the hemisphere letter, "S" reads as band S, which is northern.
    const map::Coordinate sydney{-33.8688, 151.2093};
    const std::string withHemisphere = UTMFrom(sydney, false);
    EXPECT_EQ(withHemisphere.substr(0, 3), "56S");
    const map::Coordinate wrong = coordinateFromUTM(withHemisphere);
    EXPECT_GT(wrong.latitude, 50.0);
    EXPECT_NEAR(wrong.longitude, sydney.longitude, 1.0);

    // Exactly 72 degrees north falls back to band A, and A is read as southern.
    EXPECT_LT(coordinateFromUTM(UTMFrom({72.0, 10.0}, true)).latitude, 0.0);
}

TEST(CoordinateFromUTM, RoundTripsOverTheWorld) {
    for (double latitude = -79.75; latitude < 84; latitude += 3.25) {
        if (latitude > 71.5 && latitude < 72.5) {
            continue;
        }
        for (double longitude = -179.9; longitude < 180; longitude += 2.3) {
            const map::Coordinate c{latitude, longitude};
            const map::Coordinate back = coordinateFromUTM(UTMFrom(c, true));
            // Whole metres in the text, then the cut to six decimals of latitude.
            ASSERT_LT(metresBetween(back, c), 1.0) << latitude << "," << longitude;
            ASSERT_TRUE(isCutToSixDecimals(back.latitude)) << back.latitude;
        }
    }
}

TEST(CoordinateFromUTM, LatitudeIsCutDownNotRounded) {
    // Toward minus infinity: in the south the cut moves away from zero.
    for (double northing : {1106.2, 1521281.0, 5000000.5, 9000000.0}) {
        for (bool southern : {false, true}) {
            const std::string text =
                std::string(southern ? "47M, " : "47N, ") + "612345, " + std::to_string(northing);
            const double exact =
                series::inverse(47, southern, 612345, northing).latitudeRadians * 180 / M_PI;
            const double cut = coordinateFromUTM(text).latitude;
            EXPECT_TRUE(isCutToSixDecimals(cut)) << text;
            EXPECT_LE(cut, exact + 1e-12) << text;
            EXPECT_GT(cut, exact - 1e-6) << text;
        }
    }
}

TEST(CoordinateFromUTM, ThrowsForTextWithoutThreeCommaParts) {
    for (std::string text : {"", "47P 662367 1521281", "47P, 662367", "47P, 662367, 1521281, 5",
                             ",,,", "47P;662367;1521281", " , ", "\xE0\xB8\x81"}) {
        try {
            coordinateFromUTM(text);
            ADD_FAILURE() << "no exception for '" << text << "'";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(e.what(), formatMessage()) << text;
        }
    }
    // Three parts but no zone at all: the zone cannot be cut from an empty first part.
    for (std::string text : {",500000,0", ",,", " , 5 , 6"}) {
        EXPECT_THROW(coordinateFromUTM(text), std::invalid_argument) << text;
    }
}

TEST(CoordinateFromUTM, MalformedNumbersReadAsMuchAsIsANumber) {
    // A zone that is not a number is zone 0, whose central meridian is -183.
    EXPECT_EQ(coordinateFromUTM("QP, 500000, 0"), (map::Coordinate{0.0, -183.0}));
    EXPECT_EQ(coordinateFromUTM("47P, 5e5, 0"), (map::Coordinate{0.0, 99.0}));
    EXPECT_EQ(coordinateFromUTM("47P, 500000.0m, 0x1F"), (map::Coordinate{0.0, 99.0}));
    EXPECT_EQ(coordinateFromUTM("47P, +500000, +0"), (map::Coordinate{0.0, 99.0}));
    EXPECT_EQ(coordinateFromUTM("47P, 5E5e3, -0"), (map::Coordinate{0.0, 99.0}));
    EXPECT_EQ(coordinateFromUTM("+7P, 500000, 0").longitude, -141.0);
    EXPECT_EQ(coordinateFromUTM("-7P, 500000, 0").longitude, -225.0);
    EXPECT_EQ(coordinateFromUTM("\t7P, 500000, 0").longitude, -141.0);
    // Neither "inf", "nan", a doubled sign nor an empty part is a number: all read as 0.
    const map::Coordinate zero = coordinateFromUTM("47P, 0, 0");
    EXPECT_EQ(zero, coordinateFromUTM("47P, inf, nan"));
    EXPECT_EQ(zero, coordinateFromUTM("47P, +-3, ."));
    EXPECT_EQ(zero, coordinateFromUTM("47P,,"));
    // Out of range numbers give infinities or zero, and no crash.
    EXPECT_TRUE(std::isnan(coordinateFromUTM("47P, 500000, 1e999").latitude));
    EXPECT_EQ(coordinateFromUTM("47P, 500000, 1e-999"), (map::Coordinate{0.0, 99.0}));
}

TEST(CoordinateFromUTM, CountsCharactersNotBytes) {
    // "ก7M": the second character is the 7, so the zone is the two characters "ก7", which is
    // no number (zone 0), and the band is "M", southern.
    const map::Coordinate thai = coordinateFromUTM(
        "\xE0\xB8\x81"
        "7M, 500000, 1000000");
    EXPECT_EQ(thai.longitude, -183.0);
    EXPECT_LT(thai.latitude, 0.0);
    // A Thai digit in second place also makes the zone two characters long, but only the
    // ASCII digit counts in its value.
    const map::Coordinate thaiDigit = coordinateFromUTM("4\xE0\xB9\x97M, 500000, 1000000");
    EXPECT_EQ(thaiDigit.longitude, -159.0);
    EXPECT_LT(thaiDigit.latitude, 0.0);
    // A character outside the basic plane is two units: the one-character zone splits it, and
    // the band left over is no southern letter.
    const map::Coordinate emoji = coordinateFromUTM("\xF0\x9F\x98\x80M, 500000, 1000000");
    EXPECT_EQ(emoji.longitude, -183.0);
    EXPECT_GT(emoji.latitude, 0.0);
}

TEST(CoordinateFromUTM, EveryWritingOfATextReadsTheSame) {
    // The text exactly as written, with its spaces moved or dropped, with a decimal point:
    // one answer, also far outside the zones, where eastings turn negative.
    std::mt19937_64 random(11);
    std::uniform_real_distribution<double> latitude(-89.0, 89.0), longitude(-400.0, 400.0);
    for (int i = 0; i < 20000; ++i) {
        const std::string text = UTMFrom({latitude(random), longitude(random)}, i % 2 == 0);
        std::string compact, spaced;
        for (char c : text) {
            if (c != ' ') {
                compact.push_back(c);
                spaced += std::string(1, c) + " ";
            }
        }
        const map::Coordinate expected = coordinateFromUTM(text);
        ASSERT_EQ(coordinateFromUTM(compact), expected) << text;
        ASSERT_EQ(coordinateFromUTM(" " + spaced), expected) << text;
        ASSERT_EQ(coordinateFromUTM(text + ".0"), expected) << text;
    }
}

TEST(CoordinateFromUTM, ReadsDecimalsExactly) {
    // Every way of writing a number must read as the C library reads it, to the last bit.
    std::mt19937_64 random(7);
    for (int i = 0; i < 20000; ++i) {
        char easting[64], northing[64];
        const int decimals = static_cast<int>(random() % 12);
        const double e = 100000.0 + static_cast<double>(random() % 800000000) / 1000.0;
        const double n = static_cast<double>(random() % 9999999999) / 1000.0;
        std::snprintf(easting, sizeof easting, "%.*f", decimals, e);
        std::snprintf(northing, sizeof northing, i % 2 ? "%.*f" : "%.*e", decimals, n);
        const std::string text = std::string("47P, ") + easting + ", " + northing;
        const auto g = series::inverse(47, false, std::strtod(easting, nullptr),
                                       std::strtod(northing, nullptr));
        const map::Coordinate c = coordinateFromUTM(text);
        ASSERT_EQ(c.latitude, series::truncatedLatitudeDegrees(g.latitudeRadians)) << text;
        ASSERT_EQ(c.longitude, g.longitudeDegrees) << text;
    }
}

}  // namespace
}  // namespace sorvan::geodesy

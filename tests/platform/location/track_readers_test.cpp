#include "location/track_readers.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "location/source_locator.hpp"
#include "support/location_support.hpp"

namespace sorvan::location {
namespace {

using namespace std::chrono;

const sys_days kDay = sys_days(year(2024) / 5 / 1);

Timestamp at(int hour, int minute, double second, sys_days day = kDay) {
    return time_point_cast<Timestamp::duration>(day + hours(hour) + minutes(minute) +
                                                duration<double>(second));
}

struct Read {
    std::vector<TrackEvent> events;
    std::vector<std::string> problems;
    std::vector<Location> locations() const {
        std::vector<Location> out;
        for (const auto& e : events) {
            if (auto* l = std::get_if<Location>(&e.report)) {
                out.push_back(*l);
            }
        }
        return out;
    }
    std::vector<Heading> headings() const {
        std::vector<Heading> out;
        for (const auto& e : events) {
            if (auto* h = std::get_if<Heading>(&e.report)) {
                out.push_back(*h);
            }
        }
        return out;
    }
};

Read readNMEA(const std::string& text, sys_days day = kDay) {
    NmeaReader reader(day);
    Read r;
    std::istringstream in(text);
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (auto reason = reader.feed(line, r.events)) {
            r.problems.push_back(std::to_string(number) + ": " + *reason);
        }
    }
    reader.finish(r.events);
    return r;
}

TEST(NmeaReader, ReadsTheDriveFixtureEpochByEpoch) {
    std::ifstream in(test::locationFixture("drive.nmea"));
    std::stringstream text;
    text << in.rdbuf();
    Read r = readNMEA(text.str(), sys_days(year(1999) / 1 / 1));
    EXPECT_TRUE(r.problems.empty());
    std::vector<Location> l = r.locations();
    // 120 epochs, the first three without a fix; RMC and GGA of an epoch make one position.
    ASSERT_EQ(l.size(), 117u);
    EXPECT_NEAR(l[0].coordinate.latitude, 13 + 45.8940 / 60, 1e-9);
    EXPECT_NEAR(l[0].coordinate.longitude, 100 + 32.2980 / 60, 1e-9);
    EXPECT_EQ(l[0].timestamp, at(8, 18, 3));  // the RMC's date, not the reader's default
    EXPECT_EQ(l.back().timestamp, at(8, 19, 59));
    EXPECT_DOUBLE_EQ(l[0].horizontalAccuracy, 4.5);  // dilution 0.9 x 5
    EXPECT_DOUBLE_EQ(l[0].altitude, 4.3);
    EXPECT_DOUBLE_EQ(l[0].verticalAccuracy, 6.75);
    EXPECT_NEAR(l[0].speed, 12.0, 0.02);  // 23.3 knots
    EXPECT_DOUBLE_EQ(l[0].course, 180.0);
    EXPECT_DOUBLE_EQ(l.back().course, 90.0);

    // Each epoch's compass sentences, HDT then HDG, in order, at the epoch's time; the three
    // epochs without a fix still have their compass.
    std::vector<Heading> h = r.headings();
    ASSERT_EQ(h.size(), 240u);
    EXPECT_EQ(h[0].timestamp, at(8, 18, 0));
    EXPECT_DOUBLE_EQ(h[0].trueHeading, 180.0);  // HDT
    EXPECT_DOUBLE_EQ(h[0].headingAccuracy, kCompassAccuracy);
    // The RMC of the same epoch gave the declination, 0.8 degrees west: magnetic = true + 0.8.
    EXPECT_NEAR(h[0].magneticHeading, 180.8, 1e-9);
    // HDG: sensor 180.3 + deviation 0.5 E = magnetic 180.8; true = magnetic - 0.8.
    EXPECT_NEAR(h[1].magneticHeading, 180.8, 1e-9);
    EXPECT_NEAR(h[1].trueHeading, 180.0, 1e-9);
    EXPECT_NEAR(h.back().trueHeading, 90.0, 1e-9);
    EXPECT_EQ(r.events.front().recorded, at(8, 18, 0));
}

TEST(NmeaReader, SkipsCorruptTruncatedAndMisSummedSentencesAndKeepsTheRest) {
    Read r = readNMEA(
        "$GPRMC,081836,A,1345.378,N,10030.108,E,000.0,360.0,130998,011.3,E*7A\r\n"
        "$GPRMC,081837,A,1345.378,N,10030.108,E,000.0,360.0,130998,011.3,E*00\n"  // 2: sum
        "$GPRMC,081838,A,1345.378,N,10030.108,E,000.0,360.0,130998,011.3,E*7\n"   // 3: one digit
        "$GPRMC,081839,A,1345.37\n"                                               // 4: cut
        "$GPGGA,123519,3351.000,S,15112.000,E,1,08,0.9,545.4,M,46.9,M,,\n"        // fine
        "$GPGGA,123520,3399.000,S,15112.000,E,1,08,0.9,545.4,M,46.9,M,,\n"        // 6: 99'
        "$GPGGA,123521,3351.000,Q,15112.000,E,1,08,0.9,545.4,M,46.9,M,,\n"        // 7: Q
        "$GPGGA,1235,3351.000,S,15112.000,E,1,08,0.9,545.4,M,46.9,M,,\n"          // 8: time
        "$GPGGA,123522,3351.000,S,15112.000,E,0,08,0.9,545.4,M,46.9,M,,\n"        // no fix
        "$GPRMC,123523,V,,,,,,,,,,N\n"                                            // void
        "$HCHDT,abc,T\n"                                                          // 11
        "$HCHDT,12.5\n"                                                           // 12
        "$HCHDG,12.5,x,E,,\n"                                                     // 13
        "$GPGSV,3,1,12,01,05,060,18,02,17,259,43,04,56,287,28,09,08,277,28\n"     // not ours
        "garbage\n"                                                               // 15
        "\xff\xfe$GPRMC\n"                                                        // 16
        "\n"
        "$GPRMC,123524,A,1345.378,N,10030.108,E,,,\n");  // 18: cut
    EXPECT_EQ(
        r.problems,
        (std::vector<std::string>{
            "2: bad checksum", "3: bad checksum", "4: truncated RMC sentence",
            "6: bad position in GGA sentence", "7: bad position in GGA sentence",
            "8: bad time in GGA sentence", "11: bad heading in HDT sentence",
            "12: truncated HDT sentence", "13: bad deviation or variation in HDG sentence",
            "15: not an NMEA sentence", "16: not an NMEA sentence", "18: truncated RMC sentence"}));
    std::vector<Location> l = r.locations();
    ASSERT_EQ(l.size(), 2u);
    EXPECT_NEAR(l[0].coordinate.latitude, 13 + 45.378 / 60, 1e-9);
    EXPECT_DOUBLE_EQ(l[0].course, 0.0);  // 360 is north
    EXPECT_DOUBLE_EQ(l[0].speed, 0.0);
    EXPECT_EQ(l[0].timestamp, at(8, 18, 36, sys_days(year(1998) / 9 / 13)));
    EXPECT_NEAR(l[1].coordinate.latitude, -(33 + 51.0 / 60), 1e-9);
    EXPECT_DOUBLE_EQ(l[1].altitude, 545.4);
    // A GGA without an RMC before it that day takes the date the RMC left.
    EXPECT_EQ(l[1].timestamp, at(12, 35, 19, sys_days(year(1998) / 9 / 13)));
    // Standing still, the course says nothing: a heading from it is unreliable.
    ASSERT_EQ(r.headings().size(), 1u);
    EXPECT_LT(r.headings()[0].headingAccuracy, 0);
}

TEST(NmeaReader, GivesCourseHeadingsOnlyWhileNoCompassSpeaksAndRollsOverMidnight) {
    auto rmc = [](const char* time, double knots, double course, const char* date) {
        char body[160];
        std::snprintf(body, sizeof body, "GPRMC,%s,A,1345.000,N,10030.000,E,%.1f,%.1f,%s,,", time,
                      knots, course, date);
        return std::string("$") + body + "\n";
    };
    Read r = readNMEA(rmc("235958", 10, 45, "") + "$HCHDT,50.0,T\n" + rmc("235959", 10, 46, "") +
                          rmc("000005", 10, 47, "") + rmc("000006", 0.5, 48, ""),
                      kDay);
    std::vector<Heading> h = r.headings();
    // The compass at 23:59:58 holds the course back for five seconds.
    ASSERT_EQ(h.size(), 3u);
    EXPECT_DOUBLE_EQ(h[0].trueHeading, 50.0);
    EXPECT_DOUBLE_EQ(h[0].magneticHeading, 50.0);  // no declination known: taken as 0
    EXPECT_DOUBLE_EQ(h[1].trueHeading, 47.0);
    EXPECT_DOUBLE_EQ(h[1].headingAccuracy, kCourseAccuracy);
    EXPECT_DOUBLE_EQ(h[2].trueHeading, 48.0);
    EXPECT_LT(h[2].headingAccuracy, 0);  // 0.5 knots is a walking pace
    std::vector<Location> l = r.locations();
    ASSERT_EQ(l.size(), 4u);
    EXPECT_EQ(l[1].timestamp, at(23, 59, 59));
    EXPECT_EQ(l[2].timestamp, at(0, 0, 5, kDay + days(1)));
}

TEST(GpxReader, ReadsTrackPointsWithTimesAndDerivesCourseAndSpeed) {
    std::string error;
    std::vector<std::string> problems;
    Timestamp start = at(10, 0, 0);
    auto events = readGPX(
        // A real XML parser: a byte-order mark, comments, CDATA and entities are no trouble.
        "\xEF\xBB\xBF<?xml version=\"1.0\"?><!-- <trkpt lat='0' lon='0'/> -->\n"
        "<gpx version=\"1.1\" xmlns=\"http://www.topografix.com/GPX/1/1\">\n"
        " <wpt lat=\"1\" lon=\"2\"/>\n"
        " <trk><name>A &amp; B</name><trkseg>\n"
        "  <trkpt lat=\"13.7500\" lon=\"100.5000\"><ele>4.5</ele>"
        "<time>2024-05-01T08:00:00Z</time></trkpt>\n"
        "  <trkpt lon=\"100.5000\" "
        "lat=\"13.7510\"><time><![CDATA[2024-05-01T15:00:10+07:00]]></time>"
        "<extensions><speed>99</speed></extensions></trkpt>\n"
        "  <trkpt lat=\"95\" lon=\"100\"/>\n"
        "  <trkpt lat=\"13.7510\" lon=\"100.5010\"/>\n"
        " </trkseg></trk>\n"
        " <rte><rtept lat=\"5\" lon=\"5\"/></rte>\n"
        "</gpx>\n",
        start, error, problems);
    EXPECT_EQ(error, "");
    EXPECT_EQ(problems, std::vector<std::string>{"point at line 7 has no usable lat and lon"});
    Read r{events, {}};
    std::vector<Location> l = r.locations();
    ASSERT_EQ(l.size(), 3u);
    EXPECT_EQ(l[0].coordinate, (map::Coordinate{13.75, 100.5}));
    EXPECT_DOUBLE_EQ(l[0].altitude, 4.5);
    EXPECT_EQ(l[0].timestamp, at(8, 0, 0));
    EXPECT_EQ(l[0].speed, -1);  // nothing before it to measure from
    EXPECT_EQ(l[1].timestamp, at(8, 0, 10));
    EXPECT_NEAR(l[1].speed, 11.12, 0.01);     // 111 m in 10 s, not the extension's 99
    EXPECT_NEAR(l[1].course, 0.0, 1e-6);      // due north
    EXPECT_EQ(l[2].timestamp, at(8, 0, 11));  // no time: a second after the one before
    EXPECT_NEAR(l[2].course, 90.0, 0.01);
    std::vector<Heading> h = r.headings();
    ASSERT_EQ(h.size(), 2u);
    EXPECT_NEAR(h[1].trueHeading, 90.0, 0.01);
    EXPECT_DOUBLE_EQ(h[1].headingAccuracy, kCourseAccuracy);
}

TEST(GpxReader, RefusesDocumentsThatAreNotXMLOrHaveNoTrack) {
    struct Case {
        const char* document;
        const char* error;
        std::size_t locations;
    } cases[] = {
        {"$GPRMC,not,xml", "not XML: not well-formed (invalid token) at line 1", 0},
        {"", "not XML: no element found at line 1", 0},
        {"<gpx><trk><trkseg><trkpt lat=\"1\" lon=\"2\"></trkseg></trk></gpx>",
         "not XML: mismatched tag at line 1", 0},
        {"<gpx><wpt lat=\"1\" lon=\"2\"/></gpx>", "no track or route points", 0},
        {"<html><body>404</body></html>", "no track or route points", 0},
        {"<gpx><trk><trkpt lat=\"1\" lon=\"2\"/></trk></gpx>", "no track or route points", 0},
        {"<gpx><rte><rtept lat=\"1\" lon=\"2\"/><rtept lat=\"1\" lon=\"3\"/></rte></gpx>", "", 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.document);
        std::string error;
        std::vector<std::string> problems;
        Read r{readGPX(c.document, at(0, 0, 0), error, problems), {}};
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(r.locations().size(), c.locations);
    }
}

TEST(TrackReaders, ParseTimesAndSourceLocatorsStrictly) {
    EXPECT_EQ(parseISO8601("2024-05-01T08:18:00Z"), at(8, 18, 0));
    EXPECT_EQ(parseISO8601("2024-05-01T08:18:00.250Z"), at(8, 18, 0.25));
    EXPECT_EQ(parseISO8601("2024-05-01T13:48:00+05:30"), at(8, 18, 0));
    EXPECT_EQ(parseISO8601("2024-05-01 08:18:00"), at(8, 18, 0));
    for (const char* bad : {"2024-05-01", "2024-02-30T00:00:00Z", "2024-05-01T24:00:00Z",
                            "2024-05-01T08:18:00X", "2024-05-01T08:18:00.Z", "tomorrow"}) {
        EXPECT_FALSE(parseISO8601(bad)) << bad;
    }

    std::string reason;
    auto gpsd = parseSourceLocator("gpsd://10.0.0.7:3000", reason);
    ASSERT_TRUE(gpsd);
    EXPECT_EQ(gpsd->kind, SourceLocator::Kind::Gpsd);
    EXPECT_EQ(gpsd->host, "10.0.0.7");
    EXPECT_EQ(gpsd->port, "3000");
    auto v6 = parseSourceLocator("gpsd://[::1]", reason);
    ASSERT_TRUE(v6);
    EXPECT_EQ(v6->host, "::1");
    EXPECT_EQ(v6->port, "2947");
    auto plain = parseSourceLocator("gpsd://", reason);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->host, "localhost");
    auto replay = parseSourceLocator("replay:/tmp/a b.nmea?speed=2.5&loop=1", reason);
    ASSERT_TRUE(replay);
    EXPECT_EQ(replay->kind, SourceLocator::Kind::Replay);
    EXPECT_EQ(replay->path, "/tmp/a b.nmea");
    EXPECT_DOUBLE_EQ(replay->speed, 2.5);
    EXPECT_TRUE(replay->loops);
    auto fastest = parseSourceLocator("replay:t.gpx?speed=max", reason);
    ASSERT_TRUE(fastest);
    EXPECT_EQ(fastest->speed, 0);

    struct Bad {
        const char* locator;
        const char* reason;
    } bad[] = {
        {"gps://x",
         "unknown location source 'gps://x' (want gpsd://HOST:PORT or "
         "replay:FILE[?speed=N])"},
        {"gpsd://host:0", "the gpsd port '0' is not a number from 1 to 65535"},
        {"gpsd://host:http", "the gpsd port 'http' is not a number from 1 to 65535"},
        {"gpsd://a:b:c", "an IPv6 gpsd host goes in brackets, e.g. gpsd://[::1]:2947"},
        {"gpsd://host/path", "a gpsd address is HOST:PORT and nothing more"},
        {"replay:", "replay: needs a file"},
        {"replay:t.nmea?speed=0", "speed wants a number above 0 or max, got '0'"},
        {"replay:t.nmea?speed=fast", "speed wants a number above 0 or max, got 'fast'"},
        {"replay:t.nmea?loop=yes", "loop wants 0 or 1, got 'yes'"},
        {"replay:t.nmea?rate=2", "unknown replay option 'rate' (speed, loop)"},
    };
    for (const Bad& b : bad) {
        EXPECT_FALSE(parseSourceLocator(b.locator, reason)) << b.locator;
        EXPECT_EQ(reason, b.reason);
    }
}

}  // namespace
}  // namespace sorvan::location

// `sorvan utm` and `sorvan area` as a user runs them: arguments, standard input, JSON and the
// messages for what they cannot read.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tool_run.hpp"

namespace sorvan::test {
namespace {

ToolRun sorvan(std::vector<std::string> args, std::string input = "") {
    ToolCall call;
    call.args = std::move(args);
    call.input = std::move(input);
    return runSorvan(call);
}

TEST(GeodesyCommands, UtmConvertsArgumentsAndStandardInputBothWays) {
    EXPECT_EQ(sorvan({"utm", "13.7563,100.5018"}).out, "47P, 662367, 1521281\n");
    EXPECT_EQ(sorvan({"utm", "--hemisphere", "-0.0001,100.5018"}).out, "47S, 667132, 9999989\n");
    EXPECT_EQ(sorvan({"utm", "47P, 662367, 1521281"}).out, "13.756303,100.501804\n");
    // Unquoted, the shell splits the text at its spaces; the pieces are joined back.
    EXPECT_EQ(sorvan({"utm", "47P,", "662367,", "1521281", "13.7563,", "100.5018"}).out,
              "13.756303,100.501804\n47P, 662367, 1521281\n");

    const ToolRun r = sorvan({"utm"},
                             "13.7563,100.5018\n47P, 662367, 1521281\n\n-33.8688,151.2093\r\n"
                             "56H, 334369, 6250948");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "47P, 662367, 1521281\n13.756303,100.501804\n\n56H, 334369, 6250948\n"
              "-33.868804,151.209304\n");
}

TEST(GeodesyCommands, MalformedInputFailsWithAMessage) {
    ToolRun r = sorvan({"utm", "47p,662367,1521281"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("sorvan utm: expected one upper-case band letter"), std::string::npos)
        << r.err;
    for (const char* bad : {"95,100", "13.7,abc", "47P, 66x, 1", "0P, 1, 1"}) {
        EXPECT_EQ(sorvan({"utm", bad}).status, 2) << bad;
    }
    r = sorvan({"utm", "47P, 1e308, -1e308"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(
        r.err.starts_with("sorvan utm: '47P, 1e308, -1e308' is no position on the "
                          "globe: easting or northing out of range\n"))
        << r.err;
    // Standard input stops at the first bad line, after the good ones before it.
    r = sorvan({"utm"}, "13.7563,100.5018\nnonsense\n1,2\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "47P, 662367, 1521281\n");
    EXPECT_EQ(r.err,
              "sorvan utm: line 2: expected LAT,LON or ZONE+BAND, EASTING, NORTHING, got "
              "'nonsense'\n");
}

TEST(GeodesyCommands, AreaPrintsSquareMetres) {
    EXPECT_EQ(sorvan({"area", "13,100", "13,101", "14,101", "14,100"}).out, "12049505796.63\n");
    EXPECT_EQ(sorvan({"area", "13.75,100.5"}).out, "0.00\n");
    ToolRun r = sorvan({"area"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no points given"), std::string::npos);
    EXPECT_EQ(sorvan({"area", "13,100", "x,1"}).status, 2);
}

TEST(GeodesyCommands, PrintJSON) {
    ToolRun area = sorvan({"area", "13,100", "13,101", "14,101", "14,100", "--json"});
    EXPECT_EQ(area.status, 0);
    EXPECT_EQ(area.out, "{\"points\":4,\"area\":12049505796.63}\n");

    ToolRun both = sorvan({"utm", "--json", "13.7563,100.5018", "47P, 662367, 1521281"});
    EXPECT_EQ(both.status, 0);
    EXPECT_EQ(nlohmann::json::parse(both.out), nlohmann::json::parse(R"([
        {"latitude": 13.7563, "longitude": 100.5018, "utm": "47P, 662367, 1521281"},
        {"latitude": 13.756303, "longitude": 100.501804, "utm": "47P, 662367, 1521281"}])"));

    // Standard input: a blank line is null, and a bad line ends a still well-formed array.
    ToolRun streamed = sorvan({"utm", "--json"}, "13.7563,100.5018\n\nnonsense\n1,2\n");
    EXPECT_EQ(streamed.status, 1);
    EXPECT_EQ(nlohmann::json::parse(streamed.out),
              nlohmann::json::parse(R"([{"latitude": 13.7563, "longitude": 100.5018,
                                         "utm": "47P, 662367, 1521281"}, null])"));
    EXPECT_EQ(streamed.err,
              "sorvan utm: line 3: expected LAT,LON or ZONE+BAND, EASTING, NORTHING, got "
              "'nonsense'\n");
}

}  // namespace
}  // namespace sorvan::test

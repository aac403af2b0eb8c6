// `sorvan search`, `suggest` and `route` as a script runs them against the embedded service.
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tool_test.hpp"

namespace sorvan::test {
namespace {

using ServiceCommands = ToolTest;

TEST_F(ServiceCommands, PrintJSONWithThePropertyNames) {
    auto search = sorvan(
        {"search", "siam", "--near", "13.7462,100.5347", "--limit", "2", "--lang", "en", "--json"});
    ASSERT_EQ(search.status, 0) << search.err;
    auto pins = nlohmann::json::parse(search.out);
    ASSERT_EQ(pins.size(), 2u);
    EXPECT_EQ(pins[0]["name"], "Siam Paragon");
    EXPECT_EQ(pins[0]["type"], "mall");
    EXPECT_EQ(pins[0].size(), 6u);  // poiid, name, address, type, latitude, longitude

    auto words = sorvan({"suggest", "central", "--limit", "3", "--json", "--lang", "en"});
    ASSERT_EQ(words.status, 0);
    EXPECT_EQ(nlohmann::json::parse(words.out).size(), 3u);

    auto route =
        sorvan({"route", "13.7462,100.5347", "13.6900,100.7501", "--no-tollway", "--json"});
    ASSERT_EQ(route.status, 0);
    auto r = nlohmann::json::parse(route.out);
    EXPECT_TRUE(r.contains("fDistance") && r.contains("tDistance") && r.contains("interval"));
    ASSERT_FALSE(r["guide"].empty());
    const auto& step = r["guide"][0];
    EXPECT_TRUE(step.contains("name") && step.contains("turn") && step.contains("interval"));
    ASSERT_GE(step["path"].size(), 2u);
    EXPECT_EQ(step["path"][0].size(), 2u);
    EXPECT_NEAR(static_cast<double>(step["path"][0][0]), 13.7462, 1e-6);
    EXPECT_NE(lastQuery("/tvroute/json/route/guide").find("&mode=t&type=9"), std::string::npos);
}

TEST_F(ServiceCommands, TablesByDefaultAndExitStatusOnFailure) {
    auto table = sorvan({"search", "wat", "--lang", "en"});
    EXPECT_EQ(table.status, 0);
    auto heading = table.out.substr(0, table.out.find('\n'));
    std::istringstream words(heading);
    std::vector<std::string> columns{std::istream_iterator<std::string>(words), {}};
    EXPECT_EQ(columns, (std::vector<std::string>{"#", "NAME", "TYPE", "LATITUDE", "LONGITUDE",
                                                 "ADDRESS", "POIID"}));
    EXPECT_NE(table.out.find("Wat Phra Kaew (Temple of the Emerald Buddha)  temple"),
              std::string::npos);
    EXPECT_EQ(lastQuery("/mapsearch/json/search"), "keyword=wat&locale=en&key=cli-key");

    const std::string closed = closedOrigin();
    EXPECT_EQ(sorvan({"search", "wat"}, {}, closed).status, 1);
    EXPECT_EQ(sorvan({"route", "13.7,100.5", "13.8,100.6"}, {}, closed).status, 1);
    answer("/tvroute/json/route/guide", R"({"data":[]})");
    EXPECT_EQ(sorvan({"route", "13.7,100.5", "13.8,100.6"}).status, 1);
}

}  // namespace
}  // namespace sorvan::test

// `sorvan search`, `suggest` and `route` as a script runs them against the embedded service.
#include <sys/wait.h>

#include <cstdio>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/services_fixtures.hpp"

namespace sorvan {
namespace {

const std::string kTool = std::string(SORVAN_BINARY_DIR) + "/tools/sorvan/sorvan";

struct ToolRun {
    int status = -1;
    std::string out;
};

class ServiceCommands : public testing::ServicesTest {
  protected:
    static ToolRun run(const std::string& arguments, const std::string& base = "") {
        std::string command = "SORVAN_SERVICE_ORIGIN=" + (base.empty() ? origin() : base) +
                              " SORVAN_KEY=cli-key " + kTool + " " + arguments + " 2>/dev/null";
        ToolRun r;
        FILE* pipe = ::popen(command.c_str(), "r");
        if (!pipe) {
            ADD_FAILURE() << "cannot run " << command;
            return r;
        }
        char buffer[4096];
        std::size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
            r.out.append(buffer, n);
        }
        int status = ::pclose(pipe);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return r;
    }
};

TEST_F(ServiceCommands, PrintJSONWithThePropertyNames) {
    auto search = run("search siam --near 13.7462,100.5347 --limit 2 --lang en --json");
    ASSERT_EQ(search.status, 0) << search.out;
    auto pins = nlohmann::json::parse(search.out);
    ASSERT_EQ(pins.size(), 2u);
    EXPECT_EQ(pins[0]["name"], "Siam Paragon");
    EXPECT_EQ(pins[0]["type"], "mall");
    for (const char* key : {"poiid", "address", "latitude", "longitude"}) {
        EXPECT_TRUE(pins[0].contains(key)) << key;
    }
    EXPECT_EQ(
        lastQuery("/mapsearch/json/search"),
        "keyword=siam&locale=en&key=cli-key&lat=13.746200&lon=100.534700&span=&offset=0&limit=2");

    auto words = run("suggest central --limit 3 --json --lang en");
    ASSERT_EQ(words.status, 0);
    EXPECT_EQ(nlohmann::json::parse(words.out).size(), 3u);

    auto route = run("route 13.7462,100.5347 13.6900,100.7501 --no-tollway --json");
    ASSERT_EQ(route.status, 0);
    auto r = nlohmann::json::parse(route.out);
    for (const char* key : {"fDistance", "tDistance", "distance", "interval"}) {
        EXPECT_TRUE(r.contains(key)) << key;
    }
    ASSERT_FALSE(r["guide"].empty());
    const auto& step = r["guide"][0];
    for (const char* key : {"name", "turn", "distance", "interval"}) {
        EXPECT_TRUE(step.contains(key)) << key;
    }
    ASSERT_GE(step["path"].size(), 2u);
    EXPECT_EQ(step["path"][0].size(), 2u);
    EXPECT_NEAR(static_cast<double>(step["path"][0][0]), 13.7462, 1e-6);
    EXPECT_NE(lastQuery("/tvroute/json/route/guide").find("&mode=t&type=9"), std::string::npos);
}

TEST_F(ServiceCommands, TablesByDefaultAndExitStatusOnFailure) {
    auto table = run("search wat --lang en");
    EXPECT_EQ(table.status, 0);
    auto heading = table.out.substr(0, table.out.find('\n'));
    std::istringstream words(heading);
    std::vector<std::string> columns{std::istream_iterator<std::string>(words), {}};
    EXPECT_EQ(columns, (std::vector<std::string>{"#", "NAME", "TYPE", "LATITUDE", "LONGITUDE",
                                                 "ADDRESS", "POIID"}));
    EXPECT_NE(table.out.find("Wat Phra Kaew (Temple of the Emerald Buddha)  temple"),
              std::string::npos);
    EXPECT_EQ(lastQuery("/mapsearch/json/search"), "keyword=wat&locale=en&key=cli-key");

    auto closed = "http://127.0.0.1:" + std::to_string(testing::closedPort());
    EXPECT_EQ(run("search wat", closed).status, 1);
    EXPECT_EQ(run("route 13.7,100.5 13.8,100.6", closed).status, 1);
    answer("/tvroute/json/route/guide", R"({"data":[]})");
    EXPECT_EQ(run("route 13.7,100.5 13.8,100.6").status, 1);
    EXPECT_EQ(run("route 13.7,100.5").status, 2);
    EXPECT_EQ(run("search").status, 2);
    EXPECT_EQ(run("suggest a --limit many").status, 2);
    EXPECT_EQ(run("search a --lang fr").status, 2);
}

}  // namespace
}  // namespace sorvan

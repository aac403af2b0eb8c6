// The sorvan command's side of the fault matrix: a service that fails in any of the ways the
// embedded service can make it fail ends search, suggest and route with exit status 1, the
// kit's own line on standard error and nothing on standard output; once the service is
// healthy the same command succeeds.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/service_harness.hpp"
#include "tools/sorvan/tool_run.hpp"

namespace sorvan {
namespace {

struct Command {
    const char* path;
    std::vector<std::string> args;
    const char* line;  // the start of the kit's line on standard error
};

class FaultCommands : public testing::ServiceTest {
  protected:
    test::ToolRun run(const std::vector<std::string>& args) {
        test::ToolCall call;
        call.args = args;
        call.env = {{"SORVAN_SERVICE_ORIGIN", origin()}, {"SORVAN_KEY", std::string("cli-key")}};
        return test::runSorvan(call);
    }
};

TEST_F(FaultCommands, EveryFailedServiceCallExitsOneWithTheKitsLine) {
    const std::vector<Command> commands = {
        {"/mapsearch/json/search",
         {"search", "wat"},
         "searchWithKeyword Error (wat,13.756300,100.501800): "},
        {"/mapsearch/json/suggest", {"suggest", "wat"}, "suggestWithKeyword Error (wat): "},
        {"/tvroute/json/route/guide",
         {"route", "13.7563,100.5018", "13.6900,100.7501"},
         "route Error (13.756300,100.501800,13.690000,100.750100): "},
    };
    const std::vector<std::pair<const char*, server::Fault>> faults = {
        {"status 500", {.count = -1, .status = 500}},
        {"dropped connection", {.count = -1, .dropConnection = true}},
        {"truncated body", {.count = -1, .truncateBody = true}},
        {"malformed body", {.count = -1, .malformedBody = true}},
    };
    for (const auto& command : commands) {
        for (const auto& [name, fault] : faults) {
            SCOPED_TRACE(std::string(command.args[0]) + ", " + name);
            service().injectFault(command.path, fault);
            auto failed = run(command.args);
            EXPECT_EQ(failed.status, 1);
            EXPECT_EQ(failed.out, "");
            EXPECT_NE(failed.err.find(command.line), std::string::npos) << failed.err;
            service().clearFaults();
        }
        auto healthy = run(command.args);
        EXPECT_EQ(healthy.status, 0) << healthy.err;
        EXPECT_NE(healthy.out, "");
    }
}

}  // namespace
}  // namespace sorvan

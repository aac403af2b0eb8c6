// A fixture for tests of the sorvan tool: runs it against the suite's embedded service (or
// another origin), with the test's key and a home of the test's own.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/foundation_support.hpp"
#include "support/service_harness.hpp"
#include "support/services_fixtures.hpp"
#include "tool_run.hpp"

namespace sorvan::test {

class ToolTest : public testing::ServicesTest {
  protected:
    using Env = std::vector<std::pair<std::string, std::optional<std::string>>>;

    ToolRun sorvan(std::vector<std::string> args, Env env = {}, const std::string& base = "") {
        ToolCall call;
        call.args = std::move(args);
        call.env = {{"SORVAN_SERVICE_ORIGIN", base.empty() ? origin() : base},
                    {"SORVAN_KEY", "cli-key"},
                    {"SORVAN_HOME", home_.path()}};
        call.env.insert(call.env.end(), env.begin(), env.end());
        return runSorvan(call);
    }
    /// The call's own environment names win over the fixture's.
    ToolRun sorvan(ToolCall call) {
        call.env.insert(call.env.begin(),
                        {{"SORVAN_SERVICE_ORIGIN", origin()}, {"SORVAN_HOME", home_.path()}});
        return runSorvan(call);
    }
    static std::string closedOrigin() {
        return "http://127.0.0.1:" + std::to_string(sorvan::testing::closedPort());
    }

    TempDir home_;
};

}  // namespace sorvan::test

// Runs the built sorvan tool as a user's shell would, without a shell: arguments as given, an
// environment of the test's own with a few names changed, standard input from a string, and
// standard output and error kept apart, either of them on a pseudo-terminal when the test
// needs the tool to believe it talks to a person.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sorvan::test {

struct ToolCall {
    std::vector<std::string> args;  // after "sorvan"
    /// Names to set (a value) or remove (nullopt). SORVAN_LOG is removed unless named here,
    /// so a developer's own setting does not change what the tests see.
    std::vector<std::pair<std::string, std::optional<std::string>>> env;
    std::string input;
    bool stdoutOnTerminal = false;
    /// When set, standard output is this file (opened for writing, e.g. "/dev/full").
    std::string stdoutFile;
    bool stderrOnTerminal = false;
};

struct ToolRun {
    int status = -1;  // exit status; 128 + signal when killed
    std::string out, err;
};

/// Runs the tool and waits for it (at most 120 s; then it is killed and the test fails).
ToolRun runSorvan(const ToolCall& call);

}  // namespace sorvan::test

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "command.hpp"

namespace sorvan::cli {

void printHelp();

namespace {

std::vector<Command>& registry() {
    static std::vector<Command> commands;
    return commands;
}

}  // namespace

void printHelp() {
    std::printf(
        "usage: sorvan COMMAND [OPTIONS]\n\n"
        "SorvanMapSDK's command-line tool. Run `sorvan COMMAND --help` for a command's "
        "options.\n\ncommands:\n");
    auto commands = Command::all();
    std::sort(commands.begin(), commands.end(),
              [](const Command& a, const Command& b) { return a.name < b.name; });
    for (const auto& c : commands) {
        std::printf("  %-10s %s\n", c.name.c_str(), c.summary.c_str());
    }
    std::printf(
        "\nenvironment:\n"
        "  SORVAN_SERVICE_ORIGIN  points every service at one origin (e.g. the embedded "
        "service)\n"
        "  SORVAN_KEY             the service key\n"
        "  SORVAN_HOME            puts caches, documents and preferences under one "
        "directory\n");
}

Command::Registration::Registration(Command command) {
    registry().push_back(std::move(command));
}

const std::vector<Command>& Command::all() {
    return registry();
}

bool looksLikeOption(const std::string& arg) {
    return arg.size() > 1 && arg[0] == '-' && !(arg[1] >= '0' && arg[1] <= '9') && arg[1] != '.';
}

int usageError(const std::string& command, const std::string& message) {
    std::fprintf(stderr, "sorvan %s: %s\n(see `sorvan %s --help`)\n", command.c_str(),
                 message.c_str(), command.c_str());
    return 2;
}

int failure(const std::string& command, const std::string& message) {
    std::fprintf(stderr, "sorvan %s: %s\n", command.c_str(), message.c_str());
    return 1;
}

}  // namespace sorvan::cli

int main(int argc, char** argv) {
    using sorvan::cli::Command;
    std::string first = argc >= 2 ? argv[1] : "";
    if (first.empty() || first == "--help" || first == "-h" || first == "help") {
        sorvan::cli::printHelp();
        return first.empty() ? 2 : 0;
    }
    for (const auto& command : Command::all()) {
        if (command.name == first) {
            return command.run(std::vector<std::string>(argv + 2, argv + argc));
        }
    }
    std::fprintf(stderr, "sorvan: unknown command '%s' (see `sorvan --help`)\n", first.c_str());
    return 2;
}

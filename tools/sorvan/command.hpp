// Subcommands of the sorvan tool. Each lives in a file of its own and registers itself with
// a static Command::Registration, so adding one touches no other file.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace sorvan::cli {

struct Command {
    std::string name;
    std::string summary;  // one line for `sorvan --help`
    /// args excludes the program and command names. Returns the exit status.
    std::function<int(const std::vector<std::string>& args)> run;

    struct Registration {
        explicit Registration(Command command);
    };
    static const std::vector<Command>& all();
};

/// True for an argument that is an option and not a negative number ("-13.7,100.5" is a
/// position, "--json" an option).
bool looksLikeOption(const std::string& arg);

/// Prints "sorvan NAME: message" to stderr and returns 2 (usage) or 1 (failure).
int usageError(const std::string& command, const std::string& message);
int failure(const std::string& command, const std::string& message);

}  // namespace sorvan::cli

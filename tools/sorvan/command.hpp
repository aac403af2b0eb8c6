// The commands of the sorvan tool. Each lives in a cmd_NAME.cpp of its own and registers itself
// with a static Command::Registration; main.cpp builds the argument parser (CLI11) from the
// registry, so adding a command touches no other file.
//
// Adding a command:
//   1. Write tools/sorvan/cmd_NAME.cpp (CMake builds every .cpp in this directory).
//   2. In it, a setup function declares the command's options on the CLI11 app it is given and
//      returns the function that does the work once the arguments are parsed. Keep the parsed
//      values in a struct held by a shared_ptr: the runner outlives the setup function.
//
//        struct TagsOptions { std::string keyword; std::int64_t limit = 10; bool json = false; };
//
//        Runner setupTags(CLI::App& app) {
//            // The help's prose, reflowed to 80 columns (lines starting with a space stay).
//            app.description("Lists the tags near a position ...");
//            auto o = std::make_shared<TagsOptions>();
//            app.add_option("KEYWORD", o->keyword, "what to look for")->required();
//            addInteger(app, "--limit", o->limit, "at most N tags", 1, 100);  // options.hpp
//            addJsonFlag(app, o->json, "print a JSON array of tags");
//            return [o](const Context& context) -> int {
//                ...
//                if (failed) return failure(context.name, "why");  // exit status 1
//                return kSuccess;
//            };
//        }
//
//        const Command::Registration registration{
//            {"tags", "one line for `sorvan --help`", "what exit status 1 means here", setupTags}};
//
//   3. Every command gets -h/--help, --version and -q/--quiet without asking, and its help ends
//      with the exit-status table. Options given as `--opt value` and `--opt=value` alike.
//      Read numbers and positions with the helpers of options.hpp (whole-text parsing, and
//      the message a usage error prints); a helper's bad value exits with status 2.
//   4. A command that prints data takes --json (addJsonFlag) and then prints JSON only on
//      stdout. Messages go to stderr; the kit's log is already at the level --quiet and
//      SORVAN_LOG chose when the runner starts.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace sorvan::cli {

/// The exit statuses of every command; `--help` lists them.
enum ExitStatus : int {
    kSuccess = 0,  // the work is done
    kFailure = 1,  // the work failed: a service, the network, a file, the input read
    kUsage = 2,    // the arguments were wrong: nothing was done
};

/// What every command's runner gets besides its own options.
struct Context {
    std::string name;    // the command's name, for messages ("sorvan NAME: ...")
    bool quiet = false;  // -q/--quiet: no log lines, no progress, no warnings
};

using Runner = std::function<int(const Context& context)>;
using Setup = std::function<Runner(CLI::App& app)>;

struct Command {
    std::string name;
    std::string summary;   // one line for `sorvan --help`
    std::string failures;  // what exit status 1 means for this command (for its --help)
    Setup setup;

    struct Registration {
        explicit Registration(Command command);
    };
    /// Every registered command, in registration order.
    static const std::vector<Command>& all();
};

/// Prints "sorvan NAME: message" (and a pointer to the help) to stderr; returns kUsage.
int usageError(const std::string& command, const std::string& message);
/// Prints "sorvan NAME: message" to stderr; returns kFailure.
int failure(const std::string& command, const std::string& message);
/// Prints "sorvan NAME: warning: message" to stderr unless the command is quiet.
void warn(const Context& context, const std::string& message);

/// "SorvanMapSDK 3.13": what --version prints.
std::string versionText();

}  // namespace sorvan::cli

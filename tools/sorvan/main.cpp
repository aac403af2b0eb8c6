// The sorvan tool: builds one CLI11 app with a subcommand per registered command, parses, sets
// the kit's log level and runs the chosen command.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "SorvanMapSDK/SorvanMapSDK.hpp"
#include "command.hpp"
#include "output_file.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::cli {
namespace {

std::vector<Command>& registry() {
    static std::vector<Command> commands;
    return commands;
}

const char* const kEnvironment =
    "environment:\n"
    "  SORVAN_SERVICE_ORIGIN  points every service at one origin, e.g. the embedded\n"
    "                         service (http://127.0.0.1:8080)\n"
    "  SORVAN_KEY             the service key\n"
    "  SORVAN_HOME            puts caches, documents and preferences under one\n"
    "                         directory\n"
    "  SORVAN_LOG             which of the kit's log lines reach stderr: error,\n"
    "                         warning (the default here), info, debug or off";

// Breaks each line of text longer than width at spaces; lines already short enough stay.
std::string wrap(const std::string& text, std::size_t width) {
    std::string out;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? end : end - start);
        while (line.size() > width) {
            std::size_t cut = line.rfind(' ', width);
            if (cut == std::string::npos || cut == 0) {
                break;  // one long word: leave it whole
            }
            out += line.substr(0, cut) + "\n";
            line.erase(0, cut + 1);
        }
        out += line;
        if (end == std::string::npos) {
            break;
        }
        out += "\n";
        start = end + 1;
    }
    return out;
}

std::string exitStatusHelp(const std::string& failures) {
    std::string out = "exit status:\n";
    for (std::string line :
         {std::string("0  success"),
          "1  the work failed" + (failures.empty() ? std::string() : ": " + failures),
          std::string("2  usage error: an unknown option, a missing or malformed argument; "
                      "nothing was done")}) {
        std::string wrapped = wrap(line, 80 - 5);
        std::size_t at = 0;
        while ((at = wrapped.find('\n', at)) != std::string::npos) {
            wrapped.insert(at + 1, "     ");
            at += 6;
        }
        out += "  " + wrapped + "\n";
    }
    out.pop_back();
    return out;
}

// Reflows prose to width: the lines of a paragraph are joined and wrapped again; blank lines
// and lines that start with a space (a table, an example) stay as they are.
std::string reflow(const std::string& text, std::size_t width) {
    std::string out, paragraph;
    auto flushParagraph = [&] {
        if (!paragraph.empty()) {
            out += wrap(paragraph, width) + "\n";
            paragraph.clear();
        }
    };
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? end : end - start);
        if (line.empty() || line[0] == ' ') {
            flushParagraph();
            out += line + "\n";
        } else {
            paragraph += (paragraph.empty() ? "" : " ") + line;
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    flushParagraph();
    return out;
}

// CLI11's layout with the usage line first, the tool's lower-case headings, descriptions
// wrapped for an 80-column terminal, and each command's one-line summary in the command list
// (its description is the longer text of its own help).
class HelpFormatter : public CLI::Formatter {
  public:
    static constexpr std::size_t kWidth = 80;
    static constexpr std::size_t kColumn = 24;

    HelpFormatter() {
        label("Usage", "usage");
        label("Positionals", "arguments");
        label("REQUIRED", "(required)");
        label("SUBCOMMAND", "COMMAND");
        column_width(kColumn);
    }

    void setSummary(const CLI::App* app, std::string summary) {
        summaries_[app] = std::move(summary);
    }

    std::string make_help(const CLI::App* app, std::string name,
                          CLI::AppFormatMode mode) const override {
        if (mode == CLI::AppFormatMode::Sub) {
            return make_expanded(app);
        }
        std::string out = make_usage(app, name);
        std::string description = app->get_description();
        if (!description.empty()) {
            out += "\n" + reflow(description, kWidth);
        }
        out += make_positionals(app);
        out += make_groups(app, mode);
        out += make_subcommands(app, mode);
        std::string footer = make_footer(app);
        if (!footer.empty()) {
            out += "\n" + footer;
        }
        return out;
    }

    std::string make_subcommand(const CLI::App* sub) const override {
        auto it = summaries_.find(sub);
        std::string summary = it == summaries_.end() ? sub->get_description() : it->second;
        std::stringstream out;
        CLI::detail::format_help(out, sub->get_name(), wrap(summary, kWidth - kColumn), kColumn);
        return out.str();
    }

    // An option's text is one paragraph, however the command broke its lines.
    std::string make_option_desc(const CLI::Option* option) const override {
        std::string text = option->get_description();
        std::replace(text.begin(), text.end(), '\n', ' ');
        return wrap(text, kWidth - kColumn);
    }

  private:
    std::map<const CLI::App*, std::string> summaries_;
};

// CLI11's messages, in the tool's words where they are unclear on their own.
std::string describe(const CLI::ParseError& e) {
    std::string what = e.what();
    for (const char* prefix : {"The following argument was not expected: ",
                               "The following arguments were not expected: "}) {
        if (what.starts_with(prefix)) {
            // CLI11 lists them last first; the first one is the one to name.
            std::string rest = what.substr(std::string(prefix).size());
            std::string first = rest.substr(rest.rfind(' ') + 1);
            bool option = first.size() > 1 && first[0] == '-' &&
                          !(first[1] >= '0' && first[1] <= '9') && first[1] != '.';
            return (option ? "unknown option '" : "unexpected argument '") + first + "'";
        }
    }
    // "--near: 1 required LAT,LON missing"
    if (e.get_name() == "ArgumentMismatch" && what.ends_with(" missing")) {
        return what.substr(0, what.find(':')) + " needs a value";
    }
    return what;
}

void applyLogLevel(const Context& context) {
    if (context.quiet) {
        log::setLevel(log::Level::off);
        return;
    }
    // The version banner and other notes are for hosts that run long; a command shows the
    // kit's warnings and errors unless SORVAN_LOG asks for more or less.
    const char* chosen = std::getenv("SORVAN_LOG");
    if (chosen == nullptr || *chosen == '\0') {
        log::setLevel(log::Level::warning);
    }
}

int runTool(int argc, char** argv) {
    CLI::App app(
        "SorvanMapSDK's command-line tool: draws maps headless, runs the embedded\n"
        "service, asks the search and routing services and converts positions.",
        "sorvan");
    auto formatter = std::make_shared<HelpFormatter>();
    app.formatter(formatter);
    app.option_defaults()->group("options")->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.set_help_flag("-h,--help", "show this help and exit");
    app.set_version_flag("--version", versionText(), "show the version and exit");
    app.require_subcommand(0, 1);

    std::vector<Command> commands = registry();
    std::sort(commands.begin(), commands.end(),
              [](const Command& a, const Command& b) { return a.name < b.name; });
    Context context;
    std::vector<std::pair<CLI::App*, Runner>> runners;
    for (const Command& command : commands) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        sub->group("commands");
        formatter->setSummary(sub, command.summary);
        sub->set_help_flag("-h,--help", "show this help and exit");
        sub->set_version_flag("--version", versionText(), "show the version and exit");
        sub->add_flag(
            "-q,--quiet", context.quiet,
            "print nothing on stderr but errors: no log lines of the kit, no progress, no "
            "warnings, no access log");
        Runner runner = command.setup(*sub);
        std::string own = sub->get_footer();
        sub->footer((own.empty() ? "" : own + "\n\n") + exitStatusHelp(command.failures));
        runners.emplace_back(sub, std::move(runner));
    }
    // After the commands: a command would take the tool's footer as its own.
    app.footer(std::string("Run `sorvan COMMAND --help` for a command's options.\n\n") +
               kEnvironment + "\n\n" + exitStatusHelp(""));

    if (argc < 2) {
        std::fputs(app.help().c_str(), stderr);
        return kUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        auto chosen = app.get_subcommands();
        if (chosen.empty()) {
            std::string what = describe(e);
            if (argv[1][0] != '-') {
                what = std::string("unknown command '") + argv[1] + "'";
            }
            std::fprintf(stderr, "sorvan: %s (see `sorvan --help`)\n", what.c_str());
            return kUsage;
        }
        return usageError(chosen.front()->get_name(), describe(e));
    }

    for (auto& [sub, runner] : runners) {
        if (!sub->parsed()) {
            continue;
        }
        context.name = sub->get_name();
        applyLogLevel(context);
        int status = kFailure;
        try {
            status = runner(context);
        } catch (const CLI::ValidationError& e) {
            status = usageError(context.name, e.what());
        } catch (const std::exception& e) {
            status = failure(context.name, e.what());
        }
        // A full disk or a closed pipe shows only when the buffer is written out.
        if (auto problem = finishStandardOutput()) {
            int failed = failure(context.name, "cannot write to standard output: " + *problem);
            return status == kSuccess ? failed : status;
        }
        return status;
    }
    std::fputs(app.help().c_str(), stderr);
    return kUsage;
}

}  // namespace

Command::Registration::Registration(Command command) {
    registry().push_back(std::move(command));
}

const std::vector<Command>& Command::all() {
    return registry();
}

// Messages quote addresses the user gave or the kit formed; the service key in them stays
// hidden, as in the kit's own log lines.
int usageError(const std::string& command, const std::string& message) {
    std::fprintf(stderr, "sorvan %s: %s\n(see `sorvan %s --help`)\n", command.c_str(),
                 log::redacted(message).c_str(), command.c_str());
    return kUsage;
}

int failure(const std::string& command, const std::string& message) {
    std::fprintf(stderr, "sorvan %s: %s\n", command.c_str(), log::redacted(message).c_str());
    return kFailure;
}

void warn(const Context& context, const std::string& message) {
    if (!context.quiet) {
        std::fprintf(stderr, "sorvan %s: warning: %s\n", context.name.c_str(),
                     log::redacted(message).c_str());
    }
}

std::string versionText() {
    return std::string("SorvanMapSDK ") + SorvanMapSDKVersionString;
}

}  // namespace sorvan::cli

int main(int argc, char** argv) {
    // `sorvan help` as well as `sorvan --help`.
    static char help[] = "--help";
    if (argc == 2 && std::string(argv[1]) == "help") {
        argv[1] = help;
    }
    return sorvan::cli::runTool(argc, argv);
}

// `sorvan suggest`: keyword suggestions from the search service, one per line or as JSON.
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMSuggestOptions.hpp"
#include "command.hpp"
#include "service_cli.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::cli {
namespace {

constexpr const char* kName = "suggest";

void printSuggestHelp() {
    std::printf(
        "usage: sorvan suggest PREFIX [--offset N] [--limit N] [--lang en|th] [--key KEY]\n"
        "                      [--json]\n\n"
        "Prints the words the search service suggests for a partly typed keyword, Thai or\n"
        "English.\n\n"
        "options:\n"
        "  --offset N    skip the first N suggestions\n"
        "  --limit N     at most N suggestions (default 10 with either option)\n"
        "  --lang en|th  locale sent to the service (default th)\n"
        "  --key KEY     the service key (default: $SORVAN_KEY)\n"
        "  --json        print a JSON array of words\n"
        "  -h, --help    show this help\n");
}

int runSuggest(const std::vector<std::string>& args) {
    ServiceOptions common;
    std::optional<std::string> prefix;
    std::shared_ptr<SMSuggestOptions> options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-h" || arg == "--help") {
            printSuggestHelp();
            return 0;
        }
        int taken = takeServiceOption(kName, args, i, common);
        if (taken < 0) {
            return 2;
        }
        if (taken > 0) {
            i += taken - 1;
            continue;
        }
        bool offset = arg == "--offset" || arg.rfind("--offset=", 0) == 0;
        bool limit = arg == "--limit" || arg.rfind("--limit=", 0) == 0;
        if (offset || limit) {
            std::string name = offset ? "--offset" : "--limit";
            auto value = optionValue(args, i, name);
            auto n = value ? parseInteger(*value) : std::nullopt;
            if (!n) {
                return usageError(kName, name + " takes a whole number");
            }
            if (!options) {
                options = std::make_shared<SMSuggestOptions>();
            }
            offset ? options->setOffset(*n) : options->setLimit(*n);
        } else if (looksLikeOption(arg)) {
            return usageError(kName, "unknown option '" + arg + "'");
        } else if (!prefix) {
            prefix = arg;
        } else {
            return usageError(kName, "one PREFIX only (quote a prefix with spaces)");
        }
    }
    if (!prefix) {
        return usageError(kName, "a PREFIX is required");
    }

    auto view = serviceView(common);
    auto answer = awaitAnswer<std::optional<services::Words>>(
        [&](auto block) { view->suggestKeyword(*prefix, options, std::move(block)); });
    if (!answer) {
        return failure(kName, "no answer from the search service");
    }
    if (answer->error || !answer->value) {
        return failure(kName, answer->error ? answer->error->localizedDescription : "no result");
    }
    const auto& words = answer->value;
    if (common.json) {
        std::printf("%s\n", nlohmann::ordered_json(*words).dump(2).c_str());
    } else {
        for (const auto& w : *words) {
            std::printf("%s\n", w.c_str());
        }
    }
    return 0;
}

const Command::Registration registration{
    Command{kName, "suggest keywords for a partly typed one", runSuggest}};

}  // namespace
}  // namespace sorvan::cli

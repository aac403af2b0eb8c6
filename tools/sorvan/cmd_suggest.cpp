// `sorvan suggest`: keyword suggestions from the search service, one per line or as JSON.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMSuggestOptions.hpp"
#include "command.hpp"
#include "options.hpp"
#include "service_cli.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::cli {
namespace {

struct SuggestOptions {
    ServiceSettings service;
    std::string prefix;
    std::optional<std::int64_t> offset, limit;
    bool json = false;
};

Runner setupSuggest(CLI::App& app) {
    app.description(
        "Prints the words the search service suggests for a partly typed keyword, Thai or\n"
        "English, one per line.");
    auto o = std::make_shared<SuggestOptions>();
    app.add_option("PREFIX", o->prefix, "the keyword typed so far (quote one with spaces)")
        ->required();
    addInteger(app, "--offset", o->offset, "skip the first N suggestions");
    addInteger(app, "--limit", o->limit, "at most N suggestions (default 10 with either option)");
    addServiceSettings(app, o->service, "locale sent to the service (default th)");
    addJsonFlag(app, o->json, "print a JSON array of words");
    return [o](const Context& context) -> int {
        std::shared_ptr<SMSuggestOptions> options;
        if (o->offset || o->limit) {
            options = std::make_shared<SMSuggestOptions>();
            if (o->offset) {
                options->setOffset(*o->offset);
            }
            if (o->limit) {
                options->setLimit(*o->limit);
            }
        }
        auto view = serviceView(o->service);
        CallWatch watch({"suggestWithKeyword Error"});
        auto answer = awaitAnswer<std::optional<services::Words>>(
            [&](auto block) { view->suggestKeyword(o->prefix, options, std::move(block)); });
        if (!answer) {
            return failure(context.name, "no answer from the search service");
        }
        if (auto problem = watch.problem("search", answer->error, answer->value.has_value())) {
            return failure(context.name, *problem);
        }
        const auto& words = *answer->value;
        if (o->json) {
            std::printf("%s\n", nlohmann::ordered_json(words).dump(2).c_str());
        } else {
            for (const auto& w : words) {
                std::printf("%s\n", w.c_str());
            }
        }
        return kSuccess;
    };
}

const Command::Registration registration{
    {"suggest", "suggest keywords for a partly typed one", kServiceFailures, setupSuggest}};

}  // namespace
}  // namespace sorvan::cli

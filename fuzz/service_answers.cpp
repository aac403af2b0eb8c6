// The answers of the search, suggest and routing services: the decoder, then every walk over
// the decoded value, as each answer could come from any of those services. A walk may log and
// stop, or raise StructureError where its caller catches it; nothing else may happen.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "foundation/json_access.hpp"
#include "fuzz_support.hpp"
#include "services/answers.hpp"

using namespace sorvan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto parsed = json::parse(fuzz::textOf(data, size));
    if (!parsed.value) {
        return 0;
    }
    json::Value& root = *parsed.value;
    services::readPins(root, "keyword", {13.75, 100.5});
    services::readWords(root, "keyword");
    auto lines = services::readPolylines(root, 7);
    try {
        // Last, and moved as the route client moves it: a copy would be the target's own cost.
        auto head = services::readRouteHead(std::move(root));
        // The steps joined once with the path's lines and once without any.
        services::joinGuide(head.routeJson, lines);
        services::joinGuide(head.routeJson, std::nullopt);
    } catch (const json::StructureError&) {
        // The route client catches it and answers (nil, nil) with its log line.
    }
    return 0;
}

// The answers of the search, suggest and routing services: the decoder, then every walk over
// the decoded answer, as each answer could come from any of those services. A walk may log and
// stop, or raise StructureError where its caller catches it; nothing else may happen.
// The decoder must also agree with the tree parser the other feeds are read with: the same
// texts accepted, holding the same values, and the same refused with the same description.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "foundation/json_document.hpp"
#include "fuzz_support.hpp"
#include "services/answers.hpp"

using namespace sorvan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = fuzz::textOf(data, size);
    std::string why;
    auto answer = json::Document::parse(text, &why);
    auto tree = json::parse(text);
    if (static_cast<bool>(answer) != tree.value.has_value()) {
        std::abort();  // one parser took a text the other refused
    }
    if (!answer) {
        if (why != tree.errorDescription) {
            std::abort();
        }
        return 0;
    }
    if (answer->root().toValue().dump() != tree.value->dump()) {
        std::abort();
    }
    const json::Node root = answer->root();
    services::readPins(root, "keyword", {13.75, 100.5});
    services::readWords(root, "keyword");
    auto lines = services::readPolylines(root, 7);
    try {
        auto head = services::readRouteHead(answer);
        // The steps joined once with the path's lines and once without any.
        services::joinGuide(head.routeJson, lines);
        services::joinGuide(head.routeJson, std::nullopt);
    } catch (const json::StructureError&) {
        // The route client catches it and answers (nil, nil) with its log line.
    }
    return 0;
}

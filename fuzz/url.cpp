// URL text and the query and path encoders. The input is split at its first NUL: the part
// before is parsed as a URL, the part after is used as a path and a query set on it. Checks
// what the encoders promise: their output is itself a valid URL, and decoding gives the text
// back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.hpp"
#include "sorvan/platform/foundation/url.hpp"

using namespace sorvan;

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input = fuzz::textOf(data, size);
    std::string_view text = input.substr(0, input.find('\0'));
    std::string_view extra =
        text.size() < input.size() ? input.substr(text.size() + 1) : std::string_view();

    if (auto url = net::URL::fromString(text)) {
        (void)url->scheme();
        (void)url->host();
        (void)url->port();
        (void)url->path();
        (void)url->query();
        auto appended = url->appendingPathComponent(extra);
        check(net::URL::fromString(appended.absoluteString()).has_value());
    }

    std::string query = net::percentEncodeQuery(extra);
    check(net::percentDecode(query) == extra);
    std::string path = net::percentEncodePath(extra);
    check(net::percentDecode(path) == extra);
    (void)net::percentDecode(text);

    if (auto components = net::URLComponents::fromString(text)) {
        (void)components->string();
        components->setPath(extra);
        components->setQuery(extra);
        (void)components->url();
        components->setHost(std::string(extra));
        components->setQuery(std::nullopt);
        (void)components->string();
        (void)components->url();
    }
    return 0;
}

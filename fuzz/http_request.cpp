// The embedded service's request parser: a pure function of the bytes read so far. Besides
// not crashing, an answer must be consistent: a complete head lies within the buffer, an
// invalid one names a status to answer, and reading the head's query items works.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fuzz_support.hpp"
#include "http_message.hpp"

using namespace sorvan;
using server::http::ParseOutcome;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view buffer = fuzz::textOf(data, size);
    ParseOutcome outcome = server::http::parseRequestHead(buffer);
    switch (outcome.kind) {
        case ParseOutcome::Kind::Complete:
            if (outcome.parsed.headBytes == 0 || outcome.parsed.headBytes > buffer.size()) {
                std::abort();
            }
            (void)outcome.parsed.request.queryItems();
            (void)outcome.parsed.request.queryItem("key");
            break;
        case ParseOutcome::Kind::Invalid:
            if (outcome.status < 400 || outcome.status > 599) {
                std::abort();
            }
            (void)server::http::reasonPhrase(outcome.status);
            break;
        case ParseOutcome::Kind::Incomplete:
            break;
    }
    return 0;
}

// UTM text as the kit reads it (lenient) and as the command checks it (strict), and the way
// back: whatever coordinate the text gives, writing it as UTM text must work.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "SorvanMapSDK/SMGeodesy.hpp"
#include "fuzz_support.hpp"
#include "geodesy_input.hpp"

using namespace sorvan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text = fuzz::textOf(data, size);
    try {
        auto coordinate = geodesy::coordinateFromUTM(text);
        (void)geodesy::UTMFrom(coordinate, true);
        (void)geodesy::UTMFrom(coordinate, false);
    } catch (const std::invalid_argument&) {
    }

    std::string compact, error;
    if (cli::checkUTM(text, compact, error)) {
        try {
            (void)geodesy::coordinateFromUTM(compact);
        } catch (const std::invalid_argument&) {
        }
    }
    if (auto coordinate = cli::parseCoordinate(text, error)) {
        (void)geodesy::UTMFrom(*coordinate, true);
    }
    return 0;
}

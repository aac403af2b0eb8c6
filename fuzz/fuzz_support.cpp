#include "fuzz_support.hpp"

#include <cstdlib>

#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::fuzz {

void quietLog() {
    // Debug takes every line through formatting, where a bad argument would show.
    log::setLevel(log::Level::debug);
    log::setSink([](log::Level, std::string_view) {});
}

}  // namespace sorvan::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sorvan::fuzz::quietLog();
    return 0;
}

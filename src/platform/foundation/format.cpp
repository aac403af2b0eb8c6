#include "sorvan/platform/foundation/format.hpp"

#include <cstdio>

namespace sorvan {

std::string vstrformat(const char* format, va_list args) {
    char stackBuffer[512];
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, copy);
    va_end(copy);
    if (n < 0) {
        return {};
    }
    if (static_cast<size_t>(n) < sizeof stackBuffer) {
        return std::string(stackBuffer, static_cast<size_t>(n));
    }
    std::string out(static_cast<size_t>(n), '\0');
    std::vsnprintf(out.data(), out.size() + 1, format, args);
    return out;
}

std::string strformat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string out = vstrformat(format, args);
    va_end(args);
    return out;
}

}  // namespace sorvan

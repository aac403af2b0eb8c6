// printf formatting into std::string. The system's observable texts are printf formats
// ("%f" = six decimals, "%.0f" = every integer digit, "%02X", "%015.0f"); a text argument is
// always "%s". Thread-safe.
#pragma once

#include <cstdarg>
#include <string>

#include "sorvan/platform/export.hpp"

namespace sorvan {

SORVAN_EXPORT std::string strformat(const char* format, ...) __attribute__((format(printf, 1, 2)));
SORVAN_EXPORT std::string vstrformat(const char* format, va_list args);

}  // namespace sorvan

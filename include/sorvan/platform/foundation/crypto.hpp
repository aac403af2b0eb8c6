// Digests. Thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "sorvan/platform/export.hpp"

namespace sorvan::crypto {

SORVAN_EXPORT std::array<std::uint8_t, 32> sha256(std::string_view bytes);

}  // namespace sorvan::crypto

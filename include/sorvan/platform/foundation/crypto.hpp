// Digests. Thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace sorvan::crypto {

std::array<std::uint8_t, 32> sha256(std::string_view bytes);

}  // namespace sorvan::crypto

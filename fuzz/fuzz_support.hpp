// What every fuzz target shares: the kit's log lines go to a sink that drops them (so they are
// still formatted, and a run does not drown in them), and a few helpers over the input bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace sorvan::fuzz {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

inline std::span<const std::uint8_t> bytesOf(const std::uint8_t* data, std::size_t size) {
    return {data, size};
}

/// Called once from every target's LLVMFuzzerInitialize.
void quietLog();

}  // namespace sorvan::fuzz

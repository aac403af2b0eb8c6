#include "sorvan/platform/foundation/crypto.hpp"

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>

#include "foundation/c_handle.hpp"

namespace sorvan::crypto {

std::array<std::uint8_t, 32> sha256(std::string_view bytes) {
    std::array<std::uint8_t, 32> digest{};
    CHandle<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
    unsigned int length = 0;
    // These fail only when memory runs out; a wrong digest would corrupt the tile cache, so
    // that is an error rather than a silent value.
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1 ||
        EVP_DigestUpdate(context.get(), bytes.data(), bytes.size()) != 1 ||
        EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1 || length != digest.size()) {
        throw std::runtime_error("SHA-256 could not be computed");
    }
    return digest;
}

}  // namespace sorvan::crypto

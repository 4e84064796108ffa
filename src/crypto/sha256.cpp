#include "crypto/sha256.h"

#include "handles/openssl.h"

namespace {

struct module_state {
    evp_md_ctx_ptr context; // kept with its algorithm: looking that up takes longer than hashing
};
module_state state;

bool begin()
{
    if (state.context != nullptr) {
        return EVP_DigestInit_ex(state.context.get(), nullptr, nullptr) == 1;
    }
    state.context.reset(EVP_MD_CTX_new());
    return state.context != nullptr &&
           EVP_DigestInit_ex(state.context.get(), EVP_sha256(), nullptr) == 1;
}

} // namespace

std::optional<sha256_digest> sha256(std::span<const std::uint8_t> head,
                                    std::span<const std::uint8_t> tail)
{
    sha256_digest digest{};
    const bool done = begin() &&
                      EVP_DigestUpdate(state.context.get(), head.data(), head.size()) == 1 &&
                      EVP_DigestUpdate(state.context.get(), tail.data(), tail.size()) == 1 &&
                      EVP_DigestFinal_ex(state.context.get(), digest.data(), nullptr) == 1;
    if (!done) {
        state.context.reset();
        return std::nullopt;
    }
    return digest;
}

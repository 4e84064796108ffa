#include <openssl/err.h>

#include "allocation_meter.h"
#include "fakes/app_attest_maker.h"
#include "fuzz_target.h"
#include "handles/openssl.h"
#include "ios_validation/signature.h"

/// A key, a signature, a message: each of the first two behind its length. The short way for P-256
/// keys gives what OpenSSL's generic decoder gives.

namespace {

bool generic_verify(fuzz_bytes der, fuzz_bytes message, fuzz_bytes signature)
{
    const std::uint8_t *position = der.data();
    const evp_pkey_ptr key{d2i_PUBKEY(nullptr, &position, static_cast<long>(der.size()))};
    const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
    return key != nullptr && position == der.data() + der.size() &&
           EVP_PKEY_base_id(key.get()) == EVP_PKEY_EC &&
           EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                            message.size()) == 1;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input in{data, size};
    const fuzz_bytes der = in.bytes(in.word());
    const fuzz_bytes signature = in.bytes(in.word());
    const fuzz_bytes message = in.rest();
    const bool good = ios_app_signature_verify(der, message, signature); // and what is made once
    {
        const allocation_meter meter;
        FUZZ_REQUIRE(ios_app_signature_verify(der, message, signature) == good);
        FUZZ_REQUIRE(meter.peak() <= 32 * size + 64 * 1024);
    }
    FUZZ_REQUIRE(good == generic_verify(der, message, signature));
    ERR_clear_error();
    return 0;
}

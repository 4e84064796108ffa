#include <string>

#include "allocation_meter.h"
#include "ios_phone.h"
#include "ios_validation/certificate.h"

/// The credential certificate's DER, its chain taken as good.

namespace {

void accepted(const X509 *certificate, fuzz_bytes der)
{
    FUZZ_REQUIRE(fuzz_contains(der, ios_app_certificate_nonce_extension(certificate)));
    const auto key = ios_app_certificate_public_key(certificate);
    if (!key) {
        return;
    }
    FUZZ_REQUIRE(fuzz_contains(der, key->point));
    const std::uint8_t *position = key->der.get();
    const evp_pkey_ptr loaded{d2i_PUBKEY(nullptr, &position, static_cast<long>(key->der_length))};
    FUZZ_REQUIRE(loaded != nullptr && position == key->der.get() + key->der_length);
    FUZZ_REQUIRE(EVP_PKEY_base_id(loaded.get()) == EVP_PKEY_EC);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const std::string root = certificate_pem(the_ios_phone().phone.root.certificate.get());
    const fuzz_bytes der{data, size};
    const allocation_meter meter;
    // It is the credential certificate and the link of the chain at once.
    const x509_ptr leaf = ios_app_certificate_verify(root.c_str(), der, der);
    if (leaf != nullptr) {
        accepted(leaf.get(), der);
    }
    FUZZ_REQUIRE(meter.peak() <= 400 * size + 64 * 1024);
    if (leaf != nullptr) { // a link that was good is kept for the next time
        FUZZ_REQUIRE(ios_app_certificate_verify(root.c_str(), der, der) != nullptr);
    }
    return 0;
}

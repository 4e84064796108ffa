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
    const ios_phone &phone = the_ios_phone();
    static const std::string root = certificate_pem(phone.phone.root.certificate.get());
    const fuzz_bytes der{data, size};
    const allocation_meter meter;
    if (const x509_ptr leaf = ios_app_certificate_verify(root.c_str(), der, phone.intermediate())) {
        accepted(leaf.get(), der);
    }
    FUZZ_REQUIRE(meter.peak() <= 200 * size + 64 * 1024);
    // As a link of the chain it is parsed too, and one that is good is kept for the next time.
    static const test_bytes leaf = phone.leaf({});
    const bool once = ios_app_certificate_verify(root.c_str(), leaf, der) != nullptr;
    const bool twice = ios_app_certificate_verify(root.c_str(), leaf, der) != nullptr;
    FUZZ_REQUIRE(once == twice);
    return 0;
}

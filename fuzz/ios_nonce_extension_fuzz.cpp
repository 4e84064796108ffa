#include <algorithm>

#include "allocation_meter.h"
#include "ios_phone.h"
#include "ios_validation/certificate.h"

/// The value of the credential certificate's nonce extension. Where the input has "nonce", the
/// right nonce stands.

namespace {

struct good_object {
    const ios_phone &phone = the_ios_phone();
    std::string root = certificate_pem(phone.phone.root.certificate.get());
    test_bytes auth_data = phone.phone.auth_data().attestation();
    test_bytes nonce = sha256_of(bytes_joined({auth_data, phone.hash}));
};

void with_nonce(test_bytes *value, const test_bytes &nonce)
{
    constexpr std::string_view mark = "nonce";
    const auto at = std::search(value->begin(), value->end(), mark.begin(), mark.end());
    if (at != value->end()) {
        value->insert(value->erase(at, at + mark.size()), nonce.begin(), nonce.end());
    }
}

void is_found(const X509 *certificate, const test_bytes &value)
{
    FUZZ_REQUIRE(std::ranges::equal(ios_app_certificate_nonce_extension(certificate), value));
}

/// The certificate is encoded and parsed, which takes most of the time, and the attestation checked.
void is_attested(const good_object &good, const test_bytes &value, std::size_t size, bool wanted)
{
    const test_bytes leaf = good.phone.leaf(value);
    const x509_ptr parsed =
        ios_app_certificate_verify(good.root.c_str(), leaf, good.phone.intermediate());
    FUZZ_REQUIRE(parsed != nullptr);
    is_found(parsed.get(), value);

    attestation_parts parts;
    parts.auth_data = good.auth_data;
    parts.x5c = {leaf, good.phone.intermediate()};
    const test_bytes object = parts.encode();
    const allocation_meter meter;
    const ios_outcome outcome = good.phone.attest(ios_phone_app_id, object, good.phone.hash);
    FUZZ_REQUIRE(meter.peak() <= 16 * size + 200 * 1024);
    FUZZ_REQUIRE((outcome.result != 0) == (wanted && leaf.size() <= 4096));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const good_object good;
    test_bytes value{data, data + size};
    with_nonce(&value, good.nonce);
    is_found(good.phone.credential(value), value);
    const bool ends_in_nonce =
        value.size() >= 32 && std::equal(good.nonce.begin(), good.nonce.end(), value.end() - 32);
    if (ends_in_nonce || size % 8 == 0) { // of the refused ones, some
        is_attested(good, value, size, ends_in_nonce);
    }
    return 0;
}

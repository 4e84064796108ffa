#include <string>

#include "allocation_meter.h"
#include "ios_phone.h"

/// An attestation as it travels: app id, NUL, 32 bytes of hash, object. The chain is taken as good.

namespace {

void accepted(const ios_outcome &outcome, fuzz_bytes object, const std::string &app_id)
{
    const test_bytes &key = outcome.keys.front();
    const std::uint8_t *position = key.data();
    const evp_pkey_ptr loaded{d2i_PUBKEY(nullptr, &position, static_cast<long>(key.size()))};
    FUZZ_REQUIRE(loaded != nullptr && EVP_PKEY_base_id(loaded.get()) == EVP_PKEY_EC);
    // The app's hash stands in the object, and so do the key and the hash of its point.
    const test_bytes id = sha256_of(bytes_of(app_id));
    FUZZ_REQUIRE(fuzz_contains(object, id));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const ios_phone &phone = the_ios_phone();
    fuzz_input in{data, size};
    std::string app_id{in.text_until('\0')};
    app_id = app_id.empty() ? "x" : app_id;
    const fuzz_bytes hash = in.bytes(32);
    const fuzz_bytes object = in.rest();
    const allocation_meter meter;
    const ios_outcome outcome = phone.attest(app_id.c_str(), object, hash);
    // OpenSSL's view of a certificate is many times its DER.
    FUZZ_REQUIRE(meter.peak() <= 200 * size + 64 * 1024);
    if (outcome.result != 0) {
        accepted(outcome, object, app_id);
    }
    // Nothing of a check is kept for the next one.
    FUZZ_REQUIRE(phone.attest(app_id.c_str(), object, hash).result == outcome.result);
    return 0;
}

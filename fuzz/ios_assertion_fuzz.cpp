#include <algorithm>

#include "allocation_meter.h"
#include "ios_phone.h"

/// Assertions. The first byte says what follows. 0: the object as a phone sends it, checked with the
/// key and hash of a real phone. Otherwise: four bytes of stored counter, then authenticator data,
/// which gets a good signature.

namespace {

std::uint32_t number(fuzz_bytes bytes)
{
    std::uint32_t value = 0;
    for (const std::uint8_t byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

void raw(const ios_phone &phone, fuzz_bytes object)
{
    static const app_attest_sample sample = app_attest_sample_load("ios-14.4");
    const allocation_meter meter;
    const ios_outcome outcome =
        phone.check_assertion(sample.public_key, 0, object, sample.assertion->client_data_hash);
    FUZZ_REQUIRE(meter.peak() <= 200 * object.size() + 64 * 1024);
    // The key signed for another app, so even an object whose signature is good is refused.
    FUZZ_REQUIRE(outcome.result == 0);
}

void signed_by_the_phone(const ios_phone &phone, std::uint32_t stored, fuzz_bytes bytes)
{
    test_bytes auth_data{bytes.begin(), bytes.end()};
    const test_bytes id = sha256_of(bytes_of(ios_phone_app_id));
    if (auth_data.size() >= id.size() && fuzz_text(bytes).starts_with("good")) {
        std::ranges::copy(id, auth_data.begin());
    }
    const test_bytes nonce = sha256_of(bytes_joined({auth_data, phone.hash}));
    const test_bytes object = assertion_encode(ecdsa_sign(phone.phone.key.get(), nonce), auth_data);
    const ios_outcome outcome =
        phone.check_assertion(public_key_der(phone.phone.key.get()), stored, object, phone.hash);
    const bool good = auth_data.size() >= 37 && auth_data.size() <= 4096 &&
                      std::ranges::equal(fuzz_bytes{auth_data}.first(32), id) &&
                      stored != ios_app_counter_unknown &&
                      number(fuzz_bytes{auth_data}.subspan(33, 4)) > stored;
    FUZZ_REQUIRE((outcome.result != 0) == good);
    if (good) {
        FUZZ_REQUIRE(outcome.counters.front() == number(fuzz_bytes{auth_data}.subspan(33, 4)));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const ios_phone &phone = the_ios_phone();
    fuzz_input in{data, size};
    if (in.byte() == 0) {
        raw(phone, in.rest());
        return 0;
    }
    const std::uint32_t stored = number(in.bytes(4));
    signed_by_the_phone(phone, stored, in.rest());
    return 0;
}

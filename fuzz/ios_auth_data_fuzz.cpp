#include <algorithm>

#include "allocation_meter.h"
#include "ios_phone.h"
#include "ios_validation/auth_data.h"

/// Authenticator data, below the signature: around the input stand a good object and certificate.

namespace {

bool holds_at(fuzz_bytes bytes, std::size_t at, fuzz_bytes expected)
{
    return bytes.size() >= at + expected.size() &&
           std::ranges::equal(bytes.subspan(at, expected.size()), expected);
}

struct good_phone {
    const ios_phone &phone = the_ios_phone();
    test_bytes id = sha256_of(bytes_of(ios_phone_app_id));
    test_bytes credential = sha256_of(public_key_point(phone.phone.key.get()));
    test_bytes key = public_key_der(phone.phone.key.get());
};

/// The whole rule once more, byte by byte.
bool should_pass(const good_phone &good, fuzz_bytes bytes)
{
    constexpr std::uint8_t no_counter[4] = {};
    return holds_at(bytes, 0, good.id) && holds_at(bytes, 33, no_counter) &&
           (holds_at(bytes, 37, aaguid_production) || holds_at(bytes, 37, aaguid_develop)) &&
           holds_at(bytes, 55, good.credential) && (bytes[53] != 0 || bytes[54] >= 32);
}

void attestation(const good_phone &good, fuzz_bytes bytes)
{
    const ios_phone &phone = good.phone;
    attestation_parts parts;
    parts.auth_data = {bytes.begin(), bytes.end()};
    parts.x5c = {phone.leaf_with_nonce(sha256_of(bytes_joined({parts.auth_data, phone.hash}))),
                 phone.intermediate()};
    const test_bytes object = parts.encode();
    const allocation_meter meter;
    const ios_outcome outcome = phone.attest(ios_phone_app_id, object, phone.hash);
    FUZZ_REQUIRE(meter.peak() <= 2 * bytes.size() + 200 * 1024);
    FUZZ_REQUIRE((outcome.result != 0) == should_pass(good, bytes));
    if (outcome.result != 0) {
        FUZZ_REQUIRE(outcome.keys.front() == good.key);
    }
}

void parse(fuzz_bytes bytes)
{
    const allocation_meter meter;
    const auto attested = ios_auth_data_parse(bytes, ios_auth_data_mode::attestation);
    const auto asserted = ios_auth_data_parse(bytes, ios_auth_data_mode::assertion);
    FUZZ_REQUIRE(meter.peak() == 0);
    FUZZ_REQUIRE(asserted.has_value() == (bytes.size() >= 37));
    FUZZ_REQUIRE(!attested || bytes.size() >= 87);
    if (attested) {
        // Written anew, the fields are the bytes that they came from.
        auth_data_wish wish;
        wish.rp_id_hash = {attested->rp_id_hash.begin(), attested->rp_id_hash.end()};
        wish.flags = bytes[32]; // not looked at
        wish.counter = attested->counter;
        wish.aaguid = attested->aaguid;
        wish.credential_id = {attested->credential_id.begin(), attested->credential_id.end()};
        const test_bytes again = wish.attestation();
        FUZZ_REQUIRE(std::ranges::equal(bytes.first(53), fuzz_bytes{again}.first(53)));
        FUZZ_REQUIRE(std::ranges::equal(bytes.subspan(55, 32), fuzz_bytes{again}.subspan(55, 32)));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const good_phone good;
    const fuzz_bytes bytes{data, size};
    // The key is another one in each process, so a good credential id cannot stand in a file: four
    // bytes of "good" in the place of an app id hash or a credential id become the right ones.
    test_bytes patched{bytes.begin(), bytes.end()};
    const auto patch = [&patched](std::size_t at, const test_bytes &right) {
        if (holds_at(patched, at, bytes_of("good")) && patched.size() >= at + right.size()) {
            std::ranges::copy(right, patched.begin() + static_cast<std::ptrdiff_t>(at));
        }
    };
    patch(0, good.id);
    patch(55, good.credential);
    parse(patched);
    if (!patched.empty() && patched.size() <= 4096) {
        attestation(good, patched);
    }
    return 0;
}

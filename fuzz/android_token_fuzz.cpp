#include <jansson.h>

#include <memory>
#include <string>

#include "allocation_meter.h"
#include "android_validation/token.h"
#include "fakes/integrity_token_maker.h"
#include "fuzz_target.h"

/// Play Integrity tokens. The first byte says what the input is:
/// 0, the token as a phone sends it;
/// 1, the header of a JWE, whose rest is made to fit;
/// 2, the content of a JWE;
/// 3, the header and, behind a NUL, the payload of a JWS with a good signature;
/// 4, the parts of a JWE, each behind its length.

namespace {

struct keys {
    test_bytes secret = sha256_of(bytes_of("decryption key"));
    evp_pkey_ptr signer = ec_key_make(NID_X9_62_prime256v1);
    std::string decryption = jwk_of(secret);
    std::string verification = jwk_of(signer.get());
};

test_bytes bytes_in(fuzz_input *in)
{
    const fuzz_bytes bytes = in->bytes(in->word());
    return {bytes.begin(), bytes.end()};
}

std::string parts_made(fuzz_input in)
{
    jwe_parts parts;
    parts.header = fuzz_text(in.bytes(in.word()));
    parts.encrypted_key = bytes_in(&in);
    parts.iv = bytes_in(&in);
    parts.ciphertext = bytes_in(&in);
    parts.tag = bytes_in(&in);
    return parts.compact();
}

/// A token that nobody could have made without a key is never opened.
void refused(const keys &with, std::string_view token)
{
    FUZZ_REQUIRE(!android_token_open(fuzz_bytes_of(token), with.decryption, with.verification));
}

std::string jwe_of(const keys &with, std::string_view text)
{
    return jwe_make({with.secret}, text).compact();
}

/// Signed and encrypted by the right keys: what comes out is what was signed.
void signed_payload(const keys &with, fuzz_input in)
{
    const std::string header{in.text_until('\0')};
    const std::string payload{fuzz_text(in.rest())};
    const std::string token = jwe_of(with, jws_make(with.signer.get(), payload, header));
    const auto opened =
        android_token_open(fuzz_bytes_of(token), with.decryption, with.verification);
    FUZZ_REQUIRE(!opened || *opened == payload);
    const bool is_plain = header == R"({"alg":"ES256"})" && !payload.empty();
    FUZZ_REQUIRE(opened || !is_plain || token.size() > android_token_max_length);
}

bool says(const json_t *object, const char *name, std::string_view value)
{
    const char *const text = json_string_value(json_object_get(object, name));
    return text != nullptr && value == text;
}

/// With any header the content is encrypted as ours is: what is opened says so.
void header(const keys &with, std::string_view text)
{
    jwe_wish wish{with.secret};
    wish.header = text;
    const std::string token = jwe_make(wish, jws_make(with.signer.get(), "payload")).compact();
    const auto opened =
        android_token_open(fuzz_bytes_of(token), with.decryption, with.verification);
    if (opened) {
        FUZZ_REQUIRE(*opened == "payload");
        const std::unique_ptr<json_t, decltype(&json_decref)> seen{
            json_loadb(text.data(), text.size(), 0, nullptr), json_decref};
        FUZZ_REQUIRE(says(seen.get(), "alg", "A256KW") && says(seen.get(), "enc", "A256GCM"));
        FUZZ_REQUIRE(json_object_get(seen.get(), "zip") == nullptr);
        FUZZ_REQUIRE(json_object_get(seen.get(), "crit") == nullptr);
    }
}

void run(const keys &with, fuzz_input in)
{
    switch (in.byte()) {
    case 0:
        refused(with, fuzz_text(in.rest()));
        break;
    case 1:
        header(with, fuzz_text(in.rest()));
        break;
    case 2:
        refused(with, jwe_of(with, fuzz_text(in.rest())));
        break;
    case 3:
        signed_payload(with, in);
        break;
    default:
        refused(with, parts_made(in));
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const keys with;
    run(with, {data, size}); // what the libraries make once
    const allocation_meter meter;
    run(with, {data, size});
    FUZZ_REQUIRE(meter.peak() <= 64 * size + 128 * 1024);
    return 0;
}

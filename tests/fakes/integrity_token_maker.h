#pragma once

#include <string>
#include <string_view>

#include "fakes/app_attest_maker.h"

/// Makes Play Integrity tokens as Google does, on OpenSSL alone, with every part open to bending.

/// RFC 7515: no padding.
[[nodiscard]] std::string base64url_make(const test_bytes &bytes);
[[nodiscard]] std::string base64url_make(std::string_view text);

/// A JWK of the bytes, and of an EC key's public half.
[[nodiscard]] std::string jwk_of(const test_bytes &secret);
[[nodiscard]] std::string jwk_of(EVP_PKEY *key, const char *curve = "P-256");

/// A compact JWS by ES256: header and payload as they stand.
[[nodiscard]] std::string jws_make(EVP_PKEY *key, std::string_view payload,
                                   std::string_view header = R"({"alg":"ES256"})");
/// The same by HS256 with any secret.
[[nodiscard]] std::string jws_make_hs256(const test_bytes &secret, std::string_view payload,
                                         std::string_view header = R"({"alg":"HS256"})");

/// The five parts of a compact JWE before they are encoded.
struct jwe_parts {
    std::string header;
    test_bytes encrypted_key;
    test_bytes iv;
    test_bytes ciphertext;
    test_bytes tag;

    [[nodiscard]] std::string compact() const;
};

struct jwe_wish {
    test_bytes key; // 32 bytes, which wrap the content's key
    std::string header = R"({"alg":"A256KW","enc":"A256GCM"})";
    std::size_t iv_length = 12;
    std::size_t content_key_length = 32;
};
/// A256GCM of `text` under a fresh key, itself wrapped with AES; the header is authenticated.
[[nodiscard]] jwe_parts jwe_make(const jwe_wish &wish, std::string_view text);

/// AES key wrap (RFC 3394).
[[nodiscard]] test_bytes key_wrap(const test_bytes &key, const test_bytes &secret);

#include "fakes/integrity_token_maker.h"

#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <cstdio>
#include <cstdlib>

namespace {

using cipher_ptr = handle<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using ecdsa_sig_ptr = handle<ECDSA_SIG, ECDSA_SIG_free>;

constexpr std::size_t tag_length = 16;
constexpr int coordinate_length = 32;

/// A call of the maker that failed leaves nothing to test.
void require(bool condition, const char *what)
{
    if (!condition) {
        std::fprintf(stderr, "integrity token maker: %s\n", what);
        std::abort();
    }
}

int length_of(const test_bytes &bytes)
{
    return static_cast<int>(bytes.size());
}

test_bytes random_bytes(std::size_t count)
{
    test_bytes bytes(count);
    require(RAND_bytes(bytes.data(), length_of(bytes)) == 1, "RAND_bytes");
    return bytes;
}

/// r and s, 32 bytes each, from the DER that OpenSSL gives.
test_bytes raw_signature(const test_bytes &der)
{
    const unsigned char *at = der.data();
    const ecdsa_sig_ptr signature{d2i_ECDSA_SIG(nullptr, &at, length_of(der))};
    require(signature != nullptr, "d2i_ECDSA_SIG");
    test_bytes raw(2 * coordinate_length);
    BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), raw.data(), coordinate_length);
    BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), raw.data() + coordinate_length,
                 coordinate_length);
    return raw;
}

std::string signing_input(std::string_view header, std::string_view payload)
{
    return base64url_make(header) + "." + base64url_make(payload);
}

} // namespace

std::string base64url_make(const test_bytes &bytes)
{
    std::string text(4 * (bytes.size() / 3 + 1) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()), bytes.data(),
                                       length_of(bytes));
    text.resize(static_cast<std::size_t>(length));
    while (text.ends_with('=')) {
        text.pop_back();
    }
    for (char &c : text) {
        c = c == '+' ? '-' : c == '/' ? '_' : c;
    }
    return text;
}

std::string base64url_make(std::string_view text)
{
    return base64url_make(bytes_of(text));
}

std::string jwk_of(const test_bytes &secret)
{
    return R"({"kty":"oct","k":")" + base64url_make(secret) + R"("})";
}

std::string jwk_of(EVP_PKEY *key, const char *curve)
{
    const test_bytes der = public_key_der(key);
    const std::size_t width = std::string_view{curve} == "P-384" ? 48 : coordinate_length;
    const auto y = der.end() - static_cast<std::ptrdiff_t>(width);
    const auto x = y - static_cast<std::ptrdiff_t>(width);
    return std::string{R"({"kty":"EC","crv":")"} + curve + R"(","x":")" +
           base64url_make(test_bytes{x, y}) + R"(","y":")" +
           base64url_make(test_bytes{y, der.end()}) + R"("})";
}

std::string jws_make(EVP_PKEY *key, std::string_view payload, std::string_view header)
{
    const std::string input = signing_input(header, payload);
    return input + "." + base64url_make(raw_signature(ecdsa_sign(key, bytes_of(input))));
}

std::string jws_make_hs256(const test_bytes &secret, std::string_view payload,
                           std::string_view header)
{
    const std::string input = signing_input(header, payload);
    const test_bytes message = bytes_of(input);
    test_bytes mac(32);
    require(HMAC(EVP_sha256(), secret.data(), length_of(secret), message.data(), message.size(),
                 mac.data(), nullptr) != nullptr,
            "HMAC");
    return input + "." + base64url_make(mac);
}

std::string jwe_parts::compact() const
{
    return base64url_make(header) + "." + base64url_make(encrypted_key) + "." + base64url_make(iv) +
           "." + base64url_make(ciphertext) + "." + base64url_make(tag);
}

test_bytes key_wrap(const test_bytes &key, const test_bytes &secret)
{
    const cipher_ptr context{EVP_CIPHER_CTX_new()};
    require(context != nullptr, "EVP_CIPHER_CTX_new");
    EVP_CIPHER_CTX_set_flags(context.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    require(EVP_EncryptInit_ex(context.get(), EVP_aes_256_wrap(), nullptr, key.data(), nullptr) ==
                1,
            "EVP_aes_256_wrap");
    test_bytes wrapped(secret.size() + 16);
    int length = 0;
    require(EVP_EncryptUpdate(context.get(), wrapped.data(), &length, secret.data(),
                              length_of(secret)) == 1,
            "key wrap");
    wrapped.resize(static_cast<std::size_t>(length));
    return wrapped;
}

jwe_parts jwe_make(const jwe_wish &wish, std::string_view text)
{
    // The cipher takes 32 bytes of it; a longer one is for what unwraps it.
    const test_bytes content_key = random_bytes(wish.content_key_length);
    jwe_parts jwe{
        wish.header, key_wrap(wish.key, content_key), random_bytes(wish.iv_length), {}, {}};
    const test_bytes aad = bytes_of(base64url_make(wish.header));
    const test_bytes plain = bytes_of(text);
    jwe.ciphertext.resize(plain.size());
    jwe.tag.resize(tag_length);
    const cipher_ptr context{EVP_CIPHER_CTX_new()};
    require(context != nullptr, "EVP_CIPHER_CTX_new");
    int length = 0;
    require(
        EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) == 1 &&
            EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_IVLEN, length_of(jwe.iv),
                                nullptr) == 1 &&
            EVP_EncryptInit_ex(context.get(), nullptr, nullptr, content_key.data(),
                               jwe.iv.data()) == 1 &&
            EVP_EncryptUpdate(context.get(), nullptr, &length, aad.data(), length_of(aad)) == 1 &&
            EVP_EncryptUpdate(context.get(), jwe.ciphertext.data(), &length, plain.data(),
                              length_of(plain)) == 1 &&
            EVP_EncryptFinal_ex(context.get(), jwe.ciphertext.data() + length, &length) == 1 &&
            EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, tag_length, jwe.tag.data()) ==
                1,
        "A256GCM");
    return jwe;
}

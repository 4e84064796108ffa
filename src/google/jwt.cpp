#include "google/jwt.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdint>
#include <span>
#include <vector>

#include "crypto/openssl_error.h"
#include "handles/cjose.h"
#include "handles/openssl.h"
#include "logger/fatal.h"
#include "text/or_empty.h"

namespace {

constexpr char log_category[] = "velm_google_auth";

constexpr int assertion_lifetime_s = 3600;

using byte_span = std::span<const std::uint8_t>;

byte_span bytes_of(const std::string &text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

int length_of(const std::string &text)
{
    return static_cast<int>(text.size());
}

std::optional<std::string> base64url(byte_span bytes)
{
    char *encoded = nullptr;
    std::size_t length = 0;
    cjose_err error{}; // cjose leaves it alone on some failures
    const bool ok = cjose_base64url_encode(bytes.data(), bytes.size(), &encoded, &length, &error);
    const cjose_text owned{encoded};
    if (!ok) {
        LOG_ERROR("%s - cjose_base64url_encode failed: %s, file: %s, function: %s, line: %ld",
                  __func__, text_or_empty(error.message), text_or_empty(error.file),
                  text_or_empty(error.function), static_cast<long>(error.line));
        return std::nullopt;
    }
    return std::string{encoded, length};
}

std::string printed(const cJSON *object)
{
    const json_text text{cJSON_PrintUnformatted(object)};
    REQUIRE_MEMORY(text, "text");
    return text.get();
}

std::string jwt_header()
{
    const json_ptr header{cJSON_CreateObject()};
    cJSON_AddStringToObject(header.get(), "alg", "RS256");
    cJSON_AddStringToObject(header.get(), "typ", "JWT");
    return printed(header.get());
}

std::string jwt_claim(const char *issuer, const char *scope, const char *audience, std::time_t now)
{
    const json_ptr claim{cJSON_CreateObject()};
    cJSON_AddStringToObject(claim.get(), "iss", issuer);
    cJSON_AddStringToObject(claim.get(), "scope", scope);
    cJSON_AddStringToObject(claim.get(), "aud", audience);
    cJSON_AddNumberToObject(claim.get(), "exp", static_cast<double>(now + assertion_lifetime_s));
    cJSON_AddNumberToObject(claim.get(), "iat", static_cast<double>(now));
    return printed(claim.get());
}

evp_pkey_ptr load_private_key(const char *pem)
{
    const bio_ptr bio{BIO_new_mem_buf(pem, -1)};
    if (bio == nullptr) {
        const openssl_error cause = openssl_take_oldest_error();
        LOG_ERROR("%s - BIO_new_mem_buf failed - 0x%lx - %s", __func__, cause.code,
                  cause.text.c_str());
        return nullptr;
    }
    evp_pkey_ptr key{PEM_read_bio_PrivateKey(bio.get(), nullptr, openssl_no_passphrase, nullptr)};
    if (key == nullptr) {
        const openssl_error cause = openssl_take_oldest_error();
        LOG_ERROR("%s - PEM_read_bio_PrivateKey failed - 0x%lx - %s", __func__, cause.code,
                  cause.text.c_str());
    }
    return key;
}

/// The padding is set by name, so that a key of another kind fails here and not at the service.
bool sign_init(EVP_MD_CTX *ctx, EVP_PKEY *key)
{
    EVP_PKEY_CTX *key_ctx = nullptr;
    return EVP_DigestSignInit(ctx, &key_ctx, EVP_sha256(), nullptr, key) == 1 &&
           EVP_PKEY_CTX_set_rsa_padding(key_ctx, RSA_PKCS1_PADDING) == 1;
}

std::optional<std::vector<std::uint8_t>> sign(EVP_PKEY *key, byte_span data)
{
    const evp_md_ctx_ptr ctx{EVP_MD_CTX_new()};
    REQUIRE_MEMORY(ctx, "ctx");
    if (!sign_init(ctx.get(), key)) {
        const openssl_error cause = openssl_take_oldest_error();
        LOG_ERROR("%s - EVP_DigestSignInit failed - 0x%lx - %s", __func__, cause.code,
                  cause.text.c_str());
        return std::nullopt;
    }
    if (EVP_DigestSignUpdate(ctx.get(), data.data(), data.size()) != 1) {
        const openssl_error cause = openssl_take_oldest_error();
        LOG_ERROR("%s - EVP_DigestSignUpdate failed - 0x%lx - %s", __func__, cause.code,
                  cause.text.c_str());
        return std::nullopt;
    }
    std::size_t length = 0;
    if (EVP_DigestSignFinal(ctx.get(), nullptr, &length) != 1) {
        const openssl_error cause = openssl_take_oldest_error();
        LOG_ERROR("%s - EVP_DigestSignFinal failed (1) - 0x%lx - %s", __func__, cause.code,
                  cause.text.c_str());
        return std::nullopt;
    }
    std::vector<std::uint8_t> signature(length);
    if (EVP_DigestSignFinal(ctx.get(), signature.data(), &length) != 1) {
        const openssl_error cause = openssl_take_oldest_error();
        LOG_ERROR("%s - EVP_DigestSignFinal failed (2) - 0x%lx - %s", __func__, cause.code,
                  cause.text.c_str());
        return std::nullopt;
    }
    signature.resize(length);
    return signature;
}

/// Encoded header "." encoded claims.
std::optional<std::string> data_to_sign(const char *issuer, const char *scope, const char *audience,
                                        std::time_t now)
{
    const std::string header = jwt_header();
    LOG_TRACE("%s - JWT header: %s", __func__, header.c_str());
    const std::optional<std::string> encoded_header = base64url(bytes_of(header));
    if (!encoded_header) {
        LOG_ERROR("%s - cannot encode jwt header", __func__);
        return std::nullopt;
    }
    const std::string claim = jwt_claim(issuer, scope, audience, now);
    LOG_TRACE("%s - JWT claim: %s", __func__, claim.c_str());
    const std::optional<std::string> encoded_claim = base64url(bytes_of(claim));
    if (!encoded_claim) {
        LOG_ERROR("%s - cannot encode jwt claim", __func__);
        return std::nullopt;
    }
    const std::string data = *encoded_header + "." + *encoded_claim;
    LOG_TRACE("%s - data to sign: %.*s", __func__, length_of(data), data.c_str());
    return data;
}

std::optional<std::string> encoded_signature(const char *private_key, const std::string &data)
{
    ERR_clear_error(); // what others left would be told as the cause
    LOG_TRACE("%s - private key: %s", __func__, private_key);
    const evp_pkey_ptr key = load_private_key(private_key);
    const auto signature = key != nullptr ? sign(key.get(), bytes_of(data)) : std::nullopt;
    if (!signature) {
        return std::nullopt;
    }
    std::optional<std::string> encoded = base64url(*signature);
    if (!encoded) {
        LOG_ERROR("%s - cannot encode jws signature", __func__);
        return std::nullopt;
    }
    LOG_TRACE("%s - signature: %.*s", __func__, length_of(*encoded), encoded->c_str());
    return encoded;
}

const char *text_member(const cJSON *object, const char *name)
{
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
}

} // namespace

std::optional<std::string> velm_google_auth_make_jwt(const cJSON *key, const char *scope,
                                                     const char *audience, std::time_t now)
{
    const char *client_email = text_member(key, "client_email");
    if (client_email == nullptr) {
        LOG_ERROR("%s - missing client_email", __func__);
        return std::nullopt;
    }
    const char *private_key = text_member(key, "private_key");
    if (private_key == nullptr) {
        LOG_ERROR("%s - missing private_key", __func__);
        return std::nullopt;
    }
    const std::optional<std::string> data = data_to_sign(client_email, scope, audience, now);
    const auto signature = data ? encoded_signature(private_key, *data) : std::nullopt;
    if (!signature) {
        return std::nullopt;
    }
    const std::string jwt = *data + "." + *signature;
    LOG_TRACE("%s - JWT: %.*s", __func__, length_of(jwt), jwt.c_str());
    return jwt;
}

#include "ios_validation/ios_app_signature.h"

#include <openssl/ec.h>

#include <algorithm>
#include <array>

#include "handles/openssl.h"
#include "ios_validation/ios_app_sha256.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "IAV";

/// All that stands before the 65 bytes of the point in a P-256 SubjectPublicKeyInfo:
/// SEQUENCE { SEQUENCE { id-ecPublicKey, prime256v1 }, BIT STRING without unused bits.
constexpr std::array<std::uint8_t, 26> p256_prefix = {
    0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01,
    0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00};
constexpr std::size_t p256_point_size = 65;
constexpr std::uint8_t uncompressed_point = 0x04;

/// A key and what verifies with it.
struct verifier {
    evp_pkey_ptr key;
    evp_pkey_ctx_ptr context;
};

struct module_state {
    verifier p256; // made on first use; each call sets its own point
};
module_state state;

bool is_p256(std::span<const std::uint8_t> der)
{
    return der.size() == p256_prefix.size() + p256_point_size &&
           std::equal(p256_prefix.begin(), p256_prefix.end(), der.begin()) &&
           der[p256_prefix.size()] == uncompressed_point;
}

/// A key without a point.
evp_pkey_ptr p256_key_make()
{
    const evp_pkey_ctx_ptr context{EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr)};
    EVP_PKEY *parameters = nullptr;
    if (context == nullptr || EVP_PKEY_paramgen_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), NID_X9_62_prime256v1) != 1 ||
        EVP_PKEY_paramgen(context.get(), &parameters) != 1) {
        return nullptr;
    }
    return evp_pkey_ptr{parameters};
}

/// Refuses a point that is not on the curve.
bool point_set(EVP_PKEY *key, std::span<const std::uint8_t> point)
{
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
    return EVP_PKEY_set1_encoded_public_key(key, point.data(), point.size()) == 1;
#else
    return EVP_PKEY_set1_tls_encodedpoint(key, point.data(), point.size()) == 1;
#endif
}

/// Every App Attest key is of this kind. OpenSSL's generic decoder takes longer than the verification
/// that follows, and a new context a thirtieth of it; setting the point takes a sixtieth. A point that
/// is refused takes the kept key with it, so that no call ever meets the point of another.
void p256_load(std::span<const std::uint8_t> point)
{
    if (state.p256.key == nullptr) {
        state.p256.key = p256_key_make();
    }
    if (state.p256.key != nullptr && !point_set(state.p256.key.get(), point)) {
        state.p256 = {};
    }
}

evp_pkey_ptr key_decode(std::span<const std::uint8_t> der)
{
    const std::uint8_t *position = der.data();
    evp_pkey_ptr key{d2i_PUBKEY(nullptr, &position, static_cast<long>(der.size()))};
    const bool whole = position == der.data() + der.size();
    if (key == nullptr || !whole || EVP_PKEY_base_id(key.get()) != EVP_PKEY_EC) {
        return nullptr;
    }
    return key;
}

bool context_init(verifier *with)
{
    if (with->context != nullptr) {
        return true;
    }
    with->context.reset(EVP_PKEY_CTX_new(with->key.get(), nullptr));
    return with->context != nullptr && EVP_PKEY_verify_init(with->context.get()) == 1;
}

bool message_verify(verifier *with, std::span<const std::uint8_t> message,
                    std::span<const std::uint8_t> signature)
{
    if (!context_init(with)) {
        LOG_DEBUG("Cannot init verify");
        return false;
    }
    const auto digest = ios_app_sha256(message);
    if (!digest.has_value()) {
        LOG_DEBUG("Cannot update verify");
        return false;
    }
    if (EVP_PKEY_verify(with->context.get(), signature.data(), signature.size(), digest->data(),
                        digest->size()) != 1) {
        LOG_DEBUG("Verify unsuccessful");
        return false;
    }
    return true;
}

} // namespace

bool ios_app_signature_verify(std::span<const std::uint8_t> public_key_der,
                              std::span<const std::uint8_t> message,
                              std::span<const std::uint8_t> signature)
{
    verifier decoded;
    verifier &with = is_p256(public_key_der) ? state.p256 : decoded;
    if (&with == &state.p256) {
        p256_load(public_key_der.subspan(p256_prefix.size()));
    } else {
        decoded.key = key_decode(public_key_der);
    }
    if (with.key == nullptr) {
        LOG_DEBUG("Cannot load pub key");
    }
    if (with.key == nullptr || !message_verify(&with, message, signature)) {
        LOG_DEBUG("Invalid signature");
        return false;
    }
    return true;
}

#include "ios_validation/ios_app_signature.h"

#include <openssl/ec.h>

#include <algorithm>
#include <array>
#include <utility>

#include "handles/openssl.h"
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

struct module_state {
    evp_pkey_ptr p256_key; // made on first use; each call sets its own point
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

evp_pkey_ptr key_shared(EVP_PKEY *key)
{
    return evp_pkey_ptr{EVP_PKEY_up_ref(key) == 1 ? key : nullptr};
}

/// Every App Attest key is of this kind, and OpenSSL's generic decoder takes longer than the
/// verification that follows; making a key around the point takes a twentieth of it. A point that
/// is refused takes the kept key with it, so that no call ever meets the point of another.
evp_pkey_ptr p256_key_load(std::span<const std::uint8_t> point)
{
    evp_pkey_ptr key = std::move(state.p256_key);
    if (key == nullptr) {
        key = p256_key_make();
    }
    if (key == nullptr || !point_set(key.get(), point)) {
        return nullptr;
    }
    state.p256_key = key_shared(key.get());
    return key;
}

evp_pkey_ptr public_key_load(std::span<const std::uint8_t> der)
{
    if (is_p256(der)) {
        return p256_key_load(der.subspan(p256_prefix.size()));
    }
    const std::uint8_t *position = der.data();
    evp_pkey_ptr key{d2i_PUBKEY(nullptr, &position, static_cast<long>(der.size()))};
    const bool whole = position == der.data() + der.size();
    if (key == nullptr || !whole || EVP_PKEY_base_id(key.get()) != EVP_PKEY_EC) {
        return nullptr;
    }
    return key;
}

bool message_verify(EVP_PKEY *key, std::span<const std::uint8_t> message,
                    std::span<const std::uint8_t> signature)
{
    const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
    if (context == nullptr ||
        EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key) != 1) {
        LOG_DEBUG("Cannot init verify");
        return false;
    }
    if (EVP_DigestVerifyUpdate(context.get(), message.data(), message.size()) != 1) {
        LOG_DEBUG("Cannot update verify");
        return false;
    }
    if (EVP_DigestVerifyFinal(context.get(), signature.data(), signature.size()) != 1) {
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
    const evp_pkey_ptr key = public_key_load(public_key_der);
    if (key == nullptr) {
        LOG_DEBUG("Cannot load pub key");
    }
    if (key == nullptr || !message_verify(key.get(), message, signature)) {
        LOG_DEBUG("Invalid signature");
        return false;
    }
    return true;
}

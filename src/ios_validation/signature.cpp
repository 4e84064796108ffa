#include "ios_validation/signature.h"

#include <openssl/ec.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "crypto/sha256.h"
#include "handles/openssl.h"
#include "logger/common_logger.h"
#include "story/reason.h"

namespace {

constexpr char log_category[] = "IAV";

/// All that stands before the 65 bytes of the point in a P-256 SubjectPublicKeyInfo:
/// SEQUENCE { SEQUENCE { id-ecPublicKey, prime256v1 }, BIT STRING without unused bits.
constexpr std::array<std::uint8_t, 26> p256_prefix = {
    0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01,
    0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00};
constexpr std::size_t p256_point_size = 65;
constexpr std::uint8_t uncompressed_point = 0x04;

// What the check at start verifies: the SHA-256 of "velmd", signed by the first key and not by the
// other. Both were made for this only and thrown away.
constexpr std::string_view self_test_message = "velmd";
constexpr std::array<std::uint8_t, p256_point_size> self_test_point = {
    0x04, 0x89, 0xe7, 0x18, 0x6c, 0x62, 0x6d, 0xe9, 0x47, 0x60, 0x9d, 0x8e, 0x62,
    0xd1, 0x18, 0xd6, 0x86, 0xf1, 0x9f, 0x0c, 0x5f, 0x94, 0xda, 0x95, 0x67, 0x08,
    0x2c, 0xff, 0x95, 0x01, 0xb3, 0xe0, 0xb2, 0x70, 0x62, 0x20, 0xe1, 0x5e, 0x48,
    0xe1, 0xdb, 0xbe, 0x09, 0x39, 0x45, 0xee, 0x73, 0x8d, 0xd3, 0x07, 0xd6, 0xaa,
    0x18, 0x50, 0xc1, 0x07, 0xad, 0x95, 0xba, 0x8a, 0x69, 0x81, 0xfa, 0x8e, 0x78};
constexpr std::array<std::uint8_t, p256_point_size> self_test_other_point = {
    0x04, 0x87, 0xb1, 0x7c, 0x50, 0x07, 0x1d, 0x04, 0xce, 0x1a, 0xd3, 0xa0, 0x0f,
    0xdf, 0x51, 0xef, 0xd0, 0xc6, 0x4d, 0x4c, 0x08, 0x49, 0x2f, 0x35, 0x70, 0x0c,
    0xc2, 0x4a, 0x18, 0x2d, 0x61, 0xcf, 0xc2, 0x8d, 0x95, 0xf1, 0x01, 0xf7, 0x80,
    0xc6, 0x83, 0x60, 0x3e, 0x0d, 0xc8, 0xfa, 0xa3, 0x9f, 0x05, 0xcc, 0x5f, 0xe0,
    0xda, 0x8a, 0x3e, 0x22, 0xd8, 0xd3, 0xe9, 0x6a, 0x36, 0x29, 0xd4, 0xaa, 0x77};
constexpr std::array<std::uint8_t, 70> self_test_signature = {
    0x30, 0x44, 0x02, 0x20, 0x16, 0x2f, 0xb7, 0xdc, 0xb1, 0x1b, 0xc6, 0xbb, 0xec, 0xa5,
    0x09, 0xef, 0xea, 0x3b, 0x0e, 0x6f, 0xd0, 0xbc, 0x48, 0x66, 0x38, 0x61, 0xaa, 0x92,
    0xb9, 0x4a, 0x7b, 0xf6, 0x95, 0x11, 0x26, 0x0f, 0x02, 0x20, 0x41, 0x89, 0x3d, 0xe5,
    0xef, 0x11, 0x3a, 0x5f, 0xdb, 0x33, 0x0b, 0x4a, 0x52, 0xdd, 0xdb, 0x0d, 0x96, 0x81,
    0x79, 0x8c, 0xd6, 0xc2, 0x95, 0xb8, 0xc4, 0x64, 0x53, 0x3d, 0x71, 0x1a, 0xd0, 0x1d};

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

bool digest_verify(const verifier &with, std::span<const std::uint8_t> digest,
                   std::span<const std::uint8_t> signature)
{
    return EVP_PKEY_verify(with.context.get(), signature.data(), signature.size(), digest.data(),
                           digest.size()) == 1;
}

bool message_verify(verifier *with, std::span<const std::uint8_t> message,
                    std::span<const std::uint8_t> signature)
{
    if (!context_init(with)) {
        LOG_DEBUG("Cannot init verify");
        return false;
    }
    const auto digest = sha256(message);
    if (!digest.has_value()) {
        LOG_DEBUG("Cannot update verify");
        return false;
    }
    if (!digest_verify(*with, *digest, signature)) {
        LOG_DEBUG("Verify unsuccessful");
        return false;
    }
    return true;
}

/// By the key that all calls share, as any of them does it.
bool self_test_verify(std::span<const std::uint8_t> point)
{
    const auto *const message = reinterpret_cast<const std::uint8_t *>(self_test_message.data());
    const auto digest = sha256({message, self_test_message.size()});
    p256_load(point);
    return state.p256.key != nullptr && context_init(&state.p256) && digest.has_value() &&
           digest_verify(state.p256, *digest, self_test_signature);
}

} // namespace

bool ios_app_signature_self_test()
{
    return self_test_verify(self_test_point) && !self_test_verify(self_test_other_point) &&
           self_test_verify(self_test_point);
}

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
        story_reason_set("the paired key cannot be used");
    }
    if (with.key == nullptr || !message_verify(&with, message, signature)) {
        LOG_DEBUG("Invalid signature");
        story_reason_set("its signature is not by the key that was paired");
        return false;
    }
    return true;
}

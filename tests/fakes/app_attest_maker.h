#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fakes/app_attest_samples.h"
#include "handles/openssl.h"

/// Makes App Attest objects as Apple's service and an iPhone do, with every part open to bending.

/// The instant for which generated certificates are made; they live a day on both sides of it.
inline constexpr std::time_t app_attest_maker_now = 1'750'000'000;

// CBOR, written item by item.
[[nodiscard]] test_bytes cbor_make_head(unsigned major, std::uint64_t argument);
[[nodiscard]] test_bytes cbor_make_text(std::string_view text);
[[nodiscard]] test_bytes cbor_make_bytes(const test_bytes &bytes);
[[nodiscard]] test_bytes cbor_make_array(const std::vector<test_bytes> &items);
using cbor_pairs = std::vector<std::pair<test_bytes, test_bytes>>; // key item, value item
[[nodiscard]] test_bytes cbor_make_map(const cbor_pairs &pairs);
[[nodiscard]] test_bytes bytes_joined(const std::vector<test_bytes> &pieces);

[[nodiscard]] test_bytes sha256_of(const test_bytes &bytes);
[[nodiscard]] test_bytes bytes_of(std::string_view text);

[[nodiscard]] evp_pkey_ptr ec_key_make(int curve_nid);
[[nodiscard]] evp_pkey_ptr ed25519_key_make();
/// SubjectPublicKeyInfo, and its trailing 65 bytes for a P-256 key.
[[nodiscard]] test_bytes public_key_der(EVP_PKEY *key);
[[nodiscard]] test_bytes public_key_point(EVP_PKEY *key);
/// ECDSA with SHA-256, DER.
[[nodiscard]] test_bytes ecdsa_sign(EVP_PKEY *key, const test_bytes &message);

struct certificate_wish {
    std::string name;
    EVP_PKEY *subject_key = nullptr;
    const X509 *issuer = nullptr; // null: self-signed
    EVP_PKEY *issuer_key = nullptr;
    bool ca = false;
    std::optional<test_bytes> nonce_extension = {}; // the whole value of 1.2.840.113635.100.8.2
    std::time_t from = app_attest_maker_now - 86400;
    std::time_t to = app_attest_maker_now + 86400;
};
[[nodiscard]] x509_ptr certificate_make(const certificate_wish &wish);
[[nodiscard]] test_bytes certificate_der(X509 *certificate);
[[nodiscard]] std::string certificate_pem(X509 *certificate);

/// A certification authority: key and certificate.
struct app_attest_authority {
    evp_pkey_ptr key;
    x509_ptr certificate;
};
[[nodiscard]] app_attest_authority authority_make(const std::string &name,
                                                  const app_attest_authority *issuer = nullptr);

inline constexpr std::array<std::uint8_t, 16> aaguid_production = {'a', 'p', 'p', 'a', 't',
                                                                   't', 'e', 's', 't'};
inline constexpr std::array<std::uint8_t, 16> aaguid_develop = {
    'a', 'p', 'p', 'a', 't', 't', 'e', 's', 't', 'd', 'e', 'v', 'e', 'l', 'o', 'p'};

/// Authenticator data, field by field.
struct auth_data_wish {
    test_bytes rp_id_hash;
    std::uint8_t flags = 0x40;
    std::uint32_t counter = 0;
    std::array<std::uint8_t, 16> aaguid = aaguid_production;
    test_bytes credential_id;
    test_bytes trailer = {0xa0}; // stands for the COSE key

    [[nodiscard]] test_bytes attestation() const;
    [[nodiscard]] test_bytes assertion() const;
};

/// What an attestation object is made of; encode() gives the object.
struct attestation_parts {
    std::string fmt = "apple-appattest";
    std::vector<test_bytes> x5c;
    test_bytes receipt = {1, 2, 3};
    test_bytes auth_data;

    [[nodiscard]] test_bytes statement() const;
    [[nodiscard]] test_bytes encode() const;
};

[[nodiscard]] test_bytes assertion_encode(const test_bytes &signature, const test_bytes &auth_data);

/// The extension's value as Apple makes it: SEQUENCE { [1] { OCTET STRING nonce } }.
[[nodiscard]] test_bytes nonce_extension_value(const test_bytes &nonce);

/// An iPhone with an app and a fresh key; root and intermediate are its vendor's.
class app_attest_phone {
  public:
    explicit app_attest_phone(std::string app_id);

    /// Good authenticator data of this phone, to be bent.
    [[nodiscard]] auth_data_wish auth_data() const;
    /// The credential certificate for this authenticator data and hash.
    [[nodiscard]] test_bytes leaf(const test_bytes &auth_data,
                                  const test_bytes &client_data_hash) const;
    [[nodiscard]] test_bytes leaf_with_extension(const std::optional<test_bytes> &value) const;
    /// A whole good attestation around the authenticator data.
    [[nodiscard]] attestation_parts attest(const auth_data_wish &auth_data,
                                           const test_bytes &client_data_hash) const;
    [[nodiscard]] test_bytes assert_request(const auth_data_wish &auth_data,
                                            const test_bytes &client_data_hash) const;

    std::string app_id;
    app_attest_authority root;
    app_attest_authority intermediate;
    evp_pkey_ptr key;
};

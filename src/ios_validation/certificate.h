#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "handles/openssl.h"

/// The credential certificate of an attestation: its chain, its nonce extension, its key.

/// The parsed leaf when verification at the current time built a chain from it up to the root
/// itself, else null. The phone sends the intermediate, so it is only a link that may be used,
/// never a root of its own.
[[nodiscard]] x509_ptr ios_app_certificate_verify(const char *root_pem,
                                                  std::span<const std::uint8_t> leaf_der,
                                                  std::span<const std::uint8_t> intermediate_der);

/// True when the text begins with a certificate that can be the root.
[[nodiscard]] bool ios_app_certificate_is_root(const char *pem);

/// The value of the extension 1.2.840.113635.100.8.2, borrowed from the certificate; empty when
/// there is none.
[[nodiscard]] std::span<const std::uint8_t>
ios_app_certificate_nonce_extension(const X509 *certificate);

struct ios_app_public_key {
    std::span<const std::uint8_t> point; // 0x04, X, Y; borrowed from the certificate
    openssl_bytes der;                   // SubjectPublicKeyInfo
    std::size_t der_length = 0;
};

/// Nothing when the certificate's key is no elliptic curve key that OpenSSL can load.
[[nodiscard]] std::optional<ios_app_public_key>
ios_app_certificate_public_key(const X509 *certificate);

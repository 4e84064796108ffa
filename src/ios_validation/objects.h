#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "handles/cbor.h"

/// The two objects of App Attest, taken out of their CBOR maps.

/// {"fmt": "apple-appattest", "attStmt": {"x5c": [leaf, intermediate], "receipt": bytes},
///  "authData": bytes}, keys in any order.
/// Format and receipt must be there, and nothing is asked of them later.
struct ios_attestation_obj {
    std::vector<std::uint8_t> credential_certificate;   // x5c[0], DER
    std::vector<std::uint8_t> intermediate_certificate; // x5c[1], DER
    std::vector<std::uint8_t> auth_data;
};

/// {"signature": bytes, "authenticatorData": bytes}, keys in any order.
struct ios_assertion_obj {
    std::vector<std::uint8_t> signature; // DER, ECDSA
    std::vector<std::uint8_t> authenticator_data;
};

/// Nothing unless every member is there, once, with the kind and size it must have, and nothing
/// else. The item may be null.
[[nodiscard]] std::optional<ios_attestation_obj>
ios_attestation_obj_create(const cbor_item_t *item);
[[nodiscard]] std::optional<ios_assertion_obj> ios_assertion_obj_create(const cbor_item_t *item);

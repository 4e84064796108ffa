#pragma once

#include <optional>

#include "handles/cbor.h"
#include "handles/malloc.h"
#include "ios_validation/bytes.h"

/// The two objects of App Attest, taken out of their CBOR maps.

/// {"fmt": "apple-appattest", "attStmt": {"x5c": [leaf, intermediate], "receipt": bytes},
///  "authData": bytes}, keys in any order.
struct ios_attestation_obj {
    plain_ptr<char> fmt;                    // terminated
    ios_app_bytes credential_certificate;   // x5c[0], DER
    ios_app_bytes intermediate_certificate; // x5c[1], DER
    ios_app_bytes receipt;                  // kept, never examined
    ios_app_bytes auth_data;
};

/// {"signature": bytes, "authenticatorData": bytes}, keys in any order.
struct ios_assertion_obj {
    ios_app_bytes signature; // DER, ECDSA
    ios_app_bytes authenticator_data;
};

/// Nothing unless every member is there, once, with the kind and size it must have, and nothing
/// else. The item may be null.
[[nodiscard]] std::optional<ios_attestation_obj>
ios_attestation_obj_create(const cbor_item_t *item);
[[nodiscard]] std::optional<ios_assertion_obj> ios_assertion_obj_create(const cbor_item_t *item);

#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "android_validation/assertion.h"
#include "velm_config.h"

/// Decides whether a phone is a genuine copy of the app on a genuine device.

/// Checks once that signatures are verified rightly, while something else is waited for. Otherwise
/// velm_attestation_engine_init does it; what is wrong is fatal there. Logs nothing.
void velm_attestation_engine_prepare();

/// Remembers the configuration (borrowed) and loads the keys and the root certificate. Problems are
/// logged, and what an earlier run loaded stays in use. Runs again on reload.
void velm_attestation_engine_init(const velm_config *config);

struct velm_attestation_result {
    bool success = false;
    std::string attestation_key; // base64 of the DER SubjectPublicKeyInfo, on success
};

/// App Attest attestation object (CBOR) of a new key. The device id takes no part in the check.
[[nodiscard]] velm_attestation_result
velm_attestation_engine_ios_verify_attestation(const char *device_id,
                                               std::span<const std::uint8_t> attestation_object,
                                               std::span<const std::uint8_t> client_data_hash);

/// App Attest assertion object (CBOR) by the key that the device's pairing holds.
[[nodiscard]] bool
velm_attestation_engine_ios_verify_assertion(const char *device_id,
                                             std::span<const std::uint8_t> assertion_object,
                                             std::span<const std::uint8_t> client_data_hash);

/// Play Integrity token; copies its input and reports later through `result_cb`. The device id takes
/// no part in the check. The result is that of queueing the work (0). A missing argument or another
/// method is fatal.
int velm_attestation_engine_android_verify_assertion(
    const char *device_id, std::span<const std::uint8_t> assertion_object,
    std::span<const std::uint8_t> message_digest, int method,
    velm_android_verify_assertion_callback result_cb, void *user_data);

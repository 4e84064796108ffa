#pragma once

#include <cstdint>
#include <span>

/// True when the signature (DER) is ECDSA with SHA-256 over the message by the key (DER
/// SubjectPublicKeyInfo). What is wrong is logged, "Invalid signature" last.
[[nodiscard]] bool ios_app_signature_verify(std::span<const std::uint8_t> public_key_der,
                                            std::span<const std::uint8_t> message,
                                            std::span<const std::uint8_t> signature);

/// True when a signature passes by its own key and by no other. All calls share one key object, whose
/// point each of them sets: a cryptographic library that kept the point of an earlier call would let
/// one phone pass for another. Asked once, at start.
[[nodiscard]] bool ios_app_signature_self_test();

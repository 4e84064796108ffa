#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

/// Opens a Play Integrity token on this device: a compact JWE (A256KW, A256GCM) around a compact JWS
/// (ES256), both in the unpadded base64url that the token comes in. Nothing else is accepted,
/// whatever the token says of itself.

/// What the header that carries a token can hold at most, decoded: 16384 characters of base64.
inline constexpr std::size_t android_token_max_length = 12288;

/// The keys are JWKs as JSON text, an "oct" key of 32 bytes and a P-256 key; an empty one is none.
/// Gives the payload once its signature has been verified; nothing, and a line in the log that names
/// the reason, otherwise. The payload is what Google signed, not yet known to be JSON. A key that was
/// good is kept until one of another text has taken its place.
[[nodiscard]] std::optional<std::string> android_token_open(std::span<const std::uint8_t> token,
                                                            const std::string &decryption_key,
                                                            const std::string &verification_key);

/// Whether a JWK serves for it; if not, a line in the log says why.
[[nodiscard]] bool android_token_decryption_key_is_good(const std::string &text);
[[nodiscard]] bool android_token_verification_key_is_good(const std::string &text);

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "crypto/sha256.h"

/// Base64 (RFC 4648, standard alphabet, padded, one line) and SHA-256 by OpenSSL. A null or empty
/// input is a failure, logged like every other.

using common_sha256_digest = sha256_digest;

/// Nothing for no bytes, and when OpenSSL fails.
[[nodiscard]] std::optional<std::string>
common_crypto_base64_encode(std::span<const std::uint8_t> bytes);

/// Strict: a length that is no multiple of four, a character outside the alphabet (a newline too)
/// or misplaced padding is refused, since OpenSSL would silently cut such text.
[[nodiscard]] std::optional<std::vector<std::uint8_t>>
common_crypto_base64_decode(std::string_view text);

[[nodiscard]] std::optional<common_sha256_digest>
common_crypto_sha256(std::span<const std::uint8_t> bytes);

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

using sha256_digest = std::array<std::uint8_t, 32>;

/// SHA-256 over `head` and `tail`, one behind the other; nothing when OpenSSL fails.
[[nodiscard]] std::optional<sha256_digest> sha256(std::span<const std::uint8_t> head,
                                                  std::span<const std::uint8_t> tail = {});

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "handles/cbor.h"

/// CBOR as App Attest uses it: small maps with text keys, two levels deep.

/// Nothing when the bytes are no CBOR. What stands behind the first item is ignored.
/// A null item is CBOR of a shape that no App Attest object has: more than 16 elements in a map or
/// an array, more than 4 levels, a string of unknown length. It is never built, since the decoder
/// takes memory for every element that a few bytes only announce.
[[nodiscard]] std::optional<cbor_item_ptr> ios_app_cbor_decode(std::span<const std::uint8_t> bytes);

/// Stores the value of a map's key; false rejects the map.
using ios_app_cbor_key_handler = bool (*)(void *object, std::string_view key,
                                          const cbor_item_t *value);

/// True when the item is a map of exactly `pairs` pairs, every key a text of 1 to 31 bytes, and the
/// handler takes each of them. The item may be null.
[[nodiscard]] bool ios_app_cbor_read_map(const cbor_item_t *item, std::size_t pairs, void *object,
                                         ios_app_cbor_key_handler handler);

/// The content of a byte string of 1 to 4096 bytes, borrowed; nothing for any other item.
[[nodiscard]] std::optional<std::span<const std::uint8_t>>
ios_app_cbor_bytes(const cbor_item_t *item);

/// Copies a byte string of 1 to 4096 bytes into a slot that is still empty.
[[nodiscard]] bool ios_app_cbor_read_bytes(const cbor_item_t *item,
                                           std::vector<std::uint8_t> &slot);

/// The text of a definite text string; nothing for any other item.
[[nodiscard]] std::optional<std::string_view> ios_app_cbor_text(const cbor_item_t *item);

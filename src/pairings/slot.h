#pragma once

#include <array>
#include <string_view>

#include "handles/malloc.h"

/// One slot of a paired phone in nvram: each of its members is a setting of its own. Every read asks the
/// store, since another program may have changed it. Internal to velm_nvram_pairings.

using pairing_key = std::array<char, 64>;

/// The name of a member's setting, terminated by a zero: "zelkad_pairing_<slot>_<member>". What does not
/// fit is cut.
[[nodiscard]] pairing_key pairing_slot_key(int index, std::string_view member);

/// Null when it is absent.
[[nodiscard]] malloc_text pairing_slot_read(int index, const char *member);

/// False when it is absent.
[[nodiscard]] bool pairing_slot_equals(int index, const char *member, std::string_view value);

/// Whether the store has what was written: an absent setting reads as empty, as a store may keep an empty
/// value. `value` may be null, which no store keeps.
[[nodiscard]] bool pairing_slot_keeps(int index, const char *member, const char *value);

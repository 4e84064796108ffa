#include "pairings/slot.h"

#include <nvram.h>

#include <charconv>
#include <cstddef>

/// Put together by hand: every look at a slot begins with it, and printing it takes several times as
/// long as the look itself.
pairing_key pairing_slot_key(int index, std::string_view member)
{
    constexpr std::string_view prefix = "zelkad_pairing_";
    pairing_key key{};
    char *at = key.data() + prefix.copy(key.data(), prefix.size());
    char *const end = key.data() + key.size() - 1; // behind it stays a zero
    at = std::to_chars(at, end, index).ptr;
    *at++ = '_';
    member.copy(at, static_cast<std::size_t>(end - at));
    return key;
}

malloc_text pairing_slot_read(int index, const char *member)
{
    return malloc_text{nvram_unf_get(pairing_slot_key(index, member).data())};
}

bool pairing_slot_equals(int index, const char *member, std::string_view value)
{
    const malloc_text stored = pairing_slot_read(index, member);
    return stored != nullptr && value == stored.get();
}

bool pairing_slot_keeps(int index, const char *member, const char *value)
{
    const malloc_text stored = pairing_slot_read(index, member);
    return value != nullptr && std::string_view{value} == (stored == nullptr ? "" : stored.get());
}
